#pragma once

#include <array>
#include <map>
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
};

Line MakeLine(const Box& box);

/// The table, a line feed behind every line. With `colored` it holds terminal escapes: the boxes'
/// colours and what has changed.
std::string Render(const std::vector<Line>& lines, bool colored);

/// Whether standard output shows colours: it is a terminal that knows them, and NO_COLOR is not
/// set.
bool ShowsColors();

}  // namespace BoxTable
