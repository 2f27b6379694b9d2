#include "KvadVin.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string_view>
#include <utility>

#include "Characters.h"
#include "SourceFile.h"

namespace {

// Lines of 1023 bytes and more are read in pieces.
constexpr std::size_t kLineSize = 1024;

constexpr std::string_view kBlanks(" \t\n\v\f\r");

/// Takes the next line, or piece of one, off `text`. Empty lines, and blanks at the beginning of
/// others, do not count; nothing is left of a text without further lines.
std::string_view TakeLine(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    const std::string_view line = text.substr(0, text.find('\n')).substr(0, kLineSize - 1);
    text.remove_prefix(line.size());
    return line.substr(0, line.find('\0'));
}

/// The text without blanks at both ends, and without control characters.
std::string Clean(std::string_view text) {
    std::string clean;
    clean.reserve(text.size());
    std::copy_if(text.begin(), text.end(), std::back_inserter(clean), [&clean](char c) {
        return !Characters::IsControl(c) && (c != ' ' || !clean.empty());
    });
    clean.resize(clean.find_last_not_of(' ') + 1);
    return clean;
}

}  // namespace

bool KvadVin::Read() {
    static SourceFile file(kPath);
    std::string text;
    if (!file.ReadAll(text)) {
        return false;
    }
    *this = {};
    for (std::string_view rest(text); !rest.empty();) {
        const std::string_view line = TakeLine(rest);
        const std::size_t cut = line.find('=');
        if (cut == std::string_view::npos) {
            continue;
        }
        const std::string name = Clean(line.substr(0, cut));
        std::string value = Clean(line.substr(cut + 1));
        if (name == "KVAD") {
            vin = std::move(value);
        } else if (name == "GW_DIAG_ADR") {
            gateway = std::move(value);
        } else if (name == "DIAG_ADR") {
            controlUnits.push_back(std::move(value));
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
