#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

/// What is kept of any message that was received. A field without a value was not in the message.
struct HttpMessage {
    bool chunked = false;
    bool keepAlive = false;
    /// Value of the content-length header, 0 without one; may be negative or too large.
    std::int32_t contentLength = 0;
    std::optional<std::string> contentType;
    std::optional<std::string> body;
};

struct HttpRequest : HttpMessage {
    enum class Method : std::int32_t { kPost = 0, kGet = 1 };

    Method method = Method::kPost;
    /// The request target, query included, as it stood in the request line.
    std::optional<std::string> url;
    std::optional<std::string> host;
    std::optional<std::string> userAgent;
    std::optional<std::string> acceptEncoding;
    /// Local end of the connection; the port in host byte order, the address in network byte order.
    std::uint16_t localPort = 0;
    in_addr localAddress{};
    /// The share in the number of large bodies that this one has, if it is large.
    std::shared_ptr<void> largeBody;
};

struct HttpResponse : HttpMessage {
    /// 0 without a status line.
    std::int32_t status = 0;
};
