#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Values in the attribute lists of SLP (RFC 2608, section 5): the characters that are reserved
/// there, and control characters, stand as a backslash and two hexadecimal digits.
namespace SlpEscapes {

/// `value` with "(", ")", ",", "\", "!", "<", "=", ">", "~", the bytes 0x00 to 0x1f and 0x7f
/// escaped, but for the characters in `kept`: "a,b" becomes "a\2cb".
std::string Escape(std::string_view value, std::string_view kept = {});
/// The same at the end of `text`.
void AppendEscaped(std::string& text, std::string_view value, std::string_view kept = {});

/// Takes the escapes away; digits of either case. A backslash without two of them stays.
std::string Unescape(std::string_view value);

/// The beginning of `value` that has up to `count` characters in UTF-8; a byte that belongs to none
/// counts as one.
std::string_view FirstCharacters(std::string_view value, std::size_t count);

/// The beginning of an escaped value that has up to `size` bytes and ends neither within an escape
/// nor within a character.
std::string_view CutEscaped(std::string_view value, std::size_t size);

}  // namespace SlpEscapes
