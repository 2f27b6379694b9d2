#include "SafeText.h"

#include <locale.h>
#include <wchar.h>

#include <algorithm>
#include <cstdint>

#include "Characters.h"
#include "Utf8.h"

namespace SafeText {
namespace {

constexpr char kReplacement = '?';
/// Characters for each column: marks take none, and are piled up by nobody who means well.
constexpr std::size_t kMaxPerColumn = 3;

/// Control characters, and those that are not seen but set directions and joins (Unicode's general
/// category Cf, its common part).
bool IsHarmful(std::uint32_t code) {
    struct Range {
        std::uint32_t first;
        std::uint32_t last;
    };
    constexpr Range kHarmful[] = {{0xad, 0xad},     {0x61c, 0x61c},    {0x200b, 0x200f},
                                  {0x202a, 0x202e}, {0x2060, 0x206f},  {0xfeff, 0xfeff},
                                  {0xfff9, 0xfffb}, {0xe0000, 0xe007f}};
    return Characters::IsControl(code) ||
           std::any_of(std::begin(kHarmful), std::end(kHarmful), [code](const Range& range) {
               return code >= range.first && code <= range.last;
           });
}

/// What the C library knows of it, whatever the user's locale: terminals of today take UTF-8.
std::size_t ColumnsOf(std::uint32_t code) {
    constexpr std::uint32_t kFirstOfOthers = 0x80;
    if (code < kFirstOfOthers) {
        return 1;
    }
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    const locale_t before = utf8 == nullptr ? nullptr : uselocale(utf8);
    const int columns = wcwidth(static_cast<wchar_t>(code));
    if (before != nullptr) {
        uselocale(before);
    }
    return columns < 0 ? 1 : static_cast<std::size_t>(columns);
}

template <typename Handle>
void ForEach(std::string_view text, const Handle& handle) {
    while (!text.empty()) {
        const Utf8::Character character = Utf8::First(text);
        handle(character, text.substr(0, character.size));
        text.remove_prefix(character.size);
    }
}

std::string Clean(std::string_view text, std::string_view kept) {
    std::string clean;
    ForEach(text, [&](const Utf8::Character& character, std::string_view bytes) {
        if (kept.find(bytes) != std::string_view::npos ||
            (character.isValid && !IsHarmful(character.code))) {
            clean += bytes;
        } else {
            clean += kReplacement;
        }
    });
    return clean;
}

}  // namespace

std::string Line(std::string_view text) {
    return Clean(text, "");
}

std::string Lines(std::string_view text) {
    std::string withoutReturns;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (!text.substr(i).starts_with("\r\n")) {
            withoutReturns += text[i];
        }
    }
    return Clean(withoutReturns, "\n\t");
}

std::size_t Width(std::string_view text) {
    std::size_t width = 0;
    ForEach(text, [&width](const Utf8::Character& character, std::string_view /*bytes*/) {
        width += ColumnsOf(character.code);
    });
    return width;
}

std::string Shorten(std::string_view text, std::size_t width) {
    const std::size_t most = kMaxPerColumn * width;
    std::size_t characters = 0;
    ForEach(text, [&](const auto&...) { ++characters; });
    if (Width(text) <= width && characters <= most) {
        return std::string(text);
    }
    std::string shortened;
    std::size_t columns = 1;  // the ellipsis
    characters = 1;
    ForEach(text, [&](const Utf8::Character& character, std::string_view bytes) {
        columns += ColumnsOf(character.code);
        characters += 1;
        if (columns <= width && characters <= most) {
            shortened += bytes;
        }
    });
    return shortened + "\u2026";
}

}  // namespace SafeText
