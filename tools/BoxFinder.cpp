#include "BoxFinder.h"

#include <ifaddrs.h>
#include <linux/sock_diag.h>
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

/// The question; returns the number of bytes.
std::size_t MakeRequest(std::uint16_t xid, SlpCodec::Datagram& datagram) {
    SlpRequest request;
    request.functionId = SlpFunction::kAttrRqst;
    request.xid = xid;
    request.languageTag = "en";
    request.scopeList = "default";
    request.url = "service:zel.connector";
    return SlpCodec::Encode(request, datagram);
}

void AskAll(int descriptor, std::uint16_t xid) {
    SlpCodec::Datagram datagram{};
    const std::size_t size = MakeRequest(xid, datagram);
    const sockaddr_in group = Ipv4::SocketAddress(Ipv4::Parse(kGroup).value_or(in_addr{}), kPort);
    for (const in_addr& own : OwnAddresses()) {
        if (setsockopt(descriptor, IPPROTO_IP, IP_MULTICAST_IF, &own, sizeof own) == 0) {
            sendto(descriptor, datagram.data(), size, 0, Ipv4::Generic(group), sizeof group);
        }
    }
}

/// Sockets that share a port: the kernel always gives a sender's datagrams to the same one. A
/// socket by itself holds some hundred answers, and a thousand boxes answer in less time than it
/// may take until this program gets a processor.
using Sockets = std::array<SocketGuard, 64>;

bool Share(int descriptor) {
    constexpr int kOn = 1;
    return setsockopt(descriptor, SOL_SOCKET, SO_REUSEPORT, &kOn, sizeof kOn) == 0;
}

void Open(Sockets& sockets) {
    sockaddr_in own = Ipv4::SocketAddress({INADDR_ANY}, 0);
    for (SocketGuard& socket : sockets) {
        socket.Reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        socklen_t size = sizeof own;
        // Whoever shares gets any port of the user's that is shared, also of another search: the
        // first one finds a port of its own.
        const bool isFirst = own.sin_port == 0;
        if ((!isFirst && !Share(socket.Get())) ||
            bind(socket.Get(), Ipv4::Generic(own), size) != 0 ||
            getsockname(socket.Get(), Ipv4::Generic(own), &size) != 0 ||
            (isFirst && !Share(socket.Get()))) {
            return;  // some are enough for some boxes
        }
    }
}

/// One search: its sockets, and what has been heard.
class Search {
public:
    explicit Search(int interruption) {
        Open(sockets_);
        polled_.push_back({interruption, POLLIN, 0});
        for (const SocketGuard& socket : sockets_) {
            polled_.push_back({socket.Get(), POLLIN, 0});
        }
    }

    void Ask() const { AskAll(sockets_.front().Get(), xid_); }
    void AskOne(in_addr box) const {
        SlpCodec::Datagram datagram{};
        const std::size_t size = MakeRequest(xid_, datagram);
        const sockaddr_in peer = Ipv4::SocketAddress(box, kPort);
        sendto(sockets_.front().Get(), datagram.data(), size, 0, Ipv4::Generic(peer), sizeof peer);
    }

    /// Collects answers. False when the search was interrupted, or `isEnough` is true of a box.
    bool CollectUntil(Clock::time_point end, const std::function<bool(const Box&)>& isEnough) {
        while (Clock::now() < end) {
            poll(polled_.data(), polled_.size(), Descriptors::MillisecondsUntil(end));
            if (polled_.front().revents != 0) {
                return false;
            }
            // All that has come is taken out before any of it is looked into.
            std::vector<std::uint32_t> senders;
            for (std::size_t i = 1; i < polled_.size(); ++i) {
                while (polled_[i].revents != 0 && Clock::now() < end &&
                       ReceiveOne(polled_[i].fd, senders)) {
                }
            }
            if (isEnough && std::any_of(senders.begin(), senders.end(), [&](std::uint32_t sender) {
                    return isEnough(ToBox(sender, lists_.at(sender)));
                })) {
                return false;
            }
        }
        return true;
    }

    /// Boxes that are new since the last call.
    std::size_t TakeNew() { return lists_.size() - std::exchange(known_, lists_.size()); }

