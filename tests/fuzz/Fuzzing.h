#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

/// What the fuzz targets share. They run in simulated boxes, on the agent's own paths.
namespace Fuzzing {

/// Standard error as it was before the fuzzer closed it to what is fuzzed.
inline const int console = dup(STDERR_FILENO);

/// Where something that must hold does not, the input is a finding.
inline void Require(bool holds, const char* what) {
    if (!holds) {
        dprintf(console, "fuzzing: this does not hold: %s\n", what);
        std::abort();
    }
}

inline std::string_view ToText(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// Takes the text up to the next `end`, which is dropped, off `rest`.
inline std::string_view Take(std::string_view& rest, char end) {
    const std::string_view taken = rest.substr(0, rest.find(end));
    rest.remove_prefix(std::min(rest.size(), taken.size() + 1));
    return taken;
}

/// Takes a number from 0 to 255 off `rest`; 0 when it is empty.
inline unsigned TakeByte(std::string_view& rest) {
    if (rest.empty()) {
        return 0;
    }
    const auto byte = static_cast<unsigned char>(rest.front());
    rest.remove_prefix(1);
    return byte;
}

inline void WriteFile(const std::string& path, std::string_view text) {
    Require(static_cast<bool>(std::ofstream(path, std::ios::binary) << text << std::flush),
            "the box takes files");
}

/// Control characters of ASCII other than those in `allowed`.
inline bool HasControls(std::string_view text, std::string_view allowed = "") {
    return std::any_of(text.begin(), text.end(), [allowed](char c) {
        return ((c >= 0 && c < ' ') || c == 0x7f) && allowed.find(c) == std::string_view::npos;
    });
}

}  // namespace Fuzzing
