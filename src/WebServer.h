#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "ConnectionTable.h"
#include "HttpConnection.h"
#include "ServiceThread.h"
#include "SocketGuard.h"
#include "ZelConfig.h"
#include "ZelServlet.h"

/// The agent's HTTP/1.0 server: listens on up to twenty ports and gives every connection a thread.
/// Registrations and ports are set before Start() and only read afterwards.
class WebServer {
public:
    static constexpr std::size_t kMaxPorts = 20;
    /// Listen backlog of each port, unless the setting "web.listen.backlog" is a number from 1 to
    /// kMaxBacklog. It is read when the ports are opened.
    static constexpr int kBacklog = 1;
    static constexpr int kMaxBacklog = 128;

    explicit WebServer(const ZelConfig& config,
                       std::chrono::milliseconds lineTimeout = HttpMessageReader::kLineTimeout);
    /// Stops.
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    /// Adds a servlet, which must outlive the server; earlier ones are asked first.
    void AddRegistration(const ZelServlet& servlet);
    void RemoveRegistration(const ZelServlet& servlet);

    /// Has a function called after every request that a servlet has answered, by any thread.
    void OnServed(std::function<void()> onServed) { registry_.onServed = std::move(onServed); }

    /// Has a function called once the server listens, by its thread: with true when it does so on
    /// every port.
    void OnListening(std::function<void(bool)> onListening) {
        onListening_ = std::move(onListening);
    }

    /// Adds a TCP port to listen on. Returns false when there are kMaxPorts already.
    [[nodiscard]] bool AddPort(std::uint16_t port);

    /// Starts the server thread, which begins to listen as soon as "zel.state.startup" is not "0".
    /// Returns false when the thread cannot be made.
    [[nodiscard]] bool Start();

    /// Stops listening, lets running requests come to their end for a moment and ends all
    /// connections. Returns false when a request was still running then: what it uses must not be
    /// destroyed.
    [[nodiscard]] bool Stop();

private:
    void Listen();
    bool WaitForStartupEnd() const;
    int Backlog() const;
    void Accept(int listener) const;
    void StartConnection(SocketGuard& socket, in_addr peer) const;
    void Pause() const;
    bool IsStoppedWithin(std::chrono::milliseconds time) const;

    const ZelConfig& config_;
    std::chrono::milliseconds lineTimeout_;
    ServletRegistry registry_;
    std::function<void(bool)> onListening_;
    std::vector<std::uint16_t> ports_;
    SocketGuard stopEvent_;
    std::shared_ptr<ConnectionTable> connections_;
    ServiceThread thread_;
};
