#pragma once

#include <string_view>

/// Standard output and standard error of the agent. Thread-safe; never throws, allocates or waits:
/// what cannot be written at once, because nobody drains the pipe, the terminal or the socket, is
/// lost. Once writing works again "N lines lost" tells how many lines were; one of which only the
/// beginning could be written is ended by "...".
namespace Console {

/// Writes `text` to standard output, line end included.
void Print(std::string_view text) noexcept;

/// Writes `text` to standard error, line end included.
void PrintError(std::string_view text) noexcept;

}  // namespace Console
