#include "NetworkAttributes.h"

#include <optional>

#include "Ipv4.h"
#include "NetRequests.h"

namespace NetworkAttributes {
namespace {

bool Put(const std::optional<in_addr>& address, std::string& out) {
    if (address) {
        out = Ipv4::Dotted(*address);
    }
    return address.has_value();
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
            return Put(NetRequests::ReadAddress(name(), code), out);
        });
    }
    config.Register("network.current.defaultgateway", [](const std::string&, std::string& out) {
        return Put(NetRequests::ReadDefaultGateway(), out);
    });
    config.Register("network.current.wlan.quality",
                    [wlanInterface](const std::string&, std::string& out) {
                        out = std::to_string(NetRequests::ReadLinkQuality(wlanInterface()));
                        return true;
                    });
}

}  // namespace NetworkAttributes
