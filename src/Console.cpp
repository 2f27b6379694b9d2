#include "Console.h"

#include <cstdio>

namespace Console {

void Print(std::string_view text) noexcept {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

void PrintError(std::string_view text) noexcept {
    std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace Console
