#pragma once

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "Box.h"

/// Boxes as a table for people.
namespace BoxTable {

inline constexpr std::array kColumns = {"ADDRESS", "SERIAL", "NAME",    "COLOR",
                                        "STATE",   "OWNER",  "VOLTAGE", "NETWORK"};

/// What a box has in the columns, fit to be shown.
using Row = std::array<std::string, kColumns.size()>;

struct Line {
    Row row;
    /// "#rrggbb"; another text has no colour.
    std::string color;
    /// Columns that are shown highlighted.
    std::array<bool, kColumns.size()> changed{};
    /// How many boxes say that they have its serial number; where it is not alone this is shown.
    std::size_t sameSerial = 1;

    bool HasChanged() const;
};

Line MakeLine(const Box& box);

/// Of those boxes that are wanted; serial numbers count among all.
std::vector<Line> MakeLines(const std::vector<Box>& boxes,
                            const std::function<bool(const Box&)>& isWanted);

/// Sets `sameSerial` of all of them.
void CountSerials(const std::vector<Line*>& lines);

/// The table of the first `shown` lines, a line feed behind every one; columns are as wide as all
/// lines need. With `colored` it holds terminal escapes: the boxes' colours and what has changed.
std::string Render(const std::vector<Line>& lines, bool colored,
                   std::size_t shown = std::string::npos);

/// Whether standard output is a terminal that knows escapes.
bool IsScreen();

/// Whether standard output shows colours: it is such a terminal, and NO_COLOR is not set.
bool ShowsColors();

}  // namespace BoxTable
