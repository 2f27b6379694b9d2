#include "NetworkAttributes.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

// Clashes with <net/if.h> unless it comes behind it.
#include <linux/wireless.h>

#include "File.h"
#include "Ipv4.h"
#include "SocketGuard.h"

namespace NetworkAttributes {
namespace {

constexpr char kRouteFile[] = "/proc/net/route";

/// Sends a request about `interface` with the kernel's request structure of that kind.
template <typename Request>
bool Ask(const std::string& interface, unsigned long code, Request& request, char* name) {
    if (interface.empty() || interface.size() >= IFNAMSIZ) {
        return false;
    }
    std::memcpy(name, interface.c_str(), interface.size() + 1);
    const SocketGuard socketGuard(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return socketGuard.Get() >= 0 && ioctl(socketGuard.Get(), code, &request) == 0;
}

/// `code` asks for the address or the net mask; both answers lie in the same place.
bool ReadAddress(const std::string& interface, unsigned long code, std::string& out) {
    ifreq request{};
    if (!Ask(interface, code, request, request.ifr_name)) {
        return false;
    }
    sockaddr_in address{};
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    out = Ipv4::Dotted(address.sin_addr);
    return true;
}

bool ProvideDefaultGateway(const std::string& /*key*/, std::string& out) {
    const File file = OpenToRead(kRouteFile);
    if (!file) {
        return false;
    }
    // NOLINTBEGIN(cert-err34-c): the flags are not used
    static_cast<void>(std::fscanf(file.get(), "%*[^\n]\n"));
    std::array<char, 16> interface {};
    std::array<char, 16> destination{};
    std::array<char, 16> gateway{};
    int flags = 0;
    while (std::fscanf(file.get(), "%15s %15s %15s %i %*s %*s %*s %*s %*s %*s %*s\n",
                       interface.data(), destination.data(), gateway.data(), &flags) == 4) {
        if (std::string_view(destination.data()) == "00000000") {
            // The kernel prints the address word as it lies in memory.
            constexpr int kHexadecimal = 16;
            in_addr address{};
            const char* end = gateway.data() + std::strlen(gateway.data());
            if (std::from_chars(gateway.data(), end, address.s_addr, kHexadecimal).ec !=
                std::errc()) {
                return false;
            }
            out = Ipv4::Dotted(address);
            return true;
        }
    }
    // NOLINTEND(cert-err34-c)
    return false;
}

std::string LinkQuality(const std::string& interface) {
    iwreq request{};
    iw_statistics statistics{};
    request.u.data.pointer = &statistics;
    request.u.data.length = sizeof statistics;
    const bool answered = Ask(interface, SIOCGIWSTATS, request, request.ifr_name);
    return std::to_string(answered ? statistics.qual.qual : 0);
}

}  // namespace

void Add(ZelConfig& config, const InterfaceName& wlanInterface) {
    const InterfaceName lanInterface = [] { return kLanInterface; };
    const struct {
        const char* key;
        const InterfaceName& interface;
        unsigned long code;
    } addresses[] = {
        {"network.current.lan.ip", lanInterface, SIOCGIFADDR},
        {"network.current.lan.netmask", lanInterface, SIOCGIFNETMASK},
        {"network.current.wlan.ip", wlanInterface, SIOCGIFADDR},
        {"network.current.wlan.netmask", wlanInterface, SIOCGIFNETMASK},
    };
    for (const auto& [key, interface, code] : addresses) {
        config.Register(key, [name = interface, code = code](const std::string&, std::string& out) {
            return ReadAddress(name(), code, out);
        });
    }
    config.Register("network.current.defaultgateway", ProvideDefaultGateway);
    config.Register("network.current.wlan.quality",
                    [wlanInterface](const std::string&, std::string& out) {
                        out = LinkQuality(wlanInterface());
                        return true;
                    });
}

bool ReadMacAddress(const std::string& interface, std::string& out) {
    out.clear();
    ifreq request{};
    if (!Ask(interface, SIOCGIFHWADDR, request, request.ifr_name)) {
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

}  // namespace NetworkAttributes
