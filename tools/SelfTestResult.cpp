#include "SelfTestResult.h"

#include <algorithm>
#include <optional>

namespace SelfTestResult {
namespace {

constexpr std::string_view kColon = ": ";

/// "name: WORD" and, in parentheses, a detail that a further part may end.
std::optional<Test> ReadPart(std::string_view part) {
    const std::size_t colon = part.find(kColon);
    if (colon == std::string_view::npos || colon == 0) {
        return std::nullopt;
    }
    const std::string_view rest = part.substr(colon + kColon.size());
    const std::string_view status = rest.substr(0, rest.find(' '));
    const std::string_view detail = rest.substr(std::min(status.size() + 1, rest.size()));
    const bool isWord = !status.empty() && std::all_of(status.begin(), status.end(),
                                                       [](char c) { return c >= 'A' && c <= 'Z'; });
    if (!isWord || (!detail.empty() && detail.front() != '(')) {
        return std::nullopt;
    }
    return Test{std::string(part.substr(0, colon)), status == "OK", std::string(status),
                std::string(detail)};
}

}  // namespace

std::string Test::ToText() const {
    const std::string known = status.empty() ? name : name + std::string(kColon) + status;
    return known + (detail.empty() ? "" : " (" + detail + ")");
}

std::vector<Test> Read(std::string_view text) {
    std::vector<Test> tests;
    while (!text.empty()) {
        const std::string_view part = text.substr(0, text.find(';'));
        text.remove_prefix(std::min(part.size() + 1, text.size()));
        if (std::optional<Test> test = ReadPart(part)) {
            tests.push_back(std::move(*test));
        } else if (!tests.empty()) {
            tests.back().detail.append(";").append(part);
        } else if (!part.empty()) {
            tests.push_back({std::string(part), false, "", ""});
        }
    }
    for (Test& test : tests) {
        std::string& detail = test.detail;
        const bool isCut = detail.find(')') == std::string::npos;
        if (detail.starts_with('(') && (isCut || detail.ends_with(')'))) {
            detail = detail.substr(1, detail.size() - (isCut ? 1 : 2));
        }
    }
    return tests;
}

}  // namespace SelfTestResult
