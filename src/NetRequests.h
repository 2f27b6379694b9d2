#pragma once

#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <optional>
#include <string>

#include "NetStatus.h"

/// All that the kernel is asked and told about interfaces and routes, but for the list of them. An
/// interface is a name of the kernel, which is given its first 15 characters. Addresses are in
/// network byte order.
namespace NetRequests {

// Requests: a failure is logged.

/// Sends a request whose structure begins with an interface name, as ifreq and iwreq do; the name
/// is filled in.
NetStatus Send(const std::string& interface, ifreq* request, unsigned long code);

/// `code` is the request that takes an address of that kind.
NetStatus SetAddress(const std::string& interface, in_addr_t address, unsigned long code);

/// Sets `former` to the flags before the change.
NetStatus ChangeFlags(const std::string& interface, short set, short cleared, short& former);

/// Whether the cable is in and the other end alive (ETHTOOL_GLINK); nothing when it cannot be told.
[[nodiscard]] std::optional<bool> ReadLink(const std::string& interface);

/// The first address that the interface has under its very name, not under an alias label.
/// INADDR_ANY when it has none, or is not there, which is no failure.
[[nodiscard]] in_addr_t ReadOwnAddress(const std::string& interface);

/// The ends of a route.
struct Route {
    in_addr_t destination;
    in_addr_t gateway;
    in_addr_t mask;
};

/// Adds a route through the interface; one that is there already is no failure.
NetStatus AddRoute(const std::string& interface, unsigned short flags, const Route& route);

/// Deletes the route, and the host route to the destination through the interface. What is not
/// there is no failure.
NetStatus DeleteRoute(const std::string& interface, unsigned short flags, in_addr_t destination,
                      in_addr_t gateway);

/// Sets `gateway` to that of the interface's last default route, 0 when it has none.
NetStatus ReadGateway(const std::string& interface, in_addr_t& gateway);

// Questions that strangers ask by way of the box's attributes: nothing is logged.

/// The first address of the interface, or, with SIOCGIFNETMASK, its net mask.
[[nodiscard]] std::optional<in_addr> ReadAddress(const std::string& interface,
                                                 unsigned long code = SIOCGIFADDR);

/// The gateway of the first default route, whatever its interface.
[[nodiscard]] std::optional<in_addr> ReadDefaultGateway();

/// Sets `out` to the hardware address, six two-digit hexadecimal bytes with colons between them.
/// False when there is no such interface.
[[nodiscard]] bool ReadMacAddress(const std::string& interface, std::string& out);

/// The quality of a wireless link as its driver measures it, 0 when it is unknown.
[[nodiscard]] unsigned ReadLinkQuality(const std::string& interface);

}  // namespace NetRequests
