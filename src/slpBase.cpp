#include "slpBase.h"

#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

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

void FillPeer(const sockaddr_in& peer, SlpHead& head) {
    head.peerAddress = Ipv4::Dotted(peer.sin_addr);
    head.peerPort = ntohs(peer.sin_port);
}

std::optional<SlpMessage> DecodeReceived(const SlpCodec::Datagram& datagram, std::size_t size) {
    const std::uint32_t length = SlpCodec::DeclaredLength(datagram);
    if (length != size) {
        ZEL_DEBUG("incomplete packet (%lu != %lu)\n", static_cast<unsigned long>(length),
                  static_cast<unsigned long>(size));
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

std::optional<SlpMessage> SlpBase::Receive() const {
    SlpCodec::Datagram datagram{};
    sockaddr_in peer{};
    socklen_t peerSize = sizeof peer;
    ssize_t received = 0;
    do {
        if (socket_.Get() >= 0 && !WaitForDatagram(-1)) {
            return std::nullopt;
        }
        // A datagram that woke the wait up may turn out to be damaged and be gone.
        received = recvfrom(socket_.Get(), datagram.data(), datagram.size(), MSG_DONTWAIT,
                            Ipv4::Generic(peer), &peerSize);
    } while (received < 0 && (errno == EAGAIN || errno == EINTR));
    if (received <= 0) {
        ZEL_DEBUG("recvfrom() == %lu\n", static_cast<unsigned long>(received));
        if (received < 0) {
            static_cast<void>(IsInterruptedWithin(kFailurePause));  // the next call tells
        }
        return std::nullopt;
    }
    std::optional<SlpMessage> message =
        DecodeReceived(datagram, static_cast<std::size_t>(received));
    if (message) {
        std::visit([&peer](SlpHead& head) { FillPeer(peer, head); }, *message);
    }
    return message;
}

std::optional<SlpMessage> SlpBase::ReceiveWithin(std::chrono::milliseconds timeout) const {
    if (!WaitForDatagram(static_cast<int>(timeout.count()))) {
        return std::nullopt;
    }
    return Receive();
}

/// False when none comes in time (-1: no limit) or the wait is interrupted.
bool SlpBase::WaitForDatagram(int milliseconds) const {
    std::array<pollfd, 2> polled{{{socket_.Get(), POLLIN, 0}, {interruption_.Get(), POLLIN, 0}}};
    return poll(polled.data(), polled.size(), milliseconds) > 0 && polled[1].revents == 0;
}

bool SlpBase::IsInterruptedWithin(std::chrono::milliseconds timeout) const {
    return Descriptors::WaitUntil(interruption_.Get(), POLLIN, Descriptors::Clock::now() + timeout);
}

void SlpBase::Interrupt() const {
    eventfd_write(interruption_.Get(), 1);
}

template <typename Record>
int SlpBase::SendRecord(Record& record) const {
    SlpCodec::Datagram datagram{};
    const std::size_t size = SlpCodec::Encode(record, datagram);
    if (const auto host = Ipv4::Parse(record.peerAddress); size > 0 && host) {
        const sockaddr_in peer =
            Ipv4::SocketAddress(*host, static_cast<std::uint16_t>(record.peerPort));
        // Answers to addresses that nobody has wait in the buffer for their neighbours: who asked
        // in their name must not hold the thread up.
        sendto(socket_.Get(), datagram.data(), size, MSG_DONTWAIT, Ipv4::Generic(peer),
               sizeof peer);
    }
    return 0;
}

int SlpBase::Send(SlpRequest& request) const {
    return SendRecord(request);
}

int SlpBase::Send(const SlpReply& reply) const {
    return SendRecord(reply);
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
