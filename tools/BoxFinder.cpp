#include "BoxFinder.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <utility>

#include "Descriptors.h"
#include "Ipv4.h"
#include "SlpCodec.h"
#include "SocketGuard.h"

namespace BoxFinder {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint16_t kPort = 427;
constexpr char kGroup[] = "239.255.255.253";

/// All addresses from which a multicast can be sent.
std::vector<in_addr> OwnAddresses() {
    std::vector<in_addr> addresses;
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) {
        return addresses;
    }
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owned(first, freeifaddrs);
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
        constexpr unsigned kNeeded = IFF_UP | IFF_MULTICAST;
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET &&
            (entry->ifa_flags & kNeeded) == kNeeded) {
            addresses.push_back(reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr);
        }
    }
    return addresses;
}

void Ask(int descriptor, std::uint16_t xid) {
    SlpRequest request;
    request.functionId = SlpFunction::kAttrRqst;
    request.xid = xid;
    request.languageTag = "en";
    request.scopeList = "default";
    request.url = "service:zel.connector";
    SlpCodec::Datagram datagram{};
    const std::size_t size = SlpCodec::Encode(request, datagram);
    const sockaddr_in group = Ipv4::SocketAddress(Ipv4::Parse(kGroup).value_or(in_addr{}), kPort);
    for (const in_addr& own : OwnAddresses()) {
        if (setsockopt(descriptor, IPPROTO_IP, IP_MULTICAST_IF, &own, sizeof own) == 0) {
            sendto(descriptor, datagram.data(), size, 0, Ipv4::Generic(group), sizeof group);
        }
    }
}

/// The box that has sent the next datagram, and the key that sorts it.
std::optional<std::pair<std::uint32_t, Box>> Receive(int descriptor, std::uint16_t xid) {
    SlpCodec::Datagram datagram{};
    sockaddr_in peer{};
    socklen_t peerSize = sizeof peer;
    const ssize_t size = recvfrom(descriptor, datagram.data(), datagram.size(), MSG_DONTWAIT,
                                  Ipv4::Generic(peer), &peerSize);
    if (size < 1 || SlpCodec::DeclaredLength(datagram) != static_cast<std::size_t>(size)) {
        return std::nullopt;
    }
    const std::optional<SlpMessage> message = SlpCodec::Decode(datagram);
    const auto* const reply = message ? std::get_if<SlpReply>(&*message) : nullptr;
    if (reply == nullptr || !reply->attrList || reply->xid != xid || reply->errorCode != 0) {
        return std::nullopt;
    }
    return std::pair(ntohl(peer.sin_addr.s_addr),
                     Box::Read(Ipv4::Dotted(peer.sin_addr), *reply->attrList));
}

}  // namespace

std::vector<Box> Find(std::chrono::milliseconds wait,
                      const std::function<bool(const Box&)>& isEnough, int interruption) {
    std::map<std::uint32_t, Box> found;
    const SocketGuard socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto xid = static_cast<std::uint16_t>(std::random_device()());
    const Clock::time_point end = Clock::now() + wait;
    Clock::time_point askAgain = end - wait / 2;
    Ask(socket.Get(), xid);
    while (Clock::now() < end) {
        std::array<pollfd, 2> polled{{{socket.Get(), POLLIN, 0}, {interruption, POLLIN, 0}}};
        poll(polled.data(), polled.size(), Descriptors::MillisecondsUntil(std::min(askAgain, end)));
        if (polled[1].revents != 0) {
            break;
        }
        if (Clock::now() >= askAgain) {
            askAgain = Clock::time_point::max();
            Ask(socket.Get(), xid);
        }
        auto answer = polled[0].revents == 0 ? std::nullopt : Receive(socket.Get(), xid);
        if (!answer || (found.size() >= kMaxBoxes && !found.contains(answer->first))) {
            continue;
        }
        const bool isLast = isEnough && isEnough(answer->second);
        found.insert_or_assign(answer->first, std::move(answer->second));
        if (isLast) {
            break;
        }
    }
    std::vector<Box> boxes;
    for (auto& entry : found) {
        boxes.push_back(std::move(entry.second));
    }
    return boxes;
}

}  // namespace BoxFinder
