#include "Ipv4.h"

#include <arpa/inet.h>

#include <array>
#include <bit>
#include <charconv>

namespace Ipv4 {

std::string Dotted(in_addr address) {
    std::array<char, INET_ADDRSTRLEN> dotted{};
    char* end = dotted.data();
    for (const unsigned char part : std::bit_cast<std::array<unsigned char, 4>>(address)) {
        if (end != dotted.data()) {
            *end++ = '.';
        }
        end = std::to_chars(end, dotted.data() + dotted.size(), part).ptr;
    }
    return {dotted.data(), end};
}

std::optional<in_addr> Parse(const std::string& dotted) {
    in_addr address{};
    return inet_pton(AF_INET, dotted.c_str(), &address) == 1 ? std::optional(address)
                                                             : std::nullopt;
}

std::optional<in_addr> ParseAnyForm(const std::string& text) {
    in_addr address{};
    return inet_aton(text.c_str(), &address) != 0 ? std::optional(address) : std::nullopt;
}

sockaddr_in SocketAddress(in_addr address, std::uint16_t port) {
    sockaddr_in end{};
    end.sin_family = AF_INET;
    end.sin_port = htons(port);
    end.sin_addr = address;
    return end;
}

const sockaddr* Generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

sockaddr* Generic(sockaddr_in& address) {
    return reinterpret_cast<sockaddr*>(&address);
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
