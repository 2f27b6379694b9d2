// Any bytes as HTTP messages on one connection: heads, sized and chunked bodies.

#include <sys/socket.h>

#include "Fuzzing.h"
#include "HttpMessageReader.h"
#include "SocketGuard.h"

using Fuzzing::Require;

namespace {

void CheckHead(const HttpRequest& request) {
    for (const auto* field : {&request.url, &request.contentType, &request.host, &request.userAgent,
                              &request.acceptEncoding}) {
        const std::string value = field->value_or("");
        Require(value.find_first_of("\r\n") == std::string::npos, "a field is a part of one line");
    }
}

void CheckBody(const HttpRequest& request, bool isComplete, std::string_view stream) {
    if (request.chunked) {
        Require(isComplete == request.body.has_value(), "a chunked body is complete or none");
        return;
    }
    const std::string body = request.body.value_or("");
    Require(stream.find(body) != std::string_view::npos, "a sized body is what was sent");
    Require(!isComplete || body.size() == static_cast<std::size_t>(request.contentLength),
            "a complete body is as long as it was announced");
}

void ReadAll(int descriptor, std::string_view stream) {
    HttpMessageReader reader(descriptor);
    for (bool goesOn = true; goesOn;) {
        HttpRequest request;
        goesOn = reader.ReadHead(request);
        CheckHead(request);
        Require(!goesOn || request.url.value_or("").find(' ') == std::string::npos,
                "a target has no blank");
        if (goesOn && (request.chunked || request.contentLength != 0)) {
            goesOn = reader.ReadBody(request);
            CheckBody(request, goesOn, stream);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kSentAtOnce = 60000;  // what a socket takes without a reader
    const std::string_view stream = Fuzzing::ToText(data, std::min(size, kSentAtOnce));
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "there are sockets");
    const SocketGuard peer(ends[0]);
    const SocketGuard box(ends[1]);
    static_cast<void>(send(peer.Get(), stream.data(), stream.size(), 0));
    shutdown(peer.Get(), SHUT_WR);
    ReadAll(box.Get(), stream);
    return 0;
}
