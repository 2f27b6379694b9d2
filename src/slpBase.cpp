#include "slpBase.h"

#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <variant>

#include "Descriptors.h"
#include "Ipv4.h"
#include "LogText.h"
#include "SlpCodec.h"
#include "ZelLog.h"

namespace {

constexpr const char* kGroups[] = {SlpBase::kMulticastAddress, "239.255.1.1"};
constexpr std::chrono::milliseconds kFailurePause{1000};

/// Receives what is sent to the groups over one interface; a second time is no harm.
void JoinGroupsAt(int descriptor, int interface) {
    for (const char* group : kGroups) {
        ip_mreqn membership{};
        membership.imr_multiaddr = Ipv4::Parse(group).value_or(in_addr{});
        membership.imr_ifindex = interface;
        setsockopt(descriptor, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership);
    }
}

/// Datagrams that one system call receives or sends.
struct Datagrams {
    Datagrams() {  // NOLINT(cppcoreguidelines-pro-type-member-init): the bytes need no zeros
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            buffers[i] = {bytes[i].data(), bytes[i].size()};
            msghdr& message = headers[i].msg_hdr;
            message.msg_name = &peers[i];
            message.msg_namelen = sizeof peers[i];
            message.msg_iov = &buffers[i];
            message.msg_iovlen = 1;
        }
    }
    Datagrams(const Datagrams&) = delete;
    Datagrams& operator=(const Datagrams&) = delete;

    std::array<SlpCodec::Datagram, SlpBase::kMaxAtOnce> bytes;
    std::array<sockaddr_in, SlpBase::kMaxAtOnce> peers{};
    std::array<iovec, SlpBase::kMaxAtOnce> buffers{};
    std::array<mmsghdr, SlpBase::kMaxAtOnce> headers{};
};

void FillPeer(const sockaddr_in& peer, SlpHead& head) {
    head.peerAddress = Ipv4::Dotted(peer.sin_addr);
    head.peerPort = ntohs(peer.sin_port);
}

/// Tells of a receive that gave no bytes.
void LogReceived(long result) {
    ZEL_DEBUG("recvfrom() == %lu\n", static_cast<unsigned long>(result));
}

std::optional<SlpMessage> DecodeReceived(SlpCodec::Received datagram) {
    const ZelLog::Limit rubbish;
    if (datagram.empty()) {
        LogReceived(0);
        return std::nullopt;
    }
    const std::uint32_t length = SlpCodec::DeclaredLength(datagram);
    if (length != datagram.size()) {
        ZEL_DEBUG("incomplete packet (%lu != %lu)\n", static_cast<unsigned long>(length),
                  static_cast<unsigned long>(datagram.size()));
        return std::nullopt;
    }
    if (length > SlpCodec::kMaxSize) {
        ZEL_DEBUG("Invalid packet length %lu\n", static_cast<unsigned long>(length));
        return std::nullopt;
    }
    std::optional<SlpMessage> message = SlpCodec::Decode(datagram);
    if (!message) {
        ZEL_DEBUG("Unsupported SLP request type %d\n",
                  static_cast<int>(SlpCodec::FunctionId(datagram)));
    }
    return message;
}

}  // namespace

SlpBase::SlpBase() : interruption_(eventfd(0, EFD_CLOEXEC)) {}

