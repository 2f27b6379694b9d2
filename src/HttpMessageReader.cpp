#include "HttpMessageReader.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string_view>

#include "Descriptors.h"
#include "LogText.h"
#include "Numbers.h"
#include "ZelLog.h"

using namespace std::string_view_literals;

namespace {

/// Counts the large bodies that are read, or have been and are still held.
class LargeBodies {
public:
    /// A share that ends with its last owner; null when there is none within `timeout`.
    std::shared_ptr<void> Take(std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        const auto isFree = [this] { return taken_ < HttpMessageReader::kMaxLargeBodies; };
        if (!changed_.wait_for(lock, timeout, isFree)) {
            return nullptr;
        }
        ++taken_;
        lock.unlock();
        return {this, [](LargeBodies* all) { all->GiveBack(); }};
    }

private:
    void GiveBack() {
        const std::lock_guard lock(mutex_);
        --taken_;
        changed_.notify_one();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    int taken_ = 0;
};

LargeBodies& AllLargeBodies() {
    // Connections may outlive what the process destroys at its end.
    static auto& all = *new LargeBodies;
    return all;
}

/// The size in a chunk line; without value when the line holds anything but hexadecimal digits,
/// blanks and the two control characters that some clients pad it with.
std::optional<std::size_t> ParseChunkSize(std::string_view line) {
    constexpr std::string_view kAllowed("0123456789abcdefABCDEF \x10\x13");
    if (line.find_first_not_of(kAllowed) != std::string_view::npos) {
        return std::nullopt;
    }
    return std::strtoul(std::string(line).c_str(), nullptr, Numbers::kHexadecimal);
}

int ToInt(std::size_t value) {
    return static_cast<int>(std::min<std::size_t>(value, INT_MAX));
}

/// Takes `prefix` off a line that begins with it.
bool Take(std::string_view& line, std::string_view prefix) {
    const bool found = line.front() == prefix.front() && line.starts_with(prefix);
    line.remove_prefix(found ? prefix.size() : 0);
    return found;
}

void TakeLine(std::string_view line, HttpMessage& message) {
    if (Take(line, "Content-Type: "sv)) {
        message.contentType = line;
    } else if (Take(line, "Content-Length: "sv)) {
        message.contentLength = Numbers::Leading<std::int32_t>(std::string(line));
    } else if (Take(line, "Transfer-Encoding: "sv)) {
        message.chunked |= line == "chunked"sv;
    } else if (Take(line, "Connection: "sv)) {
        message.keepAlive |= line.starts_with("Keep-Alive"sv);
    }
}

void TakeLine(std::string_view line, HttpRequest& request) {
    // Behind the first blank of a request line stands the protocol version.
    if (Take(line, "POST "sv)) {
        request.method = HttpRequest::Method::kPost;
        request.url = line.substr(0, line.find(' '));
    } else if (Take(line, "GET "sv)) {
        request.method = HttpRequest::Method::kGet;
        request.url = line.substr(0, line.find(' '));
    } else if (Take(line, "Accept-Encoding: "sv)) {
        request.acceptEncoding = line;
    } else if (Take(line, "Host: "sv)) {
        request.host = line;
    } else if (Take(line, "User-Agent: "sv)) {
        request.userAgent = line;
    } else {
        TakeLine(line, static_cast<HttpMessage&>(request));
    }
}

void TakeLine(std::string_view line, HttpResponse& response) {
    if (Take(line, "HTTP/1.0 "sv) || Take(line, "HTTP/1.1 "sv)) {
        response.status = Numbers::Leading<std::int32_t>(std::string(line));
    } else {
        TakeLine(line, static_cast<HttpMessage&>(response));
    }
}

}  // namespace

// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): the buffer needs no zeros
HttpMessageReader::HttpMessageReader(int descriptor, std::chrono::milliseconds lineTimeout)
    : descriptor_(descriptor), lineTimeout_(lineTimeout) {
    const auto whole = std::chrono::floor<std::chrono::seconds>(lineTimeout);
    const timeval timeout{
        static_cast<time_t>(whole.count()),
        static_cast<suseconds_t>(std::chrono::microseconds(lineTimeout - whole).count())};
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
}

int HttpMessageReader::WaitForInput() {
    if (Buffered() > 0) {
        return 1;
    }
    // Rounded up: who has waited in vain finds that the deadline has passed.
    const auto untilDeadline =
        std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now());
    const auto wait = std::min(lineTimeout_, untilDeadline);
    if (wait.count() <= 0) {
        return 0;  // also when there is always something to be read
    }
    return Descriptors::WaitUntil(descriptor_, POLLIN, Clock::now() + wait) ? 1 : 0;
}

