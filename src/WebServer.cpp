#include "WebServer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <list>
#include <new>
#include <string>

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

int OpenListener(std::uint16_t port, int backlog) {
    SocketGuard listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    const sockaddr_in address = Ipv4::SocketAddress({INADDR_ANY}, port);
    if (listener.Get() < 0 ||
        setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
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

void WebServer::Accept(int listener) const {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    SocketGuard socket(accept4(listener, Ipv4::Generic(peer), &size, SOCK_CLOEXEC));
    if (socket.Get() < 0) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            ZEL_ERROR("Can't accept a connection: %s", std::strerror(errno));
            Pause();
        }
        return;  // otherwise the peer has left already
    }
    ZEL_DEBUG("Webservices connection from %s", Ipv4::Dotted(peer.sin_addr).c_str());
    try {
        StartConnection(socket, peer.sin_addr);
    } catch (const std::bad_alloc&) {
        ZEL_ERROR("Out of memory, closing a connection");
        Pause();
    }
}

void WebServer::StartConnection(SocketGuard& socket, in_addr peer) const {
    // Owned by the thread's work, not by a frame of it: a fault in the thread closes the
    // connection all the same. The memory is there before the socket is given away.
    const std::shared_ptr<HttpConnection> connection(
        new HttpConnection(socket.Release(), peer, registry_, lineTimeout_, connections_));
    if (!connection->TakePlace()) {
        ZEL_ERROR("Too many connections, closing one");
        return;
    }
    if (!ServiceThread::StartDetached("WebServer:Proto", [connection] { connection->Serve(); })) {
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
