#pragma once

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

/// Numbers that stand in texts.
namespace Numbers {

inline constexpr int kDecimal = 10;
inline constexpr int kHexadecimal = 16;

/// The number that the whole text is: digits of that base, with a "-" in front where the type has a
/// sign; no blank, no "+", no "0x". Nothing for other texts and for numbers that the type does not
/// hold. Parse<int>("-7") is -7; Parse<int>("7 ") and Parse<std::uint8_t>("256") are nothing.
template <typename Number>
std::optional<Number> Parse(std::string_view text, int base = kDecimal) {
    Number number{};
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number, base);
    return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

/// The number at the beginning of a text as strtol reads it: blanks, a sign, then digits up to the
/// first other character. 0 where there is none; the nearest that the type holds where there are
/// too many. Leading<int>(" 12ab") is 12.
template <typename Number = long>
Number Leading(const std::string& text, int base = kDecimal) {
    using Limits = std::numeric_limits<Number>;
    return static_cast<Number>(std::clamp<long long>(std::strtoll(text.c_str(), nullptr, base),
                                                     Limits::min(), Limits::max()));
}

}  // namespace Numbers