long HttpMessageReader::Receive(char* out, std::size_t size) {
    if (Buffered() > 0) {
        const std::size_t count = std::min(size, Buffered());
        std::memcpy(out, buffer_.data() + begin_, count);
        begin_ += count;
        return static_cast<long>(count);
    }
    ssize_t received = 0;
    do {
        received = recv(descriptor_, out, size, 0);
    } while (received < 0 && errno == EINTR);
    return received;
}

/// Has something in the buffer. The socket itself ends a receive that waits for as long as for a
/// byte of a line, so that only a deadline before that needs a wait of its own.
int HttpMessageReader::Fill() {
    if (Buffered() > 0) {
        return kFilled;
    }
    if (deadline_ != Clock::time_point::max() && deadline_ - Clock::now() < lineTimeout_ &&
        WaitForInput() < 1) {
        return kTimedOut;
    }
    const long received = Receive(buffer_.data(), buffer_.size());
    begin_ = 0;
    end_ = static_cast<std::size_t>(std::max(received, 0L));
    if (received < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        return kTimedOut;
    }
    return received > 0 ? kFilled : kClosed;
}

/// The next line without its end and its carriage returns, until something is received again.
std::optional<std::string_view> HttpMessageReader::ReadLine() {
    line_.clear();
    for (;;) {
        if (Fill() != kFilled) {
            return std::nullopt;
        }
        char* const begin = buffer_.data() + begin_;
        const std::size_t most = std::min(Buffered(), kMaxHead + 1 - headSize_);
        char* end = static_cast<char*>(std::memchr(begin, '\n', most));
        const bool isWhole = end != nullptr;
        const std::size_t taken = isWhole ? static_cast<std::size_t>(end - begin) + 1 : most;
        begin_ += taken;
        headSize_ += taken;
        if (headSize_ > kMaxHead) {
            return std::nullopt;
        }
        end = begin + taken - (isWhole ? 1 : 0);
        if (void* const dropped = std::memchr(begin, '\r', static_cast<std::size_t>(end - begin))) {
            end = std::remove(static_cast<char*>(dropped), end, '\r');
        }
        const std::string_view part(begin, static_cast<std::size_t>(end - begin));
        if (isWhole && line_.empty()) {
            return part;
        }
        line_ += part;
        if (isWhole) {
            return line_;
        }
    }
}

bool HttpMessageReader::WaitForMessage(Clock::time_point deadline) {
    // The time limit of the message begins with its first byte; until then only the wait for that
    // byte counts.
    deadline_ = deadline;
    return Fill() != kTimedOut;
}

/// As ReadLine(), from the beginning of a message: empty lines in front of it are passed over.
std::optional<std::string_view> HttpMessageReader::ReadFirstLine(Clock::time_point deadline) {
    if (!WaitForMessage(deadline)) {
        return std::nullopt;
    }
    deadline_ = std::min(deadline, Clock::now() + kMessageTimeLimit);
    headSize_ = 0;
    std::optional<std::string_view> line;
    do {
        line = ReadLine();
    } while (line && line->empty());
    return line;
}

template <typename Message>
bool HttpMessageReader::ReadHead(Message& message, Clock::time_point deadline) {
    std::optional<std::string_view> line = ReadFirstLine(deadline);
    for (; line && !line->empty(); line = ReadLine()) {
        TakeLine(*line, message);
    }
    return line.has_value();
}

