#include "WebServer.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <list>
#include <new>
#include <string>
#include <utility>

#include "ConnectionWorkers.h"
#include "Descriptors.h"
#include "Ipv4.h"
#include "LogText.h"
#include "Numbers.h"
#include "StoreKeys.h"
#include "ZelLog.h"

namespace {

constexpr std::chrono::milliseconds kStartupPoll{100};
constexpr std::chrono::milliseconds kPause{100};
constexpr std::chrono::milliseconds kStopTime{500};
constexpr std::size_t kMaxTaken = 16;  // off the queue at once

int OpenListener(std::uint16_t port, int backlog) {
    SocketGuard listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    const sockaddr_in address = Ipv4::SocketAddress({INADDR_ANY}, port);
    if (listener.Get() < 0 ||
        setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        // Connections inherit it: a response leaves in one piece, and its last segment must not
        // wait for an acknowledgement.
        setsockopt(listener.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0 ||
        bind(listener.Get(), Ipv4::Generic(address), sizeof address) != 0 ||
        listen(listener.Get(), backlog) != 0) {
        return -1;
    }
    return listener.Release();
}

}  // namespace

WebServer::WebServer(const ZelConfig& config, std::chrono::milliseconds lineTimeout)
    : config_(config),
      lineTimeout_(lineTimeout),
      stopEvent_(eventfd(0, EFD_CLOEXEC)),
      connections_(std::make_shared<ConnectionTable>()) {}

WebServer::~WebServer() {
    static_cast<void>(Stop());  // who cares for requests still running has stopped it before
}

void WebServer::AddRegistration(const ZelServlet& servlet) {
    registry_.servlets.push_back(&servlet);
}

void WebServer::RemoveRegistration(const ZelServlet& servlet) {
    auto& servlets = registry_.servlets;
    const auto found = std::find(servlets.begin(), servlets.end(), &servlet);
    if (found != servlets.end()) {
        servlets.erase(found);
    }
}

bool WebServer::AddPort(std::uint16_t port) {
    if (ports_.size() == kMaxPorts) {
        return false;
    }
    ports_.push_back(port);
    return true;
}

bool WebServer::Start() {
    return thread_.Start("WebServer", [this] { Listen(); });
}

bool WebServer::Stop() {
    eventfd_write(stopEvent_.Get(), 1);
    const bool hasEnded = thread_.Join();
    return connections_->Close(kStopTime) && hasEnded;
}

bool WebServer::WaitForStartupEnd() const {
    while (config_.Get(StoreKeys::kServing) == "0") {
        if (IsStoppedWithin(kStartupPoll)) {
            return false;
        }
    }
    return true;
}

int WebServer::Backlog() const {
    std::string value;
    if (!config_.Get(StoreKeys::kListenBacklog, value)) {
        return kBacklog;
    }
    const int backlog = Numbers::Parse<int>(value).value_or(0);
    if (backlog < 1 || backlog > kMaxBacklog) {
        ZEL_ERROR("%s is '%s', not a number from 1 to %d: %d is taken", StoreKeys::kListenBacklog,
                  LogText::Of(value).c_str(), kMaxBacklog, kBacklog);
        return kBacklog;
    }
    return backlog;
}

void WebServer::Listen() {
    if (!WaitForStartupEnd()) {
        return;
    }
    const int backlog = Backlog();
    std::list<SocketGuard> listeners;
    std::vector<pollfd> polled{{stopEvent_.Get(), POLLIN, 0}};
    for (const std::uint16_t port : ports_) {
        const int listener = OpenListener(port, backlog);
        if (listener < 0) {
            ZEL_ERROR("Can't open listening socket on port %d!", port);
            continue;
        }
        listeners.emplace_back(listener);
        polled.push_back({listener, POLLIN, 0});
    }
    if (onListening_) {
        onListening_(listeners.size() == ports_.size());
    }
    for (;;) {
        if (poll(polled.data(), polled.size(), -1) < 0) {
            continue;
        }
        if (polled.front().revents != 0) {
            return;
        }
        for (const pollfd& listener : polled) {
            if (listener.revents != 0) {
                Accept(listener.fd);
            }
        }
    }
}

/// Takes all that wait off the queue before it does anything with the next of them: as long as that
/// is full, whoever comes waits for his second try, a second later.
void WebServer::Accept(int listener) const {
    struct Accepted {
        SocketGuard socket;
        sockaddr_in peer{};
    };
    std::array<Accepted, kMaxTaken> taken;
    std::size_t count = 0;
    std::size_t started = 0;
    int error = 0;
    do {
        while (count < taken.size() && error == 0) {
            auto& [socket, peer] = taken[count];
            socklen_t size = sizeof peer;
            socket.Reset(accept4(listener, Ipv4::Generic(peer), &size, SOCK_CLOEXEC));
            error = socket.Get() < 0 ? errno : 0;
            count += error == 0 ? 1 : 0;
        }
        if (started < count) {
            auto& [socket, peer] = taken[started++];
            ZEL_DEBUG("Webservices connection from %s", Ipv4::Dotted(peer.sin_addr).c_str());
            try {
                StartConnection(socket, peer.sin_addr);
            } catch (const std::bad_alloc&) {
                ZEL_ERROR("Out of memory, closing a connection");
                Pause();
            }
        }
        error = error == EAGAIN ? 0 : error;
    } while (started < count);
    if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
        ZEL_ERROR("Can't accept a connection: %s", std::strerror(error));
        Pause();
    }  // otherwise nobody waits any more, or has left already
}

void WebServer::StartConnection(SocketGuard& socket, in_addr peer) const {
    // The memory is there before the socket is given away.
    std::unique_ptr<HttpConnection> connection(
        new HttpConnection(socket.Release(), peer, registry_, lineTimeout_, connections_));
    if (!connection->TakePlace()) {
        ZEL_ERROR("Too many connections, closing one");
        return;
    }
    if (!ConnectionWorkers::Serve(std::move(connection))) {
        ZEL_ERROR("Can't start a thread for a connection, closing it");
        Pause();
    }
}

/// After what fails for want of something, so that trying again does not keep the processor busy.
void WebServer::Pause() const {
    static_cast<void>(IsStoppedWithin(kPause));
}

bool WebServer::IsStoppedWithin(std::chrono::milliseconds time) const {
    return Descriptors::WaitUntil(stopEvent_.Get(), POLLIN, Descriptors::Clock::now() + time);
}
