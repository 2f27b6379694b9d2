#include "HttpClient.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "HttpMessageReader.h"
#include "Ipv4.h"
#include "SocketGuard.h"

namespace HttpClient {
namespace {

constexpr int kOk = 200;

Outcome Unreachable(const BoxAddress& box, const std::string& why) {
    return {ExitStatus::kUnreachable,
            box.ToText() + " cannot be reached: " + why + "; is it on this network? (zelctl find)"};
}

Outcome Open(const BoxAddress& box, std::chrono::milliseconds timeout, SocketGuard& guard) {
    guard.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout);
    // Also limits the time of the connect.
    const timeval limit{seconds.count(), std::chrono::microseconds(timeout - seconds).count()};
    setsockopt(guard.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    const std::optional<in_addr> host = Ipv4::Parse(box.host);
    if (!host) {
        return Unreachable(box, "no address");
    }
    const sockaddr_in address = Ipv4::SocketAddress(*host, box.port);
    if (connect(guard.Get(), Ipv4::Generic(address), sizeof address) != 0) {
        // The system's word for a connect that ran out of its time is misleading.
        return Unreachable(box, std::strerror(errno == EINPROGRESS ? ETIMEDOUT : errno));
    }
    return {};
}

bool Send(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t sent = send(descriptor, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

Outcome Exchange(const BoxAddress& box, const std::string& request,
                 std::chrono::milliseconds timeout, HttpResponse& response) {
    SocketGuard socket;
    if (Outcome opened = Open(box, timeout, socket); opened.Failed()) {
        return opened;
    }
    if (!Send(socket.Get(), request)) {
        return Unreachable(box, std::strerror(errno));
    }
    HttpMessageReader reader(socket.Get(), timeout);
    if (!reader.ReadHead(response)) {
        return {ExitStatus::kUnreachable,
                box.ToText() + " is reached, but does not answer; is it a box?"};
    }
    const bool hasBody = response.chunked || response.contentLength != 0;
    if (hasBody && !reader.ReadBody(response)) {
        return {ExitStatus::kNotUnderstood,
                box.ToText() + " gives an answer that is incomplete or too large; try again"};
    }
    return {};
}

std::string Head(const BoxAddress& box, const char* method, const std::string& path) {
    return std::string(method) + " " + path + " HTTP/1.0\r\nHost: " + box.ToText() +
           "\r\nConnection: close\r\n";
}

Outcome NoDocument(const BoxAddress& box, const std::string& path, int status) {
    return {ExitStatus::kNotUnderstood, box.ToText() + " answers " + std::to_string(status) +
                                            ", and no document, for " + path + "; is it a box?"};
}

}  // namespace

Outcome Get(const BoxAddress& box, const std::string& path, std::chrono::milliseconds timeout,
            std::string& body) {
    HttpResponse response;
    Outcome outcome = Exchange(box, Head(box, "GET", path) + "\r\n", timeout, response);
    body = response.body.value_or("");
    if (!outcome.Failed() && (response.status != kOk || body.empty())) {
        outcome = NoDocument(box, path, response.status);
    }
    return outcome;
}

Outcome Post(const BoxAddress& box, const std::string& path, const std::string& message,
             std::chrono::milliseconds timeout, std::string& body) {
    HttpResponse response;
    const std::string request = Head(box, "POST", path) +
                                "Content-Type: text/xml;charset=\"utf-8\"\r\nContent-Length: " +
                                std::to_string(message.size()) + "\r\n\r\n" + message;
    Outcome outcome = Exchange(box, request, timeout, response);
    body = response.body.value_or("");
    if (!outcome.Failed() && body.empty()) {
        outcome = NoDocument(box, path, response.status);
    }
    return outcome;
}

}  // namespace HttpClient
