#include "ColorTable.h"

#include <algorithm>
#include <iterator>

namespace ColorTable {
namespace {

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
