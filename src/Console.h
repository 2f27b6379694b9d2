#pragma once

#include <string_view>

/// Standard output and standard error of the agent. Thread-safe; never throws.
namespace Console {

/// Writes `text` to standard output, line end included.
void Print(std::string_view text) noexcept;

/// Writes `text` to standard error, line end included.
void PrintError(std::string_view text) noexcept;

}  // namespace Console
