#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "SlpMessage.h"
#include "SocketGuard.h"

/// The UDP socket that the box speaks SLP on (RFC 2608), and the search in attribute lists. Sending
/// is thread-safe, also while another thread receives; opening and closing are not.
class SlpBase {
public:
    /// Port of SLP (RFC 2608, section 6.1).
    static constexpr std::uint16_t kPort = 427;
    /// The SLP multicast address (RFC 2608, section 6.1).
    static constexpr char kMulticastAddress[] = "239.255.255.253";

    /// Attributes of a list searched that the log tells: whoever answers sends some 1,000 at once.
    static constexpr int kMaxLogged = 64;

    /// Bytes of the send buffer that are asked for. What goes to an address that nobody on the
    /// network has waits in it for some 3 s, and others would get no answer meanwhile.
    static constexpr int kSendBuffer = 4 * 1024 * 1024;

    SlpBase();
    SlpBase(const SlpBase&) = delete;
    SlpBase& operator=(const SlpBase&) = delete;

    /// Opens the socket on a dotted address and joins kMulticastAddress and 239.255.1.1.
    /// False when the address is none or cannot be bound; no socket is open then.
    [[nodiscard]] bool Open(const std::string& address, std::uint16_t port);
    void Close();
    bool IsOpen() const { return socket_.Get() >= 0; }

    /// Joins the groups on every interface there is, as Open() does: to be called when there is a
    /// new one.
    void JoinGroups() const;

    /// Most datagrams that one call receives or sends.
    static constexpr std::size_t kMaxAtOnce = 8;

    using Take = std::function<void(SlpMessage& message)>;

    /// Waits for a datagram and receives, up to kMaxAtOnce, what else has come by then. Gives
    /// `take` the messages among them, one after the other: none when the receive fails, when no
    /// datagram is a message (its length field does not count the bytes received, or its function
    /// is not in SlpFunction; the log tells, within limits) or when interrupted. One for which
    /// there is not enough memory, in `take` either, is lost. A failed receive, as on a socket
    /// that is not open, is followed by a pause of a second, so that calling again and again costs
    /// no processor.
    void Receive(const Take& take) const;

    /// Ends every wait for a datagram, now and from now on.
    void Interrupt();
    bool IsInterrupted() const { return isInterrupted_; }
    /// Waits for that up to `timeout`.
    [[nodiscard]] bool IsInterruptedWithin(std::chrono::milliseconds timeout) const;

    /// Sends a message to its peer. Sends nothing when the peer's address is not dotted or the
    /// record is no message (SlpCodec::Encode); what the buffer has no room for is lost. Always 0:
    /// failures are not reported.
    int Send(SlpRequest& request) const;
    /// The same for the first kMaxAtOnce of the replies, which leave in one call.
    void Send(std::span<const SlpReply> replies) const;

    /// Searches an attribute list (RFC 2608, section 5) for the attribute with exactly this name.
    /// Returns 0 and the text behind its first "=", or -1: of
    /// "(Service=zel-manager),(ClusterIP='a')" and "ClusterIP" it is "'a'". `attrList` is cut into
    /// pieces on the way, of which kMaxLogged are logged.
    [[nodiscard]] static int FindAttribute(std::string& attrList, const std::string& name,
                                           std::string& value);

private:
    template <typename Record>
    void SendRecords(std::span<Record> records) const;

    SocketGuard socket_;
    SocketGuard interruption_;  // readable once interrupted
    std::atomic<bool> isInterrupted_ = false;
};
