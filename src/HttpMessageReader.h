#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "HttpMessage.h"

/// Reads HTTP messages from a connected stream socket, one after the other. Reading is buffered;
/// what a peer sees is as if every byte of a line were waited for and received on its own.
///
/// No peer holds the caller for ever or makes it collect without end: besides the time-out of each
/// wait, a message as a whole and a head have limits.
class HttpMessageReader {
public:
    using Clock = std::chrono::steady_clock;

    /// Longest wait for the next byte of a line or part of a body.
    static constexpr std::chrono::milliseconds kLineTimeout{5000};
    /// Longest time from the first byte of a message to its last.
    static constexpr std::chrono::seconds kMessageTimeLimit{120};
    /// Most bytes of all header lines of a message, line ends included.
    static constexpr std::size_t kMaxHead = 64 * 1024;
    /// Most bytes of a sized body, and of a chunked one before its last chunk.
    static constexpr std::size_t kMaxBody = 0x100000;
    /// Most bytes of one chunk.
    static constexpr std::size_t kMaxChunk = 65536;
    /// Most requests at a time, of all connections, whose bodies have more than kSmallBody bytes. A
    /// further one waits for its turn for as long as for a byte of a line, and then stays
    /// incomplete.
    static constexpr int kMaxLargeBodies = 32;
    static constexpr std::size_t kSmallBody = std::size_t{64} * 1024;

    /// Receives of one sized body that are logged, besides the last: a body that comes byte by byte
    /// would roll the log over.
    static constexpr int kMaxLoggedReceives = 64;

    /// The descriptor stays the caller's; its receive time-out is set.
    explicit HttpMessageReader(int descriptor,
                               std::chrono::milliseconds lineTimeout = kLineTimeout);

    /// Waits for the first byte of the next message, or the end of the connection, for as long as
    /// for a byte of a line and not beyond `deadline`. Returns false when there is neither.
    [[nodiscard]] bool WaitForMessage(Clock::time_point deadline = Clock::time_point::max());

    /// Reads the header lines of the next message, an HttpRequest or an HttpResponse, which must be
    /// fresh. The message as a whole, its body included, must come by `deadline`. Returns false
    /// when the peer was too slow, closed, or sent too much.
    template <typename Message>
    [[nodiscard]] bool ReadHead(Message& message,
                                Clock::time_point deadline = Clock::time_point::max());

    /// Reads the body that the head announced into `body`. Returns false when it is not complete; a
    /// sized body then holds what was received, a chunked one stays without value. Of responses,
    /// which the agent itself has asked for, large bodies are not counted.
    [[nodiscard]] bool ReadBody(HttpRequest& request) {
        return ReadBody(request, &request.largeBody);
    }
    [[nodiscard]] bool ReadBody(HttpResponse& response) { return ReadBody(response, nullptr); }

    /// Whether bytes behind the last message have been received already.
    bool HasUnread() const { return Buffered() > 0; }

private:
    /// Where a large body puts its share; null where bodies are not counted.
    using Share = std::shared_ptr<void>*;

    // Results of Fill().
    static constexpr int kFilled = 1;
    static constexpr int kTimedOut = -1;
    static constexpr int kClosed = -2;

    std::optional<std::string_view> ReadLine();
    std::optional<std::string_view> ReadFirstLine(Clock::time_point deadline);
    int Fill();
    int WaitForInput();
    /// Up to `size` bytes: those in the buffer, or those of one receive. 0 or less at the end.
    long Receive(char* out, std::size_t size);
    bool ReadBody(HttpMessage& message, Share share);
    bool ReadSizedBody(HttpMessage& message, Share share);
    bool ReadChunkedBody(HttpMessage& message, Share share);
    bool ReadChunk(std::string& body, std::size_t size, Share share);
    long Append(std::string& body, std::size_t most, Share share);
    std::size_t Available() const;
    std::size_t Buffered() const { return end_ - begin_; }

    int descriptor_;
    std::chrono::milliseconds lineTimeout_;
    Clock::time_point deadline_{};
    std::size_t headSize_ = 0;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    /// Of a line that came in parts.
    std::string line_;
    std::array<char, 4096> buffer_;  // not cleared
};
