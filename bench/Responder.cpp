// The least that a server with a thread for each connection does to answer like the agent's test
// page: the same bytes, one thread that accepts, one receive and one send a request. It reads no
// header but the one that keeps the connection, looks nothing up and logs nothing.
//
// responder PORT [BACKLOG]     the backlog is the agent's, 1, unless it is given
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <string_view>
#include <thread>

#include "BenchSupport.h"
#include "SocketGuard.h"

namespace {

constexpr std::size_t kRequestSize = 4096;
constexpr std::string_view kHeadEnd = "\r\n\r\n";
constexpr std::string_view kKeptRequest = "Connection: Keep-Alive";
constexpr std::string_view kKept =
    "HTTP/1.0 200 OK\r\nContent-Type: text/html\r\nContent-Length: 44\r\ncontent-length: 44\r\n"
    "Connection: Keep-Alive\r\nKeep-Alive: timeout=5, max=5\r\n\r\n"
    "Hallo Welt, ist es nicht nett hier draussen?";
constexpr std::string_view kLast =
    "HTTP/1.0 200 OK\r\nContent-Type: text/html\r\nContent-Length: 44\r\ncontent-length: 44\r\n"
    "Connection: Close\r\n\r\n"
    "Hallo Welt, ist es nicht nett hier draussen?";

/// Requests have no body and do not come before the answer to the one before.
void Serve(int descriptor) {
    const SocketGuard socket(descriptor);
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::array<char, kRequestSize> buffer{};
    std::size_t used = 0;
    for (;;) {
        const ssize_t count = recv(descriptor, buffer.data() + used, buffer.size() - used, 0);
        if (count <= 0) {
            return;
        }
        used += static_cast<std::size_t>(count);
        const std::string_view request(buffer.data(), used);
        if (!request.ends_with(kHeadEnd)) {
            continue;
        }
        const bool isKept = request.find(kKeptRequest) != std::string_view::npos;
        const std::string_view answer = isKept ? kKept : kLast;
        if (send(descriptor, answer.data(), answer.size(), MSG_NOSIGNAL) < 0 || !isKept) {
            return;
        }
        used = 0;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        BenchSupport::GiveUp("usage: responder PORT [BACKLOG]");
    }
    const int backlog = argc > 2 ? BenchSupport::Argument<int>(argv[2], "backlog") : 1;
    const int listener = BenchSupport::OpenOnPort(
        SOCK_STREAM, BenchSupport::Argument<std::uint16_t>(argv[1], "port"));
    if (listen(listener, backlog) != 0) {
        BenchSupport::GiveUp("cannot listen");
    }
    for (;;) {
        const int descriptor = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (descriptor >= 0) {
            std::thread(Serve, descriptor).detach();
        }
    }
}
