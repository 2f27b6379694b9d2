#include "ManagerConnection.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>

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
    ZEL_ERROR("Can't connect to %s because of: %s", address.c_str(),
              std::strerror(error == EINPROGRESS ? ETIMEDOUT : error));
}

}  // namespace

bool ManagerConnection::Exchange(const std::string& message, HttpRequest& response) {
    if (!Connect()) {
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
    if (!Send(request)) {
        ZEL_ERROR("Send request failed: %s", std::strerror(errno));
        return false;
    }
    ZEL_DEBUG("Wait for response");
    response = {};
    if (!reader_->ReadHead(response)) {
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

bool ManagerConnection::Connect() {
    ZEL_DEBUG("Initialize socket PreSignIn");
    if (socket_.Get() >= 0) {
        if (IsUsable()) {
            return true;
        }
        ZEL_DEBUG("Socket is closed by other side, reopen");
        Close();
    }
    return Open();
}

/// Not when there is something to be read: the end of the connection, or what nobody asked for.
bool ManagerConnection::IsUsable() const {
    pollfd input{socket_.Get(), POLLIN, 0};
    return !reader_->HasUnread() && poll(&input, 1, 0) == 0;
}

bool ManagerConnection::Open() {
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
    // Also limits the time of the connect.
    const timeval patience{std::chrono::duration_cast<std::chrono::seconds>(kPatience).count(), 0};
    setsockopt(socket_.Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    sockaddr_in address{};
    int error = ToSocketAddress(address_, address) ? 0 : EINVAL;
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

bool ManagerConnection::Send(const std::string& text) const {
    const ssize_t sent = send(socket_.Get(), text.data(), text.size(), MSG_NOSIGNAL);
    if (sent >= 0 && static_cast<std::size_t>(sent) < text.size()) {
        errno = ETIMEDOUT;
    }
    return sent == static_cast<ssize_t>(text.size());
}
