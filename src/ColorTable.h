#pragma once

#include <string_view>

/// Colours that a box can be given: the name in its settings and the value that clients show.
namespace ColorTable {

/// "#rrggbb" of a colour name, empty for an unknown one: "#ede3d3" of "white".
std::string_view ValueOf(std::string_view name);

/// Name of a colour value, empty for an unknown one.
std::string_view NameOf(std::string_view value);

}  // namespace ColorTable
