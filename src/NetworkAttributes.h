#pragma once

#include <functional>
#include <string>

#include "ZelConfig.h"

/// What the store gets to know of the box's network interfaces and routes.
namespace NetworkAttributes {

inline constexpr char kLanInterface[] = "eth0";

/// Name of the WLAN interface, empty when there is none.
using InterfaceName = std::function<std::string()>;

/// Registers "network.current.*". `wlanInterface` is asked at every get of a WLAN value. Addresses
/// are dotted; an interface without address, or no default route, gives no value. The link quality
/// is "0" when it is unknown.
void Add(ZelConfig& config, const InterfaceName& wlanInterface);

}  // namespace NetworkAttributes
