#include "BoxTable.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "SafeText.h"

namespace BoxTable {
namespace {

constexpr std::size_t kMaxWidth = 24;
constexpr std::size_t kColorColumn = 3;
constexpr char kGap[] = "  ";
constexpr char kBold[] = "\033[1m";
constexpr char kReverse[] = "\033[7m";
constexpr char kNormal[] = "\033[0m";
// Room for the patch of colour before its name.
constexpr std::size_t kPatchWidth = 3;

/// A patch of the colour "#rrggbb"; blanks for any other text.
std::string Patch(const std::string& color) {
    constexpr std::size_t kSize = 7;
    constexpr int kHexadecimal = 16;
    if (color.size() != kSize || color[0] != '#' ||
        color.find_first_not_of("0123456789abcdefABCDEF", 1) != std::string::npos) {
        return std::string(kPatchWidth, ' ');
    }
    std::string escape = "\033[48;2";
    for (std::size_t i = 1; i < kSize; i += 2) {
        escape += ";" + std::to_string(std::stoi(color.substr(i, 2), nullptr, kHexadecimal));
    }
    return escape + "m" + std::string(kPatchWidth - 1, ' ') + kNormal + " ";
}

std::string Pad(const std::string& text, std::size_t width) {
    return text + std::string(width - std::min(width, SafeText::Width(text)), ' ');
}

void TrimEnd(std::string& text) {
    text.erase(text.find_last_not_of(' ') + 1);
}

}  // namespace

Line MakeLine(const Box& box) {
    Line line{{box.address, box.DeviceId(), box.HostName(), box.Color(), box.State(),
               box.Attribute("Owner"), box.Voltage(), box.Network()},
              box.Attribute("Color"),
              {}};
    for (std::string& cell : line.row) {
        cell = SafeText::Shorten(SafeText::Line(cell), kMaxWidth);
    }
    return line;
}

std::string Render(const std::vector<Line>& lines, bool colored) {
    std::array<std::size_t, kColumns.size()> widths{};
    for (std::size_t i = 0; i < kColumns.size(); ++i) {
        widths[i] = SafeText::Width(kColumns[i]);
        for (const Line& line : lines) {
            widths[i] = std::max(widths[i], SafeText::Width(line.row[i]));
        }
    }
    std::string table;
    for (std::size_t i = 0; i < kColumns.size(); ++i) {
        const std::size_t patch = colored && i == kColorColumn ? kPatchWidth : 0;
        table += Pad(kColumns[i], widths[i] + patch) + kGap;
    }
    TrimEnd(table);
    table = colored ? kBold + table + kNormal + "\n" : table + "\n";
    for (const Line& line : lines) {
        std::string text;
        for (std::size_t i = 0; i < kColumns.size(); ++i) {
            text += colored && i == kColorColumn ? Patch(line.color) : "";
            const std::string cell = Pad(line.row[i], widths[i]);
            text += colored && line.changed[i] ? kReverse + cell + kNormal : cell;
            text += kGap;
        }
        TrimEnd(text);
        table += text + "\n";
    }
    return table;
}

bool ShowsColors() {
    const auto variable = [](const char* name) -> std::string_view {
        const char* const value = std::getenv(name);
        return value == nullptr ? "" : value;
    };
    return isatty(STDOUT_FILENO) == 1 && variable("NO_COLOR").empty() && variable("TERM") != "dumb";
}

}  // namespace BoxTable
