#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "Outcome.h"

/// Where a box is reached.
struct BoxAddress {
    std::string host;  ///< dotted
    std::uint16_t port = 5302;

    std::string ToText() const { return host + ":" + std::to_string(port); }
};

/// One HTTP/1.0 request at a time, past any proxy; redirections are not followed. `timeout` is the
/// longest wait for the connection, for the answer to begin, and for each next part of it: a header
/// line, or some bytes of the body. Head and body are limited to 64 KiB and 1 MiB, the answer as a
/// whole to two minutes from its beginning.
namespace HttpClient {

/// Connections that are kept from one request to the next, as long as the other side does.
class Kept {
public:
    /// A request ends, and fails, once the descriptor `interruption` can be read.
    explicit Kept(int interruption);
    ~Kept();

    /// As HttpClient::Get().
    Outcome Get(const BoxAddress& box, const std::string& path, std::chrono::milliseconds timeout,
                std::string& body);

private:
    struct Library;
    std::unique_ptr<Library> library_;
};

/// Gets a document, on a connection of its own; any status but 200 is a failure, and so is an empty
/// one.
Outcome Get(const BoxAddress& box, const std::string& path, std::chrono::milliseconds timeout,
            std::string& body);

/// Posts a SOAP message, on a connection of its own; the status does not matter when there is a
/// body.
Outcome Post(const BoxAddress& box, const std::string& path, const std::string& message,
             std::chrono::milliseconds timeout, std::string& body);

}  // namespace HttpClient
