// Any bytes as HTTP messages on one connection: heads, sized and chunked bodies.
//
// What stands between two bytes 0xff is sent as many times as the byte in front of it says: some
// times, or from 0xf0 on two to the power of its last digit, so that small inputs reach the limits.

#include <sys/socket.h>

#include <thread>

#include "Fuzzing.h"
#include "HttpMessageReader.h"
#include "SocketGuard.h"

using Fuzzing::Require;

namespace {

constexpr std::size_t kMaxStream = 0x120000;
constexpr unsigned kManyTimes = 0xf0;
constexpr unsigned kFewTimes = 8;
constexpr std::size_t kSentAtOnce = 60000;  // what a socket takes without a reader

std::string Expand(std::string_view text) {
    std::string stream;
    while (!text.empty()) {
        stream += Fuzzing::Take(text, '\xff');
        const unsigned byte = Fuzzing::TakeByte(text);
        std::size_t count =
            byte < kManyTimes ? byte % kFewTimes : std::size_t{1} << (byte - kManyTimes);
        const std::string_view repeated = Fuzzing::Take(text, '\xff');
        for (; count > 0 && stream.size() + repeated.size() <= kMaxStream; --count) {
            stream += repeated;
        }
    }
    return stream;
}

void CheckHead(const HttpRequest& request) {
    std::size_t size = 0;
    for (const auto* field : {&request.url, &request.contentType, &request.host, &request.userAgent,
                              &request.acceptEncoding}) {
        const std::string value = field->value_or("");
        Require(value.find_first_of("\r\n") == std::string::npos, "a field is a part of one line");
        size += value.size();
    }
    Require(size <= HttpMessageReader::kMaxHead, "a head has its limit");
}

void CheckBody(const HttpRequest& request, bool isComplete, const std::string& stream) {
    if (request.chunked) {
        Require(isComplete == request.body.has_value(), "a chunked body is complete or none");
        Require(request.body.value_or("").size() <=
                    HttpMessageReader::kMaxBody + HttpMessageReader::kMaxChunk,
                "a chunked body has its limit");
        return;
    }
    const std::string body = request.body.value_or("");
    Require(body.size() <= 2 * HttpMessageReader::kMaxBody, "a sized body has its limit");
    Require(stream.size() > kSentAtOnce || stream.find(body) != std::string::npos,
            "a sized body is what was sent");
    if (isComplete) {
        Require(body.size() == static_cast<std::size_t>(request.contentLength) &&
                    body.size() <= HttpMessageReader::kMaxBody,
                "a complete body is as long as it was announced");
    }
}

void ReadAll(int descriptor, const std::string& stream) {
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

void Send(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t sent = send(descriptor, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            break;  // who reads has enough
        }
        text.remove_prefix(static_cast<std::size_t>(sent));
    }
    shutdown(descriptor, SHUT_WR);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string stream = Expand(Fuzzing::ToText(data, size));
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "there are sockets");
    const SocketGuard peer(ends[0]);
    std::jthread sender;
    if (stream.size() <= kSentAtOnce) {
        Send(peer.Get(), stream);
    } else {
        sender = std::jthread([&] { Send(peer.Get(), stream); });
    }
    // Closed before the sender is waited for.
    const SocketGuard box(ends[1]);
    ReadAll(box.Get(), stream);
    return 0;
}
