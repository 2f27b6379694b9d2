#pragma once

#include <string_view>

/// Colours that a box can be given: the name in its settings and the value that clients show.
namespace ColorTable {

struct Color {
    std::string_view name;
    std::string_view value;
};

inline constexpr Color kColors[] = {
    {"white", "#ede3d3"}, {"red", "#be1110"},   {"yellow", "#ffff43"}, {"violet", "#8a4280"},
    {"green", "#4e8541"}, {"brown", "#754836"}, {"blue", "#163279"},   {"grey", "#acaea6"},
};

/// "#rrggbb" of a colour name, empty for an unknown one: "#ede3d3" of "white".
std::string_view ValueOf(std::string_view name);

/// Name of a colour value, empty for an unknown one.
std::string_view NameOf(std::string_view value);

}  // namespace ColorTable
