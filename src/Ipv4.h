#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// IPv4 addresses.
namespace Ipv4 {

/// The address as "192.168.68.42"; takes no memory.
std::string Dotted(in_addr address);

/// The address that a text is: four decimal numbers with dots between them. Nothing for others.
std::optional<in_addr> Parse(const std::string& dotted);

/// The address that a text is in any form that inet_aton accepts: "1.2.3.4", "1.2", "0x1020304",
/// "0". Nothing for others.
std::optional<in_addr> ParseAnyForm(const std::string& text);

/// One end of a connection, `port` in host byte order; and as the socket calls take it.
sockaddr_in SocketAddress(in_addr address, std::uint16_t port);
const sockaddr* Generic(const sockaddr_in& address);
sockaddr* Generic(sockaddr_in& address);

/// Whether a dotted address is link-local (RFC 3927).
bool IsLinkLocal(std::string_view dotted);

/// Whether an address, in host byte order, can be that of a host which others reach: not "this
/// host", a loopback address, a group or the broadcast (RFC 6890, section 2.2.2).
bool IsHost(std::uint32_t address);

}  // namespace Ipv4
