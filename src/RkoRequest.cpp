#include "RkoRequest.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace {

constexpr std::string_view kMark = "?FunctionName=";
constexpr std::string_view kDashes = "--";
constexpr std::string_view kPartHeader = "Content-";
constexpr std::string_view kFunctionField = "name=\"FunctionName\"";
constexpr std::size_t kSearched = 4096;
constexpr std::size_t kMaxParts = 16;

/// Takes the first line off `text`; its end, LF or CRLF, is not part of it.
std::string_view TakeLine(std::string_view& text) {
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return line;
}

struct Part {
    std::string_view headers;
    std::string_view content;
    std::size_t offset = 0;  ///< of the content in the body
};

/// The parts of a multipart body, each with a "Content-" header. Empty when it is none.
std::vector<Part> Parts(std::string_view body) {
    std::vector<Part> parts;
    std::string_view rest = body;
    std::string_view boundary;
    // Some clients write the line end that belongs to a boundary in front of the first one, too.
    while (boundary.empty() && !rest.empty()) {
        boundary = TakeLine(rest);
    }
    if (!boundary.starts_with(kDashes) || boundary.size() == kDashes.size()) {
        return parts;
    }
    while (parts.size() < kMaxParts && rest.starts_with(kPartHeader)) {
        const char* start = rest.data();
        while (!rest.empty() && !TakeLine(rest).empty()) {
        }
        const std::string_view headers(start, static_cast<std::size_t>(rest.data() - start));
        const std::size_t end = rest.find("\n" + std::string(boundary));
        std::string_view content = rest.substr(0, end);
        const auto offset = static_cast<std::size_t>(content.data() - body.data());
        if (content.ends_with('\r')) {
            content.remove_suffix(1);
        }
        parts.push_back({headers, content, offset});
        if (end == std::string_view::npos) {
            break;
        }
        rest.remove_prefix(end + 1);
        TakeLine(rest);
    }
    return parts;
}

}  // namespace

std::optional<RkoRequest> RkoRequest::Read(const HttpRequest& request) {
    const std::string_view body = request.body ? *request.body : std::string_view();
    if (request.method == HttpRequest::Method::kGet) {
        const std::string url = request.url.value_or("");
        const std::size_t mark = url.find(kMark);
        if (mark == std::string::npos) {
            return std::nullopt;
        }
        return RkoRequest{url.substr(mark + kMark.size()), body};
    }
    const std::vector<Part> parts = Parts(body);
    if (parts.empty()) {
        return std::nullopt;
    }
    auto function = std::find_if(parts.begin(), parts.end(), [](const Part& part) {
        return part.headers.find(kFunctionField) != std::string_view::npos;
    });
    if (function == parts.end()) {
        function = parts.begin();
    }
    if (function->offset >= kSearched) {
        return std::nullopt;
    }
    RkoRequest read;
    read.function = function->content.substr(0, kSearched - function->offset);
    const auto packet = std::find_if(parts.begin(), parts.end(),
                                     [&](const Part& part) { return &part != &*function; });
    if (packet != parts.end()) {
        read.packet = packet->content;
    }
    return read;
}
