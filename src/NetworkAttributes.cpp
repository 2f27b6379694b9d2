#include "NetworkAttributes.h"

#include <optional>

#include "Ipv4.h"
#include "NetRequests.h"
#include "StoreKeys.h"

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
        {StoreKeys::kLanIp, lanInterface, SIOCGIFADDR},
        {StoreKeys::kLanNetmask, lanInterface, SIOCGIFNETMASK},
        {StoreKeys::kWlanIp, wlanInterface, SIOCGIFADDR},
        {StoreKeys::kWlanNetmask, wlanInterface, SIOCGIFNETMASK},
    };
    for (const auto& [key, interface, code] : addresses) {
        config.Register(key, [name = interface, code = code](const std::string&, std::string& out) {
            return Put(NetRequests::ReadAddress(name(), code), out);
        });
    }
    config.Register(StoreKeys::kDefaultGateway, [](const std::string&, std::string& out) {
        return Put(NetRequests::ReadDefaultGateway(), out);
    });
    config.Register(StoreKeys::kWlanQuality, [wlanInterface](const std::string&, std::string& out) {
        out = std::to_string(NetRequests::ReadLinkQuality(wlanInterface()));
        return true;
    });
}

}  // namespace NetworkAttributes
