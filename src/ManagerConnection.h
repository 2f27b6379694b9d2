#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>

#include "HttpMessageReader.h"
#include "SocketGuard.h"

/// The TCP connection to the central manager's SOAP service, kept open between requests. One thread
/// uses it; another one may interrupt it.
class ManagerConnection {
public:
    static constexpr std::uint16_t kPort = 23005;
    static constexpr char kPath[] = "/webservices/OrsManagerTavoService/v1";
    /// Longest wait for the manager to accept a connection, to take a request, and for each next
    /// part of its answer.
    static constexpr std::chrono::milliseconds kPatience{5000};

    using Clock = std::chrono::steady_clock;

    /// `address` is the manager's, dotted.
    explicit ManagerConnection(std::string address) : address_(std::move(address)) {}

    /// Sends a SOAP message as one HTTP/1.0 request and reads the response; connects first where no
    /// usable connection is open. All of that ends by `deadline`. False when no head of a response
    /// came. The response's body may be missing or incomplete.
    bool Exchange(const std::string& message, HttpRequest& response, Clock::time_point deadline);

    void Close();

    /// Ends what is waited for, now and from now on.
    void Interrupt();

private:
    bool Connect(Clock::time_point deadline);
    bool IsUsable() const;
    bool Open(Clock::time_point deadline);
    bool Send(const std::string& text, Clock::time_point deadline) const;
    bool LimitSending(Clock::time_point deadline) const;

    std::string address_;
    std::optional<HttpMessageReader> reader_;
    // Guards that the descriptor is not closed while it is interrupted.
    std::mutex mutex_;
    SocketGuard socket_;
    bool interrupted_ = false;
};
