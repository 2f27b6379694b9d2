#include "WebServer.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <list>
#include <mutex>
#include <set>

#include "ZelLogging.h"

namespace {

constexpr int kBacklog = 1;
constexpr int kStartupPollMilliseconds = 100;
// Pause after a failed accept, so that a lack of descriptors does not keep the processor busy.
constexpr int kAcceptPauseMilliseconds = 100;
constexpr std::chrono::milliseconds kStopTime{500};

int OpenListener(std::uint16_t port) {
    SocketGuard listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (listener.Get() < 0 ||
        setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener.Get(), kBacklog) != 0) {
        return -1;
    }
    return listener.Release();
}

}  // namespace

/// The open connections. Shared with their threads, which may outlive the server.
class WebServer::ConnectionTable {
public:
    /// False when the table is full or closed.
    bool Enter(const HttpConnection* connection) {
        const std::lock_guard lock(mutex_);
        if (closed_ || connections_.size() >= kMaxConnections) {
            return false;
        }
        return connections_.insert(connection).second;
    }

    void Leave(const HttpConnection* connection) {
        const std::lock_guard lock(mutex_);
        connections_.erase(connection);
        changed_.notify_all();
    }

    /// Lets nobody in any more, makes all connections end, and waits for it. False when some are
    /// left after `patience`.
    bool Close(std::chrono::milliseconds patience) {
        std::unique_lock lock(mutex_);
        closed_ = true;
        for (const HttpConnection* connection : connections_) {
            connection->StopReading();
        }
        return changed_.wait_for(lock, patience, [this] { return connections_.empty(); });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::set<const HttpConnection*> connections_;
    bool closed_ = false;
};

WebServer::WebServer(const ZelConfig& config, std::chrono::milliseconds lineTimeout)
    : config_(config),
      lineTimeout_(lineTimeout),
      stopEvent_(eventfd(0, EFD_CLOEXEC)),
      connections_(std::make_shared<ConnectionTable>()) {}

WebServer::~WebServer() {
    Stop();
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
    thread_.Join();
    return connections_->Close(kStopTime);
}

bool WebServer::WaitForStartupEnd() const {
    pollfd stop{stopEvent_.Get(), POLLIN, 0};
    while (config_.Get("zel.state.startup") == "0") {
        if (poll(&stop, 1, kStartupPollMilliseconds) > 0) {
            return false;
        }
    }
    return true;
}

void WebServer::Listen() {
    if (!WaitForStartupEnd()) {
        return;
    }
    std::list<SocketGuard> listeners;
    std::vector<pollfd> polled{{stopEvent_.Get(), POLLIN, 0}};
    for (const std::uint16_t port : ports_) {
        const int listener = OpenListener(port);
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
    const int descriptor =
        accept4(listener, reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC);
    if (descriptor < 0) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            ZEL_ERROR("Can't accept a connection: %s", std::strerror(errno));
            pollfd stop{stopEvent_.Get(), POLLIN, 0};
            poll(&stop, 1, kAcceptPauseMilliseconds);
        }
        return;  // otherwise the peer has left already
    }
    std::array<char, INET_ADDRSTRLEN> address{};
    inet_ntop(AF_INET, &peer.sin_addr, address.data(), address.size());
    ZEL_DEBUG("Webservices connection from %s", address.data());
    StartConnection(descriptor);
}

void WebServer::StartConnection(int descriptor) const {
    // Owned by the thread's work, not by a frame of it: a fault in the thread closes the
    // connection all the same.
    const std::shared_ptr<HttpConnection> connection(
        new HttpConnection(descriptor, registry_, lineTimeout_),
        [table = connections_](const HttpConnection* ended) {
            table->Leave(ended);
            delete ended;
        });
    if (!connections_->Enter(connection.get())) {
        ZEL_ERROR("Too many connections, closing one");
        return;
    }
    if (!ServiceThread::StartDetached("WebServer:Proto", [connection] { connection->Serve(); })) {
        ZEL_ERROR("Can't start a thread for a connection, closing it");
    }
}
