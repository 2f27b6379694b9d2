#include "ColorTable.h"

#include <algorithm>
#include <iterator>

namespace ColorTable {
namespace {

struct Color {
    std::string_view name;
    std::string_view value;
};

constexpr Color kColors[] = {
    {"white", "#ede3d3"}, {"red", "#be1110"},   {"yellow", "#ffff43"}, {"violet", "#8a4280"},
    {"green", "#4e8541"}, {"brown", "#754836"}, {"blue", "#163279"},   {"grey", "#acaea6"},
};

/// The `wanted` member of the colour whose `known` member is `text`.
std::string_view Find(std::string_view text, std::string_view Color::*known,
                      std::string_view Color::*wanted) {
    const auto* const found =
        std::find_if(std::begin(kColors), std::end(kColors),
                     [&](const Color& color) { return color.*known == text; });
    return found == std::end(kColors) ? std::string_view() : found->*wanted;
}

}  // namespace

std::string_view ValueOf(std::string_view name) {
    return Find(name, &Color::name, &Color::value);
}

std::string_view NameOf(std::string_view value) {
    return Find(value, &Color::value, &Color::name);
}

}  // namespace ColorTable
