#pragma once

#include <string>

#include "ZelConfig.h"

/// What the kernel says about the box's network interfaces and routes.
namespace NetworkAttributes {

inline constexpr char kLanInterface[] = "eth0";

/// Registers "network.current.*". `wlanInterface` is empty on a box without WLAN. Addresses are
/// dotted; an interface without address, or no default route, gives no value. The link quality is
/// "0" when it is unknown.
void Add(ZelConfig& config, const std::string& wlanInterface);

/// Sets `out` to the hardware address, six two-digit hexadecimal bytes with colons between them.
/// False when there is no such interface.
bool ReadMacAddress(const std::string& interface, std::string& out);

}  // namespace NetworkAttributes
