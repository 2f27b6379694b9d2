#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// How a text that a peer has sent stands in a log line: within that line, and of a bounded length,
/// so that nobody writes lines of his own, or rolls the log over with a few of them.
namespace LogText {

/// Most bytes of one value.
inline constexpr std::size_t kMaxValue = 256;
/// Most bytes of a manager's answer, which is logged whole.
inline constexpr std::size_t kMaxAnswer = std::size_t{64} * 1024;

/// `text` with its control characters (U+0000 to U+001F, U+007F to U+009F, U+2028 and U+2029) and
/// what is no UTF-8 written byte by byte as "\n", "\r", "\t" or "\x1b". What then has more than
/// `limit` bytes is cut, never within the escapes or the bytes of a character, and goes on with
/// "..." and the length of `text`: "aaa... (1048576 bytes)".
std::string Of(std::string_view text, std::size_t limit = kMaxValue);

}  // namespace LogText