    /// Datagrams that the sockets could not hold, since the last call.
    std::uint32_t TakeLost() {
        std::uint32_t lost = 0;
        for (const SocketGuard& socket : sockets_) {
            std::array<std::uint32_t, SK_MEMINFO_VARS> memory{};
            socklen_t size = sizeof memory;
            getsockopt(socket.Get(), SOL_SOCKET, SO_MEMINFO, memory.data(), &size);
            lost += memory[SK_MEMINFO_DROPS];
        }
        return lost - std::exchange(lost_, lost);
    }

    std::vector<Box> Boxes() const {
        std::vector<Box> boxes;
        boxes.reserve(lists_.size());
        for (const auto& [address, list] : lists_) {
            boxes.push_back(ToBox(address, list));
        }
        return boxes;
    }

private:
    static Box ToBox(std::uint32_t address, const std::string& list) {
        return Box::Read(Ipv4::Dotted({htonl(address)}), list);
    }

    /// Whether there was a datagram; `senders` gets the sender of an answer.
    bool ReceiveOne(int descriptor, std::vector<std::uint32_t>& senders) {
        SlpCodec::Datagram datagram{};
        sockaddr_in peer{};
        socklen_t peerSize = sizeof peer;
        const ssize_t size = recvfrom(descriptor, datagram.data(), datagram.size(), MSG_DONTWAIT,
                                      Ipv4::Generic(peer), &peerSize);
        if (size < 0) {
            return false;
        }
        if (SlpCodec::DeclaredLength(datagram) != static_cast<std::size_t>(size)) {
            return true;
        }
        std::optional<SlpMessage> message = SlpCodec::Decode(datagram);
        auto* const reply = message ? std::get_if<SlpReply>(&*message) : nullptr;
        const std::uint32_t sender = ntohl(peer.sin_addr.s_addr);
        if (reply != nullptr && reply->attrList && reply->xid == xid_ && reply->errorCode == 0 &&
            (lists_.size() < kMaxBoxes || lists_.contains(sender))) {
            lists_.insert_or_assign(sender, std::move(*reply->attrList));
            senders.push_back(sender);
        }
        return true;
    }

    Sockets sockets_;
    std::vector<pollfd> polled_;
    std::uint16_t xid_ = static_cast<std::uint16_t>(std::random_device()());
    /// Attribute lists by the addresses of their boxes, as numbers.
    std::map<std::uint32_t, std::string> lists_;
    std::size_t known_ = 0;
    std::uint32_t lost_ = 0;
};

}  // namespace

std::vector<Box> Find(std::chrono::milliseconds wait,
                      const std::function<bool(const Box&)>& isEnough, int interruption,
                      bool mayTakeLonger) {
    constexpr int kQuarters = 4;
    constexpr int kHalf = kQuarters / 2;
    const int most = mayTakeLonger ? 2 * kQuarters : kQuarters;
    const Clock::time_point start = Clock::now();
    const auto endOf = [&](int quarter) { return start + wait * quarter / kQuarters; };
    Search search(interruption);
    search.Ask();
    for (int quarter = 1; quarter <= most; ++quarter) {
        if (!search.CollectUntil(endOf(quarter), isEnough)) {
            search.Ask();
            search.CollectUntil(std::min<Clock::time_point>(Clock::now() + kMoment, endOf(most)),
                                {});
            break;
        }
        // Also those that only a second question has reached tell that there are others.
        const bool isLater = search.TakeNew() > 0 && quarter > kHalf;
        const bool isIncomplete = search.TakeLost() > 0 || isLater;
        if (quarter == most || (quarter >= kQuarters && !isIncomplete)) {
            break;
        }
        if (isIncomplete || quarter == kHalf) {
            search.Ask();
        }
    }
    return search.Boxes();
}

std::optional<Box> Ask(const std::string& address, std::chrono::milliseconds wait) {
    const std::optional<in_addr> box = Ipv4::Parse(address);
    if (!box) {
        return std::nullopt;
    }
    constexpr int kNoInterruption = -1;
    Search search(kNoInterruption);
    search.AskOne(*box);
    const auto isIt = [&address](const Box& each) { return each.address == address; };
    search.CollectUntil(Clock::now() + wait, isIt);
    std::vector<Box> boxes = search.Boxes();
    const auto found = std::find_if(boxes.begin(), boxes.end(), isIt);
    return found == boxes.end() ? std::nullopt : std::optional(std::move(*found));
}

}  // namespace BoxFinder
