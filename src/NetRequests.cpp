#include "NetRequests.h"

#include <net/route.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string_view>

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

void FillIn(const std::string& interface, ifreq& request) {
    const InterfaceName name = CutName(interface);
    std::memcpy(request.ifr_name, name.data(), name.size());
}

/// A socket to send requests to the kernel through; the failure is logged.
int OpenRequestSocket() {
    const int opened = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (opened < 0) {
        ZEL_ERROR("Can't create socket because of '%s'", std::strerror(errno));
    }
    return opened;
}

/// `address` in network byte order.
sockaddr ToSocketAddress(in_addr_t address) {
    sockaddr_in internet{};
    internet.sin_family = AF_INET;
    internet.sin_addr.s_addr = address;
    sockaddr generic{};
    std::memcpy(&generic, &internet, sizeof generic);
    return generic;
}

rtentry MakeRoute(unsigned short flags, long long destination) {
    rtentry route{};
    route.rt_dst = ToSocketAddress(static_cast<in_addr_t>(destination));
    route.rt_flags = flags;
    return route;
}

}  // namespace

int Send(const std::string& interface, ifreq* request, unsigned long code) {
    if (request == nullptr) {
        return kRequestFailed;
    }
    FillIn(interface, *request);
    const SocketGuard socketGuard(OpenRequestSocket());
    if (socketGuard.Get() < 0) {
        return kNoSocket;
    }
    if (ioctl(socketGuard.Get(), code, request) != -1) {
        return 0;
    }
    switch (errno) {
        case ENODEV:
            ZEL_ERROR("errno: ERR_NO_SUCH_DEVICE");
            return kNoSuchDevice;
        case EOPNOTSUPP:
            ZEL_ERROR("errno: ERR_NOT_SUPPORTED");
            return kNotSupported;
        case EADDRNOTAVAIL:
            ZEL_ERROR("errno: EADDRNOTAVAIL -> %s", std::strerror(errno));
            return kAddressNotAvailable;
        default:
            ZEL_ERROR("errno: %d -> %s", errno, std::strerror(errno));
            return kRequestFailed;
    }
}

int SetAddress(const std::string& interface, in_addr_t address, unsigned long code) {
    ifreq request{};
    request.ifr_addr = ToSocketAddress(address);
    return Send(interface, &request, code);
}

int ChangeFlags(const std::string& interface, short set, short cleared, short& former) {
    ifreq request{};
    const int status = Send(interface, &request, SIOCGIFFLAGS);
    if (status != 0) {
        return status;
    }
    former = request.ifr_flags;
    request.ifr_flags = static_cast<short>((former | set) & ~cleared);
    return Send(interface, &request, SIOCSIFFLAGS);
}

in_addr_t ReadAddress(const std::string& interface) {
    ifreq request{};
    FillIn(interface, request);
    const SocketGuard socketGuard(OpenRequestSocket());
    if (socketGuard.Get() < 0 || ioctl(socketGuard.Get(), SIOCGIFADDR, &request) != 0) {
        return INADDR_ANY;
    }
    sockaddr_in address{};
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    return address.sin_addr.s_addr;
}

int AddRoute(const std::string& interface, unsigned short flags, const Route& route) {
    const SocketGuard socketGuard(OpenRequestSocket());
    if (socketGuard.Get() < 0) {
        return -1;
    }
    InterfaceName name = CutName(interface);
    rtentry entry = MakeRoute(flags, route.destination);
    entry.rt_gateway = ToSocketAddress(static_cast<in_addr_t>(route.gateway));
    entry.rt_genmask = ToSocketAddress(static_cast<in_addr_t>(route.mask));
    entry.rt_dev = name.data();
    if (ioctl(socketGuard.Get(), SIOCADDRT, &entry) == 0) {
        return 0;
    }
    const int error = errno;
    ZEL_ERROR("ioctl error: %d %s", error, std::strerror(error));
    // The route that is wanted may stand from an earlier start.
    return error == EEXIST ? 0 : -1;
}

int DeleteRoute(const std::string& interface, unsigned short flags, long long destination,
                long long gateway) {
    const SocketGuard socketGuard(OpenRequestSocket());
    if (socketGuard.Get() < 0) {
        return -1;
    }
    // What is not there need not be deleted.
    rtentry throughGateway = MakeRoute(flags, destination);
    throughGateway.rt_gateway = ToSocketAddress(static_cast<in_addr_t>(gateway));
    static_cast<void>(ioctl(socketGuard.Get(), SIOCDELRT, &throughGateway));
    InterfaceName name = CutName(interface);
    rtentry throughDevice = MakeRoute(kHostRoute, destination);
    throughDevice.rt_dev = name.data();
    static_cast<void>(ioctl(socketGuard.Get(), SIOCDELRT, &throughDevice));
    return 0;
}

int ReadGateway(const std::string& interface, long long& gateway) {
    std::ifstream file(kRouteFile);
    if (!file) {
        ZEL_ERROR("Can't open file because of '%s'", std::strerror(errno));
        return -1;
    }
    std::uint32_t found = 0;
    std::string line;
    while (std::getline(file, line)) {
        InterfaceName name{};
        std::array<char, 16> destination{};
        std::array<char, 16> word{};
        std::array<char, 16> flags{};
        if (std::sscanf(line.c_str(), "%15s %15s %15s %15s", name.data(), destination.data(),
                        word.data(), flags.data()) != 4) {
            continue;
        }
        ZEL_DEBUG("%s, %s, %s, %s", name.data(), destination.data(), word.data(), flags.data());
        // The flags are hexadecimal; their last decimal digit tells RTF_UP just as well.
        if (interface == name.data() && std::string_view(destination.data()) == "00000000" &&
            std::strtol(flags.data(), nullptr, 10) % 2 != 0) {
            // The address word as it lies in memory, in eight digits.
            constexpr std::size_t kDigits = 8;
            constexpr int kHexadecimal = 16;
            found = 0;
            std::from_chars(word.data(), word.data() + kDigits, found, kHexadecimal);
            ZEL_DEBUG("set %s %x", name.data(), found);
        }
    }
    ZEL_DEBUG("Gateway: %x", found);
    gateway = found;
    return 0;
}

}  // namespace NetRequests
