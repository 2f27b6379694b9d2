#include "KvadVin.h"

#include <array>
#include <cstdio>
#include <string_view>

#include "Characters.h"
#include "File.h"

namespace {

// Lines of 1023 bytes and more are read in pieces.
constexpr std::size_t kLineSize = 1024;

/// The text without blanks at both ends, and without control characters.
std::string Clean(std::string_view text) {
    std::string clean;
    for (const char c : text) {
        if (!Characters::IsControl(c) && (c != ' ' || !clean.empty())) {
            clean += c;
        }
    }
    clean.resize(clean.find_last_not_of(' ') + 1);
    return clean;
}

}  // namespace

bool KvadVin::Read() {
    const File file = OpenToRead(kPath);
    if (!file) {
        return false;
    }
    *this = {};
    std::array<char, kLineSize> buffer{};
    // The blank in front skips empty lines at the beginning of the file, the one behind all others.
    while (std::fscanf(file.get(), " %1023[^\n]\n", buffer.data()) == 1) {
        const std::string_view line(buffer.data());
        const std::size_t cut = line.find('=');
        if (cut == std::string_view::npos) {
            continue;
        }
        const std::string name = Clean(line.substr(0, cut));
        const std::string value = Clean(line.substr(cut + 1));
        if (name == "KVAD") {
            vin = value;
        } else if (name == "GW_DIAG_ADR") {
            gateway = value;
        } else if (name == "DIAG_ADR") {
            controlUnits.push_back(value);
        }
    }
    return true;
}

std::string KvadVin::ControlUnitList() const {
    std::string list;
    for (const std::string& unit : controlUnits) {
        list += (list.empty() ? "" : ",") + unit;
    }
    return "[" + list + "]";
}