bool SlpBase::Open(const std::string& address, std::uint16_t port) {
    Close();
    SocketGuard opened(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    const std::optional<in_addr> host = Ipv4::Parse(address);
    const sockaddr_in local = Ipv4::SocketAddress(host.value_or(in_addr{}), port);
    if (opened.Get() < 0 || !host ||
        setsockopt(opened.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(opened.Get(), Ipv4::Generic(local), sizeof local) != 0) {
        return false;
    }
    // The second one passes the system's limit, where the agent may do so.
    for (const int option : {SO_SNDBUF, SO_SNDBUFFORCE}) {
        setsockopt(opened.Get(), SOL_SOCKET, option, &kSendBuffer, sizeof kSendBuffer);
    }
    socket_.Reset(opened.Release());
    JoinGroups();
    return true;
}

void SlpBase::JoinGroups() const {
    JoinGroupsAt(socket_.Get(), 0);  // the interface that the groups are routed to
    const std::unique_ptr<struct if_nameindex, void (*)(struct if_nameindex*)> interfaces(
        if_nameindex(), if_freenameindex);
    for (const auto* entry = interfaces.get(); entry != nullptr && entry->if_index != 0; ++entry) {
        JoinGroupsAt(socket_.Get(), static_cast<int>(entry->if_index));
    }
}

void SlpBase::Close() {
    socket_.Reset();
}

void SlpBase::Receive(const Take& take) const {
    Datagrams datagrams;
    int count = 0;
    do {
        count =
            recvmmsg(socket_.Get(), datagrams.headers.data(), kMaxAtOnce, MSG_WAITFORONE, nullptr);
    } while (count < 0 && errno == EINTR);
    if (IsInterrupted()) {
        return;
    }
    if (count < 0) {
        LogReceived(count);
        static_cast<void>(IsInterruptedWithin(kFailurePause));  // the next call tells
    }
    for (std::size_t i = 0; count > 0 && i < static_cast<std::size_t>(count); ++i) {
        const std::size_t size = datagrams.headers[i].msg_len;
        try {
            if (auto message = DecodeReceived(std::span(datagrams.bytes[i]).first(size))) {
                std::visit([&](SlpHead& head) { FillPeer(datagrams.peers[i], head); }, *message);
                take(*message);
            }
        } catch (const std::bad_alloc&) {
            ZEL_ERROR("No memory to answer an SLP message");
        }
    }
}

bool SlpBase::IsInterruptedWithin(std::chrono::milliseconds timeout) const {
    return Descriptors::WaitUntil(interruption_.Get(), POLLIN, Descriptors::Clock::now() + timeout);
}

void SlpBase::Interrupt() {
    isInterrupted_ = true;
    eventfd_write(interruption_.Get(), 1);
    // Ends a receive that waits, too, although it says that such a socket has no connection.
    shutdown(socket_.Get(), SHUT_RD);
}

template <typename Record>
void SlpBase::SendRecords(std::span<Record> records) const {
    Datagrams datagrams;
    std::size_t count = 0;
    for (Record& record : records.first(std::min(records.size(), kMaxAtOnce))) {
        const std::size_t size = SlpCodec::Encode(record, datagrams.bytes[count]);
        if (const auto host = Ipv4::Parse(record.peerAddress); size > 0 && host) {
            datagrams.peers[count] =
                Ipv4::SocketAddress(*host, static_cast<std::uint16_t>(record.peerPort));
            datagrams.buffers[count].iov_len = size;
            ++count;
        }
    }
    // Answers to addresses that nobody has wait in the buffer for their neighbours: who asked in
    // their name must not hold the thread up.
    for (std::size_t sent = 0; sent < count;) {
        const int more = sendmmsg(socket_.Get(), &datagrams.headers[sent],
                                  static_cast<unsigned>(count - sent), MSG_DONTWAIT);
        sent += static_cast<std::size_t>(std::max(more, 1));  // the first of them is lost otherwise
    }
}

int SlpBase::Send(SlpRequest& request) const {
    SendRecords(std::span(&request, 1));
    return 0;
}

void SlpBase::Send(std::span<const SlpReply> replies) const {
    SendRecords(replies);
}

int SlpBase::FindAttribute(std::string& attrList, const std::string& name, std::string& value) {
    constexpr char kSeparators[] = ",()";
    ZEL_DEBUG("Search for attribute %s", name.c_str());
    char* rest = nullptr;
    int logged = 0;
    for (char* token = strtok_r(attrList.data(), kSeparators, &rest); token != nullptr;
         token = strtok_r(nullptr, kSeparators, &rest)) {
        char* const separator = std::strchr(token, '=');
        if (separator == nullptr) {
            continue;
        }
        if (++logged <= kMaxLogged) {
            ZEL_DEBUG("Attribute: %s", LogText::Of(token).c_str());
        }
        *separator = '\0';
        if (name == token) {
            value = separator + 1;
            return 0;
        }
    }
    return -1;
}
