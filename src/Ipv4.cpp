#include "Ipv4.h"

#include <arpa/inet.h>

#include <array>

namespace Ipv4 {

std::string Dotted(in_addr address) {
    std::array<char, INET_ADDRSTRLEN> dotted{};
    return inet_ntop(AF_INET, &address, dotted.data(), dotted.size());
}

bool IsLinkLocal(std::string_view dotted) {
    return dotted.starts_with("169.254.");
}

bool IsHost(std::uint32_t address) {
    const std::uint32_t network = address >> IN_CLASSA_NSHIFT;
    return network != 0 && network != IN_LOOPBACKNET && !IN_MULTICAST(address) &&
           address != INADDR_BROADCAST;
}

}  // namespace Ipv4