template bool HttpMessageReader::ReadHead(HttpRequest& message, Clock::time_point deadline);
template bool HttpMessageReader::ReadHead(HttpResponse& message, Clock::time_point deadline);

bool HttpMessageReader::ReadBody(HttpMessage& message, Share share) {
    return message.chunked ? ReadChunkedBody(message, share) : ReadSizedBody(message, share);
}

bool HttpMessageReader::ReadSizedBody(HttpMessage& message, Share share) {
    if (message.contentLength < 1 || static_cast<std::size_t>(message.contentLength) > kMaxBody) {
        return false;
    }
    const auto length = static_cast<std::size_t>(message.contentLength);
    // Every receive asks for the full length, so the last one may take bytes of a request that
    // follows.
    std::string& body = message.body.emplace();
    int receives = 0;
    while (body.size() < length) {
        if (WaitForInput() < 1) {
            ZEL_ERROR("Waiting on http frame timed out or faild");
            break;
        }
        const long received = Append(body, length, share);
        if (++receives <= kMaxLoggedReceives || received < 1 || body.size() == length) {
            ZEL_DEBUG("Received %d bytes should %d", ToInt(body.size()), message.contentLength);
        }
        if (received < 1) {
            break;
        }
    }
    return body.size() == length;
}

std::size_t HttpMessageReader::Available() const {
    int waiting = 0;
    if (Buffered() == 0 && ioctl(descriptor_, FIONREAD, &waiting) == 0) {
        return static_cast<std::size_t>(std::max(waiting, 0));
    }
    return Buffered();
}

/// As Receive(), at the end of `body`, which grows by what has come in: an announced length alone
/// takes no memory.
long HttpMessageReader::Append(std::string& body, std::size_t most, Share share) {
    const std::size_t count = body.size();
    // One byte even where there is none: only a receive tells the end from a failure.
    const std::size_t size = std::clamp<std::size_t>(Available(), 1, most);
    if (count + size > kSmallBody && share != nullptr && !*share) {
        *share = AllLargeBodies().Take(lineTimeout_);
        if (!*share) {
            ZEL_ERROR("Too many large bodies at a time, giving up one");
            return -1;
        }
    }
    body.resize(count + size);
    const long received = Receive(body.data() + count, size);
    body.resize(count + static_cast<std::size_t>(std::max(received, 0L)));
    return received;
}

bool HttpMessageReader::ReadChunkedBody(HttpMessage& message, Share share) {
    std::string body;
    for (;;) {
        headSize_ = 0;
        const std::optional<std::string_view> line = ReadLine();
        if (!line) {
            return false;
        }
        const std::optional<std::size_t> size = ParseChunkSize(*line);
        if (!size) {
            ZEL_ERROR("Chunked-Encoding: Expected chunk length, received {%s}",
                      LogText::Of(*line).c_str());
            return false;
        }
        if (*size == 0) {
            message.body = std::move(body);
            return true;
        }
        if (*size > kMaxChunk) {
            ZEL_ERROR("Chunked-Encoding: Error: Block length %d exceeds maximum of 65536",
                      ToInt(*size));
            return false;
        }
        if (body.size() > kMaxBody) {
            ZEL_ERROR("Chunked-Encoding: Error: Total transfer length exceeds 1024 KBytes");
            return false;
        }
        if (!ReadChunk(body, *size, share)) {
            return false;
        }
        headSize_ = 0;
        if (!ReadLine()) {
            return false;
        }
    }
}

bool HttpMessageReader::ReadChunk(std::string& body, std::size_t size, Share share) {
    const std::size_t end = body.size() + size;
    try {
        while (body.size() < end) {
            const long received = WaitForInput() < 1 ? -1 : Append(body, end - body.size(), share);
            if (received < 1) {
                ZEL_ERROR("Chunked-Encoding: read failed with %d\n", static_cast<int>(received));
                return false;
            }
        }
    } catch (const std::bad_alloc&) {
        ZEL_ERROR("Chunked-Encoding: realloc() failed!");
        return false;
    }
    return true;
}
