#include "SlpEscapes.h"

#include <algorithm>
#include <array>

#include "Characters.h"
#include "Numbers.h"
#include "Utf8.h"

namespace SlpEscapes {
namespace {

constexpr char kMark = '\\';
constexpr std::size_t kDigits = 2;
constexpr std::size_t kEscapeSize = 1 + kDigits;

constexpr bool IsReserved(char character) {
    constexpr std::string_view kReserved("(),\\!<=>~");
    return Characters::IsControl(character) || kReserved.find(character) != std::string_view::npos;
}

constexpr auto kIsReserved = [] {
    std::array<bool, 256> table{};
    for (std::size_t i = 0; i < table.size(); ++i) {
        table[i] = IsReserved(static_cast<char>(i));
    }
    return table;
}();

/// Whether `text` begins with an escape, and the byte that it stands for.
bool ReadEscape(std::string_view text, char& byte) {
    if (text.size() < kEscapeSize || text.front() != kMark) {
        return false;
    }
    const auto code = Numbers::Parse<unsigned char>(text.substr(1, kDigits), Numbers::kHexadecimal);
    byte = static_cast<char>(code.value_or(0));
    return code.has_value();
}

}  // namespace

std::string Escape(std::string_view value, std::string_view kept) {
    std::string escaped;
    AppendEscaped(escaped, value, kept);
    return escaped;
}

void AppendEscaped(std::string& text, std::string_view value, std::string_view kept) {
    while (!value.empty()) {
        const auto* const end = std::find_if(value.begin(), value.end(), [kept](char character) {
            return kIsReserved[static_cast<unsigned char>(character)] &&
                   kept.find(character) == std::string_view::npos;
        });
        const auto size = static_cast<std::size_t>(end - value.begin());
        text += value.substr(0, size);
        if (size == value.size()) {
            return;
        }
        text += kMark + Characters::Hex(*end);
        value.remove_prefix(size + 1);
    }
}

std::string Unescape(std::string_view value) {
    std::string text;
    while (!value.empty()) {
        char byte = value.front();
        const bool isEscape = ReadEscape(value, byte);
        text += isEscape ? byte : value.front();
        value.remove_prefix(isEscape ? kEscapeSize : 1);
    }
    return text;
}

std::string_view FirstCharacters(std::string_view value, std::size_t count) {
    std::size_t size = 0;
    for (; count > 0 && size < value.size(); --count) {
        size += Utf8::First(value.substr(size)).size;
    }
    return value.substr(0, size);
}

std::string_view CutEscaped(std::string_view value, std::size_t size) {
    std::size_t end = 0;
    while (end < value.size()) {
        const std::string_view rest = value.substr(end);
        char byte = 0;
        const std::size_t next = ReadEscape(rest, byte) ? kEscapeSize : Utf8::First(rest).size;
        if (end + next > size) {
            break;
        }
        end += next;
    }
    return value.substr(0, end);
}

}  // namespace SlpEscapes
