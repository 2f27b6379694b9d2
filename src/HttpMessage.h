#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "SocketGuard.h"

/// What is kept of one request, or of a response. A field without a value was not in the request.
struct HttpRequest {
    enum class Method : std::int32_t { kPost = 0, kGet = 1 };

    /// The request target, query included, as it stood in the request line.
    std::optional<std::string> url;
    /// Status code of a response, 0 in a request.
    std::int32_t status = 0;
    /// Local end of the connection; the port in host byte order, the address in network byte order.
    std::uint16_t localPort = 0;
    in_addr localAddress{};
    Method method = Method::kPost;
    bool chunked = false;
    bool keepAlive = false;
    /// Value of the content-length header, 0 without one; may be negative or too large.
    std::int32_t contentLength = 0;
    std::optional<std::string> body;
    /// The share in the number of large bodies that this one has, if it is large.
    std::shared_ptr<void> largeBody;
    std::optional<std::string> contentType;
    std::optional<std::string> host;
    std::optional<std::string> userAgent;
    std::optional<std::string> acceptEncoding;
};

/// One response.
struct HttpResponse {
    /// 200, or anything else for "404 Not found".
    int status = 404;
    bool keepAlive = false;
    /// "text/html" when not set.
    std::optional<std::string> contentType;
    /// Further header lines without their line ends.
    std::vector<std::string> headerLines;
    std::string body;
    /// A file of which `fileLength` bytes are sent behind `body`, if there is one.
    std::shared_ptr<const SocketGuard> file;
    std::uint64_t fileLength = 0;
    /// What must live until the peer has the response, if anything must. Such a response ends the
    /// connection.
    std::shared_ptr<void> keptUntilReceived;
};
