#include "SupplicantFile.h"

#include <algorithm>
#include <utility>

#include "DurableFile.h"

namespace {

bool IsOneLine(std::string_view text) {
    return text.size() <= SupplicantFile::kMaxValue &&
           std::none_of(text.begin(), text.end(), [](unsigned char c) { return c < ' '; });
}

std::string Hexadecimal(std::string_view text) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string digits;
    for (const char each : text) {
        const auto byte = static_cast<unsigned char>(each);
        digits += kDigits[byte / 16];
        digits += kDigits[byte % 16];
    }
    return digits;
}

}  // namespace

bool SupplicantFile::CanQuote(std::string_view text) {
    // The text ends at the last quote of its line, but before that the supplicant has taken away
    // what it believes to be a comment: from a "#" on that stands behind the second quote, or, in
    // other versions, behind any even number of them.
    const std::size_t quote = text.find('"');
    return IsOneLine(text) &&
           (quote == std::string_view::npos || text.find('#', quote) == std::string_view::npos);
}

bool SupplicantFile::CanStandAlone(std::string_view value) {
    return IsOneLine(value) && value.find('#') == std::string_view::npos;
}

SupplicantFile::SupplicantFile(std::string indent, std::string_view before)
    : indent_(std::move(indent)), text_(before) {
    text_ += "network={\n";
}

void SupplicantFile::Add(std::string_view name, std::string_view value) {
    text_.append(indent_).append(name).append("=").append(value).append("\n");
}

void SupplicantFile::AddText(std::string_view name, std::string_view text) {
    Add(name, CanQuote(text) ? "\"" + std::string(text) + "\"" : Hexadecimal(text));
}

bool SupplicantFile::Replace(const std::string& path) const {
    return DurableFile::Replace(path, text_ + "}\n", DurableFile::kSecret);
}
