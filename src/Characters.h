#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

/// Classes of characters, the same whatever the locale.
namespace Characters {

/// Whether a byte is a control character of ASCII (0x00 to 0x1f and 0x7f): in UTF-8, and in any
/// text whose encoding is not known, the others are no bytes of their own.
constexpr bool IsControl(char byte) {
    constexpr char kDelete = 0x7f;
    return static_cast<unsigned char>(byte) < ' ' || byte == kDelete;
}

/// Whether a character of Unicode is one: ASCII's, those of ISO/IEC 6429 (U+0080 to U+009F), and
/// the ends of a line and of a paragraph (U+2028, U+2029). Terminals obey the ones, editors break
/// the line at the others.
constexpr bool IsControl(std::uint32_t code) {
    constexpr std::uint32_t kLastAscii = 0x7f;
    constexpr std::uint32_t kLastControl = 0x9f;
    constexpr std::uint32_t kLineEnd = 0x2028;
    constexpr std::uint32_t kParagraphEnd = 0x2029;
    return code <= kLastAscii ? IsControl(static_cast<char>(code))
                              : code <= kLastControl || code == kLineEnd || code == kParagraphEnd;
}

constexpr bool IsDigit(char byte) {
    return byte >= '0' && byte <= '9';
}

/// Letters and digits of ASCII.
constexpr bool IsAlphanumeric(char byte) {
    return IsDigit(byte) || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
}

/// Whether a text is made of letters and digits of ASCII and the `further` characters only.
constexpr bool IsMadeOf(std::string_view text, std::string_view further) {
    return std::all_of(text.begin(), text.end(), [further](char c) {
        return IsAlphanumeric(c) || further.find(c) != std::string_view::npos;
    });
}

/// A byte as two lower-case hexadecimal digits.
inline std::string Hex(char byte) {
    constexpr char kDigits[] = "0123456789abcdef";
    constexpr unsigned kDigitBits = 4;
    constexpr unsigned kDigitMask = 0xf;
    const auto code = static_cast<unsigned char>(byte);
    return {kDigits[code >> kDigitBits], kDigits[code & kDigitMask]};
}

}  // namespace Characters
