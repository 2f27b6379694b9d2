#include "ZelServlet.h"

#include <utility>

void ServletResponse::Fulfil(const HttpRequest& request, std::string type, std::string text) {
    status = 200;
    keepAlive = request.keepAlive;
    contentType = std::move(type);
    body = std::move(text);
}

ZelServlet::ZelServlet(Registration registration) : registration_(std::move(registration)) {}

bool ZelServlet::Matches(std::string_view path, std::uint16_t port) const {
    if ((registration_.port != 0 && registration_.port != port) ||
        !path.starts_with(registration_.path)) {
        return false;
    }
    const std::string_view rest = path.substr(registration_.path.size());
    switch (registration_.matchMode) {
        case MatchMode::kPrefix:
            return true;
        case MatchMode::kPathPrefix:
            return rest.empty() || rest[0] == '/' || rest[0] == '?' || rest[0] == '&';
        case MatchMode::kExact:
            return rest.empty();
    }
    return false;
}
