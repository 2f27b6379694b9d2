#include "NetRequests.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/route.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

// Clashes with <net/if.h> unless it comes behind it.
#include <linux/wireless.h>

#include "Ipv4.h"
#include "Numbers.h"
#include "SocketGuard.h"
#include "SourceFile.h"
#include "ZelLog.h"

namespace NetRequests {
namespace {

constexpr char kRouteFile[] = "/proc/net/route";
constexpr unsigned short kHostRoute = RTF_UP | RTF_HOST;

using InterfaceName = std::array<char, IFNAMSIZ>;

InterfaceName CutName(const std::string& name) {
    InterfaceName cut{};
    name.copy(cut.data(), cut.size() - 1);
    return cut;
}

int OpenSocket() {
    return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

int OpenSocketOrLog() {
    const int opened = OpenSocket();
    if (opened < 0) {
        ZEL_ERROR("Can't create socket because of '%s'", std::strerror(errno));
    }
    return opened;
}

/// Fills the name into an ifreq or iwreq and sends it through the socket. False, with errno, when
/// the kernel refuses it.
template <typename Request>
bool Ask(int socket, const std::string& interface, unsigned long code, Request& request) {
    if (interface.empty()) {
        errno = ENODEV;  // the kernel says so, too, but looks for a module of that name first
        return false;
    }
    const InterfaceName name = CutName(interface);
    std::memcpy(&request, name.data(), name.size());
    return ioctl(socket, code, &request) != -1;
}

/// For the questions: one socket for all of them, made by the first for which there is one.
int KeptSocket() {
    static std::atomic<int> kept = -1;
    if (kept < 0) {
        SocketGuard opened(OpenSocket());
        int none = -1;
        if (kept.compare_exchange_strong(none, opened.Get())) {
            static_cast<void>(opened.Release());  // it lives as long as the process
        }
    }
    return kept;
}

/// The same as Ask() without a line in the log; without a socket, too, where no interface is named.
template <typename Request>
bool AskQuietly(const std::string& interface, unsigned long code, Request& request) {
    return !interface.empty() && Ask(KeptSocket(), interface, code, request);
}

sockaddr ToSocketAddress(in_addr_t address) {
    const sockaddr_in internet = Ipv4::SocketAddress({address}, 0);
    sockaddr generic{};
    std::memcpy(&generic, &internet, sizeof generic);
    return generic;
}

/// The address in an answer; all kinds of them lie in the same place.
in_addr AddressIn(const ifreq& answer) {
    sockaddr_in address{};
    std::memcpy(&address, &answer.ifr_addr, sizeof address);
    return address.sin_addr;
}

rtentry MakeRoute(unsigned short flags, in_addr_t destination) {
    rtentry route{};
    route.rt_dst = ToSocketAddress(destination);
    route.rt_flags = flags;
    return route;
}

/// The first words of a line of the kernel's table.
struct RouteLine {
    std::string_view interface;
    std::string_view destination;
    std::string_view gateway;
    std::string_view flags;

    bool IsDefault() const { return destination == "00000000"; }
    /// The kernel prints the address word as it lies in memory.
    std::optional<in_addr_t> Gateway() const {
        return Numbers::Parse<in_addr_t>(gateway, Numbers::kHexadecimal);
    }
};

std::string_view TakeWord(std::string_view& text) {
    const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
    const auto* const begin = std::find_if_not(text.begin(), text.end(), isBlank);
    const auto* const end = std::find_if(begin, text.end(), isBlank);
    text = {end, text.end()};
    return {begin, end};
}

/// Gives the lines of the kernel's table of routes, its heading among them, to `take` until that
/// returns false. False, with errno, when the table cannot be opened.
template <typename Take>
bool ReadRoutes(Take take) {
    static SourceFile file(kRouteFile);
    SourceFile::Reading reading(file);
    if (!reading.IsOpen()) {
        return false;
    }
    constexpr std::size_t kBlock = 4096;  // a line has 128 bytes
    std::array<char, kBlock> block;       // NOLINT(cppcoreguidelines-pro-type-member-init)
    std::size_t kept = 0;
    while (const std::size_t count = reading.Next(std::span(block).subspan(kept))) {
        std::string_view text(block.data(), kept + count);
        for (std::size_t end = 0; (end = text.find('\n')) != std::string_view::npos;) {
            std::string_view words = text.substr(0, end);
            RouteLine route;
            for (std::string_view* word :
                 {&route.interface, &route.destination, &route.gateway, &route.flags}) {
                *word = TakeWord(words);
            }
            if (!route.flags.empty() && !take(route)) {
                return true;
            }
            text.remove_prefix(end + 1);
        }
        kept = text.copy(block.data(), text.size());
    }
    return true;
}

}  // namespace

NetStatus Send(const std::string& interface, ifreq* request, unsigned long code) {
    if (request == nullptr) {
        return NetStatus::kRefused;
    }
    const SocketGuard socketGuard(OpenSocketOrLog());
    if (socketGuard.Get() < 0) {
        return NetStatus::kFailed;
    }
    if (Ask(socketGuard.Get(), interface, code, *request)) {
        return NetStatus::kDone;
    }
    switch (errno) {
        case ENODEV:
            ZEL_ERROR("errno: ERR_NO_SUCH_DEVICE");
            return NetStatus::kNoSuchDevice;
        case EOPNOTSUPP:
            ZEL_ERROR("errno: ERR_NOT_SUPPORTED");
            return NetStatus::kNotSupported;
        case EADDRNOTAVAIL:
            ZEL_ERROR("errno: EADDRNOTAVAIL -> %s", std::strerror(errno));
            return NetStatus::kAddressNotAvailable;
        default:
            ZEL_ERROR("errno: %d -> %s", errno, std::strerror(errno));
            return NetStatus::kRefused;
    }
}

NetStatus SetAddress(const std::string& interface, in_addr_t address, unsigned long code) {
    ifreq request{};
    request.ifr_addr = ToSocketAddress(address);
    return Send(interface, &request, code);
}

NetStatus ChangeFlags(const std::string& interface, short set, short cleared, short& former) {
    ifreq request{};
    if (const NetStatus status = Send(interface, &request, SIOCGIFFLAGS); Failed(status)) {
        return status;
    }
    former = request.ifr_flags;
    request.ifr_flags = static_cast<short>((former | set) & ~cleared);
    return Send(interface, &request, SIOCSIFFLAGS);
}

std::optional<bool> ReadLink(const std::string& interface) {
    ethtool_value link{};
    link.cmd = ETHTOOL_GLINK;
    ifreq request{};
    request.ifr_data = reinterpret_cast<char*>(&link);
    return Failed(Send(interface, &request, SIOCETHTOOL)) ? std::nullopt
                                                          : std::optional(link.data != 0);
}

in_addr_t ReadOwnAddress(const std::string& interface) {
    ifreq request{};
    const bool answered =
        Ask(SocketGuard(OpenSocketOrLog()).Get(), interface, SIOCGIFADDR, request);
    return answered ? AddressIn(request).s_addr : INADDR_ANY;
}

NetStatus AddRoute(const std::string& interface, unsigned short flags, const Route& route) {
    const SocketGuard socketGuard(OpenSocketOrLog());
    if (socketGuard.Get() < 0) {
        return NetStatus::kFailed;
    }
    InterfaceName name = CutName(interface);
    rtentry entry = MakeRoute(flags, route.destination);
    entry.rt_gateway = ToSocketAddress(route.gateway);
    entry.rt_genmask = ToSocketAddress(route.mask);
    entry.rt_dev = name.data();
    if (ioctl(socketGuard.Get(), SIOCADDRT, &entry) == 0) {
        return NetStatus::kDone;
    }
    const int error = errno;
    ZEL_ERROR("ioctl error: %d %s", error, std::strerror(error));
    // The route that is wanted may stand from an earlier start.
    return error == EEXIST ? NetStatus::kDone : NetStatus::kFailed;
}

NetStatus DeleteRoute(const std::string& interface, unsigned short flags, in_addr_t destination,
                      in_addr_t gateway) {
    const SocketGuard socketGuard(OpenSocketOrLog());
    if (socketGuard.Get() < 0) {
        return NetStatus::kFailed;
    }
    // What is not there need not be deleted.
    rtentry throughGateway = MakeRoute(flags, destination);
    throughGateway.rt_gateway = ToSocketAddress(gateway);
    static_cast<void>(ioctl(socketGuard.Get(), SIOCDELRT, &throughGateway));
    InterfaceName name = CutName(interface);
    rtentry throughDevice = MakeRoute(kHostRoute, destination);
    throughDevice.rt_dev = name.data();
    static_cast<void>(ioctl(socketGuard.Get(), SIOCDELRT, &throughDevice));
    return NetStatus::kDone;
}

NetStatus ReadGateway(const std::string& interface, in_addr_t& gateway) {
    in_addr_t found = 0;
    const bool isRead = ReadRoutes([&](const RouteLine& route) {
        ZEL_DEBUG("%s, %s, %s, %s", std::string(route.interface).c_str(),
                  std::string(route.destination).c_str(), std::string(route.gateway).c_str(),
                  std::string(route.flags).c_str());
        // The flags are hexadecimal; their last decimal digit tells RTF_UP just as well.
        if (route.interface == interface && route.IsDefault() &&
            Numbers::Leading(std::string(route.flags)) % 2 != 0) {
            found = route.Gateway().value_or(0);
            ZEL_DEBUG("set %s %x", interface.c_str(), found);
        }
        return true;
    });
    if (!isRead) {
        ZEL_ERROR("Can't open file because of '%s'", std::strerror(errno));
        return NetStatus::kFailed;
    }
    gateway = found;
    ZEL_DEBUG("Gateway: %x", gateway);
    return NetStatus::kDone;
}

std::optional<in_addr> ReadAddress(const std::string& interface, unsigned long code) {
    ifreq request{};
    return AskQuietly(interface, code, request) ? std::optional(AddressIn(request)) : std::nullopt;
}

std::optional<in_addr> ReadDefaultGateway() {
    std::optional<in_addr_t> gateway;
    static_cast<void>(ReadRoutes([&gateway](const RouteLine& route) {  // no table, no gateway
        gateway = route.IsDefault() ? route.Gateway() : std::nullopt;
        return !route.IsDefault();
    }));
    return gateway ? std::optional(in_addr{*gateway}) : std::nullopt;
}

bool ReadMacAddress(const std::string& interface, std::string& out) {
    out.clear();
    ifreq request{};
    if (!AskQuietly(interface, SIOCGIFHWADDR, request)) {
        return false;
    }
    std::array<unsigned char, 6> b{};
    std::memcpy(b.data(), request.ifr_hwaddr.sa_data, b.size());
    std::array<char, 18> text{};
    std::snprintf(text.data(), text.size(), "%.2x:%.2x:%.2x:%.2x:%.2x:%.2x", b[0], b[1], b[2], b[3],
                  b[4], b[5]);
    out = text.data();
    return true;
}

unsigned ReadLinkQuality(const std::string& interface) {
    iwreq request{};
    iw_statistics statistics{};
    request.u.data.pointer = &statistics;
    request.u.data.length = sizeof statistics;
    return AskQuietly(interface, SIOCGIWSTATS, request) ? statistics.qual.qual : 0;
}

}  // namespace NetRequests
