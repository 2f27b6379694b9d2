#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "Outcome.h"

/// Where a box is reached.
struct BoxAddress {
    std::string host;  ///< dotted
    std::uint16_t port = 5302;

    std::string ToText() const { return host + ":" + std::to_string(port); }
};

/// One HTTP/1.0 request at a time, each on a connection of its own, past any proxy; redirections
/// are not followed. `timeout` is the longest wait for the connection, for the answer to begin, and
/// for each next part of it: a header line, or some bytes of the body. Head and body are limited to
/// 64 KiB and 1 MiB, the answer as a whole to two minutes from its beginning.
namespace HttpClient {

/// Gets a document; any status but 200 is a failure, and so is an empty one.
Outcome Get(const BoxAddress& box, const std::string& path, std::chrono::milliseconds timeout,
            std::string& body);

/// Posts a SOAP message; the status does not matter when there is a body.
Outcome Post(const BoxAddress& box, const std::string& path, const std::string& message,
             std::chrono::milliseconds timeout, std::string& body);

}  // namespace HttpClient
