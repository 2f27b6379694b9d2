#pragma once

#include <netinet/in.h>
#include <sys/uio.h>

#include <chrono>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "ConnectionTable.h"
#include "HttpMessageReader.h"
#include "SocketGuard.h"
#include "ZelServlet.h"

/// What a server serves with.
struct ServletRegistry {
    /// Asked in this order.
    std::vector<const ZelServlet*> servlets;
    /// Called after every request that a servlet has answered, by the thread of its connection.
    std::function<void()> onServed;
};

/// One accepted connection: reads requests, has them served, and writes the responses until the
/// peer or a failure ends it.
class HttpConnection {
public:
    /// Longest wait for a peer to take more of a response, and longest time for a whole one.
    static constexpr std::chrono::seconds kSendTimeout{30};
    static constexpr std::chrono::seconds kResponseTimeLimit{300};

    /// Takes the descriptor of a connection with `peer`. `registry` must outlive the connection.
    HttpConnection(int descriptor, in_addr peer, const ServletRegistry& registry,
                   std::chrono::milliseconds lineTimeout, std::shared_ptr<ConnectionTable> table);

    /// Takes a place in the table; false when there is none.
    [[nodiscard]] bool TakePlace() { return place_.Take(); }

    /// Serves requests until the connection ends. The descriptor is closed with the object.
    void Serve();

private:
    bool ServeRequest();
    int CallServlet();
    bool Send(std::chrono::seconds timeLimit);
    bool SendFile(std::chrono::steady_clock::time_point deadline);
    bool SendAll(std::span<iovec> parts, std::chrono::steady_clock::time_point deadline);
    void Linger();

    const ServletRegistry& registry_;
    HttpMessageReader reader_;
    sockaddr_in localEnd_{};
    bool unreadBody_ = false;
    // Of the request being served. Not on the stack: a fault abandons that, but not the connection.
    HttpRequest request_;
    ServletResponse response_;
    std::unique_ptr<ZelServlet> servlet_;
    // Last, so that the connection is closed even where the destruction of the others faults.
    SocketGuard socket_;
    ConnectionTable::Place place_;
};
