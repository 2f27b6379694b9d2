#include "HttpConnection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <new>
#include <string>
#include <utility>

#include "Console.h"
#include "Descriptors.h"
#include "Ipv4.h"
#include "LogText.h"
#include "ZelLog.h"

namespace {

using Clock = std::chrono::steady_clock;
using Phase = ConnectionTable::Phase;
using namespace std::string_view_literals;

constexpr int kOk = 200;
constexpr char kNotFoundText[] =
    "An error 404 has occurred. The requested document could not be found.";

constexpr std::size_t kFileBlock = 16 * 1024;

// How long, and how much, a peer may go on sending after its answer.
constexpr std::chrono::seconds kLingerTime{2};
constexpr std::size_t kLingerBytes = 4 * 1024 * 1024;

/// Of all but extra header lines.
constexpr std::size_t kHeadSize = 256;

sockaddr_in LocalEnd(int descriptor) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(descriptor, Ipv4::Generic(address), &size);
    return address;
}

std::string Head(const ServletResponse& response) {
    const std::string length = std::to_string(response.body.size() + response.fileLength);
    std::string head;
    head.reserve(kHeadSize);
    head += response.status == kOk ? "HTTP/1.0 200 OK\r\nContent-Type: "sv
                                   : "HTTP/1.0 404 Not found\r\nContent-Type: "sv;
    head += response.contentType;
    // Some clients look for the one spelling, some for the other.
    head += "\r\nContent-Length: "sv;
    head += length;
    head += "\r\ncontent-length: "sv;
    head += length;
    head += response.keepAlive ? "\r\nConnection: Keep-Alive\r\nKeep-Alive: timeout=5, max=5\r\n"sv
                               : "\r\nConnection: Close\r\n"sv;
    for (const std::string& line : response.headerLines) {
        head += line;
        head += "\r\n"sv;
    }
    head += "\r\n"sv;
    return head;
}

}  // namespace

HttpConnection::HttpConnection(int descriptor, in_addr peer, const ServletRegistry& registry,
                               std::chrono::milliseconds lineTimeout,
                               std::shared_ptr<ConnectionTable> table)
    : registry_(registry),
      reader_(descriptor, lineTimeout),
      socket_(descriptor),
      place_(std::move(table), descriptor, peer) {}

void HttpConnection::Serve() {
    localEnd_ = LocalEnd(socket_.Get());
    try {
        while (ServeRequest()) {
            place_.SetPhase(reader_.HasUnread() ? Phase::kReceiving : Phase::kIdle);
        }
    } catch (const std::bad_alloc&) {
        ZEL_ERROR("Out of memory, giving up a request");
    } catch (const std::exception& error) {
        ZEL_ERROR("Giving up a request: %s", error.what());
    }
    if (unreadBody_) {
        Linger();
    }
    ZEL_DEBUG("Closing connection to %s", Ipv4::Dotted(localEnd_.sin_addr).c_str());
}

bool HttpConnection::ServeRequest() {
    request_ = {};
    response_ = {};
    servlet_.reset();
    request_.localPort = ntohs(localEnd_.sin_port);
    request_.localAddress = localEnd_.sin_addr;
    const bool begun = reader_.WaitForMessage();
    place_.SetPhase(Phase::kReceiving);
    if (!begun || !reader_.ReadHead(request_)) {
        Console::Print("read_headers() returned < 0 or req->url not set!\n");
        return false;
    }
    if (!request_.url) {
        Console::Print("req->url == (nil)\n");
        return false;
    }
    if (request_.contentLength != 0 || request_.method == HttpRequest::Method::kPost) {
        // An incomplete body is the servlet's to judge; only what it leaves unread matters here.
        const bool announced = request_.contentLength != 0 || request_.chunked;
        unreadBody_ = !reader_.ReadBody(request_) && announced;
    }
    place_.SetPhase(Phase::kServing);
    const int result = CallServlet();
    const bool isLast = response_.keptUntilReceived != nullptr;
    response_.keepAlive = response_.keepAlive && !isLast;
    const bool mayWait = place_.SetPhase(Phase::kSending);
    const bool sent = Send(mayWait ? kResponseTimeLimit : std::chrono::seconds{0});
    if (result == ZelServlet::kPostResponse) {
        place_.SetPhase(Phase::kServing);
        servlet_->PostResponse();
    }
    if (servlet_ && registry_.onServed) {
        registry_.onServed();
    }
    if (isLast) {
        Linger();
    }
    return request_.keepAlive && sent && !isLast;
}

