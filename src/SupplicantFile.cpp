#include "SupplicantFile.h"

#include <algorithm>
#include <istream>
#include <utility>

#include "Characters.h"
#include "DurableFile.h"

namespace {

bool IsOneLine(std::string_view text) {
    return text.size() <= SupplicantFile::kMaxValue &&
           std::none_of(text.begin(), text.end(), [](unsigned char c) { return c < ' '; });
}

std::string Hexadecimal(std::string_view text) {
    std::string digits;
    for (const char byte : text) {
        digits += Characters::Hex(byte);
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

bool SupplicantFile::IsPlainPath(std::string_view path) {
    return !path.empty() && Characters::IsMadeOf(path, "/._-");
}

std::string SupplicantFile::Value(std::istream& file, std::string_view name) {
    for (std::string line; std::getline(file, line);) {
        line.erase(0, line.find_first_not_of(" \t"));
        if (line.starts_with(name) && line.size() > name.size() && line[name.size()] == '=') {
            const std::string value = line.substr(name.size() + 1);
            const bool isQuoted = value.size() >= 2 && value.front() == '"' && value.back() == '"';
            return isQuoted ? value.substr(1, value.size() - 2) : value;
        }
    }
    return "";
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
