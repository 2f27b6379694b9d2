#include "ManagerConnection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "Descriptors.h"
#include "Ipv4.h"
#include "LogText.h"
#include "ZelLog.h"

namespace {

void LogConnectFailure(const std::string& address, int error) {
    ZEL_ERROR("Can't connect to %s because of: %s", LogText::Of(address).c_str(),
              std::strerror(error));
}

bool IsProvisional(const HttpResponse& response) {
    constexpr int kFirst = 100;
    constexpr int kLast = 199;
    return response.status >= kFirst && response.status <= kLast;
}

}  // namespace

void ManagerConnection::Settle(Clock::time_point deadline) {
    if (outstanding_ > 0) {
        ZEL_DEBUG("%d answers are outstanding on the socket, reopen", outstanding_);
        shutdown(socket_.Get(), SHUT_WR);
        Descriptors::ReadAway(socket_.Get(), std::numeric_limits<std::size_t>::max(),
                              std::min(deadline, Clock::now() + kSettleTime));
        Close();
    }
}

bool ManagerConnection::Exchange(const std::string& message, HttpResponse& response,
                                 Clock::time_point deadline) {
    refused_ = false;
    if (!Connect(deadline)) {
        return false;
    }
    const std::string request =
        std::string("POST ") + kPath +
        " HTTP/1.0\r\n"
        "Content-Type: text/xml;charset=\"utf-8\"\r\n"
        "Accept: text/xml, multipart/related, text/html, image/gif, image/jpeg, *; q=.2, "
        "*/*; q=.2\r\n"
        "Host: " +
        address_ + ":" + std::to_string(kPort) +
        "\r\n"
        "Connection: Keep-Alive\r\n"
        "Content-Length: " +
        std::to_string(message.size()) + "\r\n\r\n" + message;
    if (!Send(request, deadline)) {
        ZEL_ERROR("Send request failed: %s", std::strerror(errno));
        Close();  // half a request may have left
        return false;
    }
    ++outstanding_;
    ZEL_DEBUG("Wait for response");
    return Receive(response, deadline);
}

/// An answer that has not begun may still come, one that has ended within its head is lost, and so
/// is the place in what is received where the next one begins.
bool ManagerConnection::Receive(HttpResponse& response, Clock::time_point deadline) {
    do {
        if (!reader_->WaitForMessage(deadline)) {
            return false;
        }
        response = {};
        if (!reader_->ReadHead(response, deadline)) {
            Close();
            return false;
        }
    } while (IsProvisional(response));
    --outstanding_;
    ReadBody(response);
    return true;
}

void ManagerConnection::ReadBody(HttpResponse& response) {
    if (reader_->ReadBody(response)) {
        return;
    }
    if (response.body) {  // it is sized, and may have got bytes of a next answer, too
        const auto length = static_cast<std::size_t>(response.contentLength);
        response.body->resize(std::min(response.body->size(), length));
    }
    Close();  // what is left of it would pass for the next head
}

void ManagerConnection::Close() {
    reader_.reset();
    outstanding_ = 0;
    const std::lock_guard lock(mutex_);
    socket_.Reset();
}

void ManagerConnection::Interrupt() {
    const std::lock_guard lock(mutex_);
    interrupted_ = true;
    shutdown(socket_.Get(), SHUT_RDWR);
}

bool ManagerConnection::Connect(Clock::time_point deadline) {
    ZEL_DEBUG("Initialize socket PreSignIn");
    if (socket_.Get() >= 0) {
        if (IsUsable()) {
            return true;
        }
        ZEL_DEBUG("Socket is closed by other side, reopen");
        Close();
    }
    return Open(deadline);
}

/// Not when there is something to be read: the end of the connection, or what nobody asked for. An
/// answer to the first attempt that comes between the two has been asked for.
bool ManagerConnection::IsUsable() const {
    char next = 0;
    return !reader_->HasUnread() &&
           (!Descriptors::IsReady(socket_.Get(), POLLIN) ||
            (outstanding_ > 0 && recv(socket_.Get(), &next, 1, MSG_PEEK | MSG_DONTWAIT) > 0));
}

bool ManagerConnection::Open(Clock::time_point deadline) {
    {
        const std::lock_guard lock(mutex_);
        socket_.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (socket_.Get() < 0) {
            ZEL_ERROR("Can't create socket to connect to ZEL Manager: %s", std::strerror(errno));
            return false;
        }
        if (interrupted_) {
            socket_.Reset();
            return false;
        }
    }
    const int on = 1;
    setsockopt(socket_.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const std::optional<in_addr> manager = Ipv4::Parse(address_);
    const sockaddr_in address = Ipv4::SocketAddress(manager.value_or(in_addr{}), kPort);
    int error = !manager ? EINVAL : !LimitSending(deadline) ? ETIMEDOUT : 0;
    if (error == 0 && connect(socket_.Get(), Ipv4::Generic(address), sizeof address) != 0) {
        // The system's word for a connect that ran out of its time is misleading.
        error = errno == EINPROGRESS ? ETIMEDOUT : errno;
        refused_ = error != ETIMEDOUT;
    }
    if (error != 0) {
        LogConnectFailure(address_, error);
        Close();
        return false;
    }
    reader_.emplace(socket_.Get(), kTimeout);
    return true;
}

bool ManagerConnection::Send(const std::string& text, Clock::time_point deadline) const {
    if (!LimitSending(deadline)) {
        errno = ETIMEDOUT;
        return false;
    }
    const ssize_t sent = send(socket_.Get(), text.data(), text.size(), MSG_NOSIGNAL);
    if (sent >= 0 && static_cast<std::size_t>(sent) < text.size()) {
        errno = ETIMEDOUT;
    }
    return sent == static_cast<ssize_t>(text.size());
}

/// Ends the next connect or send in time. False when there is no time left.
bool ManagerConnection::LimitSending(Clock::time_point deadline) const {
    using std::chrono::microseconds;
    using std::chrono::seconds;
    const auto left = std::min(std::chrono::duration_cast<microseconds>(deadline - Clock::now()),
                               microseconds(kTimeout));
    const auto whole = std::chrono::floor<seconds>(left);
    const timeval timeout{static_cast<time_t>(whole.count()),
                          static_cast<suseconds_t>((left - whole).count())};
    return left.count() > 0 &&
           setsockopt(socket_.Get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) == 0;
}
