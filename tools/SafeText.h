#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Texts from the network, made fit to be shown. Nothing in them is trusted: what is no UTF-8, and
/// characters that steer a terminal or change the order of what stands around them, become question
/// marks.
namespace SafeText {

/// One line: also line feeds and tabs are replaced.
std::string Line(std::string_view text);

/// Several lines: line feeds and tabs stay, carriage returns before a line feed vanish.
std::string Lines(std::string_view text);

/// Columns that a safe text takes on a terminal: two for a wide character of East Asia, none for a
/// mark that is put onto the character before.
std::size_t Width(std::string_view text);

/// A safe text of no more than `width` columns, and three times as many characters; an ellipsis
/// ends one that was longer.
std::string Shorten(std::string_view text, std::size_t width);

}  // namespace SafeText
