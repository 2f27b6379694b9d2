#include "AnyCase.h"

#include <clocale>
#include <cstdint>
#include <cwctype>

#include "Utf8.h"

namespace AnyCase {
namespace {

std::wint_t Lower(std::uint32_t code) {
    static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return unicode == nullptr ? std::towlower(code) : towlower_l(code, unicode);
}

}  // namespace

bool Equal(std::string_view one, std::string_view other) {
    while (!one.empty() && !other.empty()) {
        const Utf8::Character first = Utf8::First(one);
        const Utf8::Character second = Utf8::First(other);
        const bool isSame = first.isValid && second.isValid
                                ? Lower(first.code) == Lower(second.code)
                                : one.substr(0, first.size) == other.substr(0, second.size);
        if (!isSame) {
            return false;
        }
        one.remove_prefix(first.size);
        other.remove_prefix(second.size);
    }
    return one.empty() && other.empty();
}

}  // namespace AnyCase
