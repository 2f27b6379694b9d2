#include "BoxTable.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <map>
#include <string_view>
#include <utility>

#include "SafeText.h"

namespace BoxTable {
namespace {

constexpr std::size_t kMaxWidth = 24;
constexpr std::size_t kSerialColumn = 1;
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

std::string Cell(const Line& line, std::size_t column) {
    return column == kSerialColumn && line.sameSerial > 1
               ? line.row[column] + " (" + std::to_string(line.sameSerial) + " boxes)"
               : line.row[column];
}

std::string_view Variable(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

void TrimEnd(std::string& text) {
    text.erase(text.find_last_not_of(' ') + 1);
}

}  // namespace

bool Line::HasChanged() const {
    return std::find(changed.begin(), changed.end(), true) != changed.end();
}

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

std::vector<Line> MakeLines(const std::vector<Box>& boxes,
                            const std::function<bool(const Box&)>& isWanted) {
    std::vector<Line> lines;
    std::transform(boxes.begin(), boxes.end(), std::back_inserter(lines), MakeLine);
    std::vector<Line*> all;
    std::transform(lines.begin(), lines.end(), std::back_inserter(all),
                   [](Line& line) { return &line; });
    CountSerials(all);
    std::vector<Line> wanted;
    for (std::size_t i = 0; i < boxes.size(); ++i) {
        if (isWanted(boxes[i])) {
            wanted.push_back(std::move(lines[i]));
        }
    }
    return wanted;
}

void CountSerials(const std::vector<Line*>& lines) {
    std::map<std::string_view, std::size_t> counts;
    for (const Line* line : lines) {
        ++counts[line->row[kSerialColumn]];
    }
    for (Line* line : lines) {
        const std::string& serial = line->row[kSerialColumn];
        line->sameSerial = serial.empty() ? 1 : counts[serial];
    }
}

std::string Render(const std::vector<Line>& lines, bool colored, std::size_t shown) {
    std::array<std::size_t, kColumns.size()> widths{};
    for (std::size_t i = 0; i < kColumns.size(); ++i) {
        widths[i] = SafeText::Width(kColumns[i]);
        for (const Line& line : lines) {
            widths[i] = std::max(widths[i], SafeText::Width(Cell(line, i)));
        }
    }
    std::string table;
    for (std::size_t i = 0; i < kColumns.size(); ++i) {
        const std::size_t patch = colored && i == kColorColumn ? kPatchWidth : 0;
        table += Pad(kColumns[i], widths[i] + patch) + kGap;
    }
    TrimEnd(table);
    table = colored ? kBold + table + kNormal + "\n" : table + "\n";
    for (std::size_t row = 0; row < std::min(shown, lines.size()); ++row) {
        const Line& line = lines[row];
        std::string text;
        for (std::size_t i = 0; i < kColumns.size(); ++i) {
            text += colored && i == kColorColumn ? Patch(line.color) : "";
            const std::string cell = Pad(Cell(line, i), widths[i]);
            text += colored && line.changed[i] ? kReverse + cell + kNormal : cell;
            text += kGap;
        }
        TrimEnd(text);
        table += text + "\n";
    }
    return table;
}

bool IsScreen() {
    return isatty(STDOUT_FILENO) == 1 && Variable("TERM") != "dumb";
}

bool ShowsColors() {
    return IsScreen() && Variable("NO_COLOR").empty();
}

}  // namespace BoxTable
