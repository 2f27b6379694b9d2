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
    static constexpr std::chrono::milliseconds kTimeout{5000};
    /// Longest wait for the manager to be done with a connection that is given up: whoever takes
    /// one request after the other looks at the next one no earlier. It is as long as both attempts
    /// of an exchange, and so as the slowest answer that they get.
    static constexpr std::chrono::milliseconds kSettleTime{2 * kTimeout};

    using Clock = std::chrono::steady_clock;

    /// `address` is the manager's, dotted.
    explicit ManagerConnection(std::string address) : address_(std::move(address)) {}

    /// To be called before a message other than the last one is sent. A connection on which
    /// answers are outstanding is closed, so that none of them is taken for the answer to it: in
    /// order, which takes until the manager has closed its end, kSettleTime is over or `deadline`
    /// has come.
    void Settle(Clock::time_point deadline);

    /// Sends a SOAP message as one HTTP/1.0 request and reads the response; connects first where no
    /// usable connection is open. All of that ends by `deadline`. False when no head of a response
    /// came: the same message may then be sent once more, and the answer to either is the
    /// response. The response's body may be missing or incomplete. Provisional responses (RFC 7231,
    /// section 6.2) are passed over.
    [[nodiscard]] bool Exchange(const std::string& message, HttpResponse& response,
                                Clock::time_point deadline);

    /// Whether the last exchange failed because the manager, or who knows the way to it, would not
    /// have the connection.
    bool IsRefused() const { return refused_; }

    void Close();

    /// Ends what is waited for, now and from now on.
    void Interrupt();

private:
    [[nodiscard]] bool Connect(Clock::time_point deadline);
    bool IsUsable() const;
    [[nodiscard]] bool Open(Clock::time_point deadline);
    [[nodiscard]] bool Send(const std::string& text, Clock::time_point deadline) const;
    [[nodiscard]] bool Receive(HttpResponse& response, Clock::time_point deadline);
    void ReadBody(HttpResponse& response);
    [[nodiscard]] bool LimitSending(Clock::time_point deadline) const;

    std::string address_;
    std::optional<HttpMessageReader> reader_;
    int outstanding_ = 0;  // requests sent on the connection less answers taken from it
    bool refused_ = false;
    // Guards that the descriptor is not closed while it is interrupted.
    std::mutex mutex_;
    SocketGuard socket_;
    bool interrupted_ = false;
};
