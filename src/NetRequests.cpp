#include "NetRequests.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/route.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

// Clashes with <net/if.h> unless it comes behind it.
#include <linux/wireless.h>

#include "Ipv4.h"
#include "Numbers.h"
#include "SocketGuard.h"
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
bool Ask(const SocketGuard& socketGuard, const std::string& interface, unsigned long code,
         Request& request) {
    if (interface.empty()) {
        errno = ENODEV;  // the kernel says so, too, but looks for a module of that name first
        return false;
    }
    const InterfaceName name = CutName(interface);
    std::memcpy(&request, name.data(), name.size());
    return ioctl(socketGuard.Get(), code, &request) != -1;
}

/// The same without a line in the log; without a socket, too, where no interface is named.
template <typename Request>
bool AskQuietly(const std::string& interface, unsigned long code, Request& request) {
    return !interface.empty() && Ask(SocketGuard(OpenSocket()), interface, code, request);
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
    std::string interface;
    std::string destination;
    std::string gateway;
    std::string flags;

    bool IsDefault() const { return destination == "00000000"; }
    /// The kernel prints the address word as it lies in memory.
    std::optional<in_addr_t> Gateway() const {
        return Numbers::Parse<in_addr_t>(gateway, Numbers::kHexadecimal);
    }
};

/// The kernel's table of routes with its heading. Nothing, with errno, when it cannot be opened.
std::optional<std::vector<RouteLine>> ReadRoutes() {
    std::ifstream file(kRouteFile);
    if (!file) {
        return std::nullopt;
    }
    std::vector<RouteLine> routes;
    std::string line;
    while (std::getline(file, line)) {
        RouteLine route;
        if (std::istringstream(line) >> route.interface >> route.destination >> route.gateway >>
            route.flags) {
            routes.push_back(route);
        }
    }
    return routes;
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
    if (Ask(socketGuard, interface, code, *request)) {
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
    const bool answered = Ask(SocketGuard(OpenSocketOrLog()), interface, SIOCGIFADDR, request);
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
    const auto routes = ReadRoutes();
    if (!routes) {
        ZEL_ERROR("Can't open file because of '%s'", std::strerror(errno));
        return NetStatus::kFailed;
    }
    gateway = 0;
    for (const RouteLine& route : *routes) {
        ZEL_DEBUG("%s, %s, %s, %s", route.interface.c_str(), route.destination.c_str(),
                  route.gateway.c_str(), route.flags.c_str());
        // The flags are hexadecimal; their last decimal digit tells RTF_UP just as well.
        if (route.interface == interface && route.IsDefault() &&
            Numbers::Leading(route.flags) % 2 != 0) {
            gateway = route.Gateway().value_or(0);
            ZEL_DEBUG("set %s %x", interface.c_str(), gateway);
        }
    }
    ZEL_DEBUG("Gateway: %x", gateway);
    return NetStatus::kDone;
}

std::optional<in_addr> ReadAddress(const std::string& interface, unsigned long code) {
    ifreq request{};
    return AskQuietly(interface, code, request) ? std::optional(AddressIn(request)) : std::nullopt;
}

std::optional<in_addr> ReadDefaultGateway() {
    for (const RouteLine& route : ReadRoutes().value_or(std::vector<RouteLine>())) {
        if (route.IsDefault()) {
            const std::optional<in_addr_t> gateway = route.Gateway();
            return gateway ? std::optional(in_addr{*gateway}) : std::nullopt;
        }
    }
    return std::nullopt;
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
