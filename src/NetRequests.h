#pragma once

#include <net/if.h>
#include <netinet/in.h>

#include <string>

/// Every request to the kernel that changes an interface or its routes. An interface is a name of
/// the kernel, which is given its first 15 characters. Operations return 0 or a negative status;
/// failures are logged.
namespace NetRequests {

// Statuses.
inline constexpr int kNoSocket = -1;
inline constexpr int kNoSuchDevice = -2;
inline constexpr int kNotSupported = -3;
inline constexpr int kAddressNotAvailable = -4;
inline constexpr int kRequestFailed = -5;

/// Sends a request whose structure begins with an interface name, as ifreq and iwreq do; the name
/// is filled in.
int Send(const std::string& interface, ifreq* request, unsigned long code);

/// `code` is the request that takes an address of that kind; `address` is in network byte order.
int SetAddress(const std::string& interface, in_addr_t address, unsigned long code);

/// Sets `former` to the flags before the change.
int ChangeFlags(const std::string& interface, short set, short cleared, short& former);

/// The first IPv4 address that the interface has under its very name, not under an alias label, in
/// network byte order. INADDR_ANY when it has none, which is no failure.
in_addr_t ReadAddress(const std::string& interface);

/// The ends of a route, in the lower 32 bits and network byte order.
struct Route {
    long long destination;
    long long gateway;
    long long mask;
};

/// Adds a route through the interface; one that is there already is no failure.
int AddRoute(const std::string& interface, unsigned short flags, const Route& route);

/// Deletes the route, and the host route to the destination through the interface. What is not
/// there is no failure.
int DeleteRoute(const std::string& interface, unsigned short flags, long long destination,
                long long gateway);

/// Sets `gateway` to that of the interface's last default route, 0 when it has none.
int ReadGateway(const std::string& interface, long long& gateway);

}  // namespace NetRequests
