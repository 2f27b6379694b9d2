#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <string_view>

/// IPv4 addresses.
namespace Ipv4 {

/// The address as "192.168.68.42"; takes no memory.
std::string Dotted(in_addr address);

/// Whether a dotted address is link-local (RFC 3927).
bool IsLinkLocal(std::string_view dotted);

/// Whether an address, in host byte order, can be that of a host which others reach: not "this
/// host", a loopback address, a group or the broadcast (RFC 6890, section 2.2.2).
bool IsHost(std::uint32_t address);

}  // namespace Ipv4
