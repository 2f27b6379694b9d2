#include "Utf8.h"

namespace Utf8 {
namespace {

bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80U;
}

}  // namespace

Character First(std::string_view text) {
    struct Form {
        unsigned mask;
        unsigned mark;
        std::uint32_t least;
    };
    constexpr Form kForms[] = {
        {0x80, 0x00, 0}, {0xe0, 0xc0, 0x80}, {0xf0, 0xe0, 0x800}, {0xf8, 0xf0, 0x10000}};
    constexpr std::uint32_t kLast = 0x10ffff;
    const auto lead = static_cast<unsigned char>(text.front());
    std::size_t size = 0;
    for (const Form& form : kForms) {
        ++size;
        if ((lead & form.mask) != form.mark) {
            continue;
        }
        std::uint32_t code = lead & ~form.mask;
        for (std::size_t i = 1; i < size; ++i) {
            if (i >= text.size() || !IsContinuation(text[i])) {
                return {};
            }
            code = code << 6U | (static_cast<unsigned char>(text[i]) & 0x3fU);
        }
        const bool isSurrogate = code >= 0xd800 && code <= 0xdfff;
        if (code < form.least || code > kLast || isSurrogate) {
            return {};
        }
        return {code, size, true};
    }
    return {};
}

}  // namespace Utf8
