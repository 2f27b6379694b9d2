#pragma once

#include <string_view>

/// Names that people type: "Müller" and "MÜLLER" are the same.
namespace AnyCase {

/// Whether two texts of UTF-8 differ in nothing but upper and lower case, each letter compared on
/// its own, whatever the locale.
bool Equal(std::string_view one, std::string_view other);

}  // namespace AnyCase
