#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Box.h"

/// How warm boxes are. No box says so in its answer to a search: each is asked for the file that it
/// judges itself by, as the download of files gives it, and which changes nothing.
struct BoxTemperature {
    /// Nothing when the box knows it, but not as a whole number.
    std::optional<int> celsius;
    /// A box that is too hot cannot be reserved.
    bool isTooHot = false;

    /// Reads "Temp:41,Status:12", the status in hexadecimal.
    static std::optional<BoxTemperature> Read(std::string_view text);

    /// Asks several at a time, and after ten seconds no more of them. By their addresses, without
    /// those that do not tell.
    static std::map<std::string, BoxTemperature> Ask(const std::vector<Box>& boxes);
};