int HttpConnection::CallServlet() {
    const auto found = std::find_if(
        registry_.servlets.begin(), registry_.servlets.end(), [this](const ZelServlet* candidate) {
            return candidate->Matches(*request_.url, request_.localPort);
        });
    if (found == registry_.servlets.end()) {
        ZEL_DEBUG("No handler found for '%s'", LogText::Of(*request_.url).c_str());
        response_.keepAlive = false;
        return ZelServlet::kDone;
    }
    servlet_ = (*found)->MakeInstance();
    ZEL_DEBUG("Passing request for '%s' to %s", LogText::Of(*request_.url).c_str(),
              servlet_->GetName().c_str());
    return servlet_->Service(request_, response_);
}

bool HttpConnection::Send(std::chrono::seconds timeLimit) {
    if (response_.status != kOk && response_.body.empty()) {
        response_.body = kNotFoundText;
    }
    std::string head = Head(response_);
    std::array<iovec, 2> parts{iovec{head.data(), head.size()},
                               iovec{response_.body.data(), response_.body.size()}};
    const Clock::time_point deadline = Clock::now() + timeLimit;
    return SendAll(parts, deadline) && (response_.fileLength == 0 || SendFile(deadline));
}

/// Block by block: a file may be larger than the memory. One that has become shorter since its
/// length was told ends the connection.
bool HttpConnection::SendFile(Clock::time_point deadline) {
    const auto block = std::make_unique_for_overwrite<char[]>(kFileBlock);
    std::uint64_t sent = 0;
    while (sent < response_.fileLength) {
        const auto wanted = static_cast<std::size_t>(
            std::min<std::uint64_t>(kFileBlock, response_.fileLength - sent));
        const ssize_t count =
            pread(response_.file->Get(), block.get(), wanted, static_cast<off_t>(sent));
        if (count <= 0) {
            return false;
        }
        iovec part{block.get(), static_cast<std::size_t>(count)};
        if (!SendAll({&part, 1}, deadline)) {
            return false;
        }
        sent += static_cast<std::uint64_t>(count);
    }
    return true;
}

bool HttpConnection::SendAll(std::span<iovec> parts, Clock::time_point deadline) {
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    std::size_t left = 0;
    for (const iovec& part : parts) {
        left += part.iov_len;
    }
    while (left > 0) {
        const ssize_t sent = sendmsg(socket_.Get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            const bool full = errno == EAGAIN || errno == EWOULDBLOCK;
            const Clock::time_point sendEnd = std::min(deadline, Clock::now() + kSendTimeout);
            if (errno == EINTR ||
                (full && Descriptors::WaitUntil(socket_.Get(), POLLOUT, sendEnd))) {
                continue;
            }
            return false;
        }
        auto taken = static_cast<std::size_t>(sent);
        left -= taken;
        for (iovec& part : parts) {
            const std::size_t step = std::min(taken, part.iov_len);
            part.iov_base = static_cast<char*>(part.iov_base) + step;
            part.iov_len -= step;
            taken -= step;
        }
    }
    return true;
}

/// Closing a socket with unread bytes resets the connection, and the peer may lose the answer to
/// the reset. So what it still sends is read away, within limits.
void HttpConnection::Linger() {
    place_.SetPhase(Phase::kReceiving);
    shutdown(socket_.Get(), SHUT_WR);
    Descriptors::ReadAway(socket_.Get(), kLingerBytes, Clock::now() + kLingerTime);
}
