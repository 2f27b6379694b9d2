#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// Reading of UTF-8 that may be broken.
namespace Utf8 {

struct Character {
    std::uint32_t code = 0;
    std::size_t size = 1;
    bool isValid = false;
};

/// The first character of a text that is not empty (RFC 3629, section 4); where there is none, a
/// byte that is not valid.
Character First(std::string_view text);

}  // namespace Utf8
