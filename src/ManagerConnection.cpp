#include "ManagerConnection.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "LogText.h"
#include "ZelLogging.h"

namespace {

/// One address and port of a manager. False when `dotted` is no address.
bool ToSocketAddress(const std::string& dotted, sockaddr_in& address) {
    address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(ManagerConnection::kPort);
    return inet_pton(AF_INET, dotted.c_str(), &address.sin_addr) == 1;
}

void LogConnectFailure(const std::string& address, int error) {
    // The system's word for a connect that ran out of its time is misleading.
    ZEL_ERROR("Can't connect to %s because of: %s", LogText::Of(address).c_str(),
              std::strerror(error == EINPROGRESS ? ETIMEDOUT : error));
}

}  // namespace

bool ManagerConnection::Exchange(const std::string& message, HttpRequest& response,
                                 Clock::time_point deadline) {
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
        return false;
    }
    ZEL_DEBUG("Wait for response");
    response = {};
    if (!reader_->ReadHead(response, deadline)) {
        return false;
    }
    reader_->ReadBody(response);
    return true;
}

void ManagerConnection::Close() {
    reader_.reset();
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

/// Not when there is something to be read: the end of the connection, or what nobody asked for.
bool ManagerConnection::IsUsable() const {
    pollfd input{socket_.Get(), POLLIN, 0};
    return !reader_->HasUnread() && poll(&input, 1, 0) == 0;
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
    sockaddr_in address{};
    int error = !ToSocketAddress(address_, address) ? EINVAL
                : !LimitSending(deadline)           ? ETIMEDOUT
                                                    : 0;
    if (error == 0 &&
        connect(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        error = errno;
    }
    if (error != 0) {
        LogConnectFailure(address_, error);
        Close();
        return false;
    }
    reader_.emplace(socket_.Get(), kPatience);
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
                               microseconds(kPatience));
    const auto whole = std::chrono::floor<seconds>(left);
    const timeval patience{static_cast<time_t>(whole.count()),
                           static_cast<suseconds_t>((left - whole).count())};
    return left.count() > 0 &&
           setsockopt(socket_.Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) == 0;
}
