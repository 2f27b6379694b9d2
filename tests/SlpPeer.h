#pragma once

#include <fcntl.h>
#include <sched.h>

#include "SocketGuard.h"
#include "Support.h"

// SLP as the box's peers write it, built without the agent's codec.

/// Two bytes, big-endian.
inline std::string Word(std::size_t value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

/// Length and text.
inline std::string Text(const std::string& text) {
    return Word(text.size()) + text;
}

inline std::string Zeros(std::size_t count) {
    return std::string(count, '\0');
}

/// A whole message, its length field counting what it has.
inline std::string Message(std::uint8_t function, std::size_t xid, const std::string& body,
                           const std::string& language = "en") {
    const std::string rest = Zeros(5) + Word(xid) + Text(language) + body;
    return std::string("\x02") + static_cast<char>(function) + '\0' + Word(rest.size() + 5) + rest;
}

/// A UDP socket at the other end of the box's network cable.
class SlpPeer {
public:
    static constexpr char kAddress[] = "192.168.68.1";
    static constexpr char kBoxAddress[] = "192.168.68.42";

    explicit SlpPeer(std::uint16_t port) {
        std::thread([this, port] {
            const SocketGuard space(open("/run/netns/client", O_RDONLY | O_CLOEXEC));
            EXPECT_EQ(setns(space.Get(), CLONE_NEWNET), 0);
            socket_.Reset(OpenSocket(SOCK_DGRAM, "0.0.0.0", port));
        }).join();
        Set(IPPROTO_IP, IP_ADD_MEMBERSHIP,
            ip_mreq{Address("239.255.255.253", 0).sin_addr, Address(kAddress, 0).sin_addr});
        // It has no route for groups.
        Set(SOL_SOCKET, SO_BINDTODEVICE, std::array<char, 5>{"eth0"});
        Set(IPPROTO_IP, IP_MULTICAST_LOOP, 0);
    }

    void Send(const std::string& datagram, const char* to = kBoxAddress) {
        const sockaddr_in box = Address(to, 427);
        EXPECT_EQ(sendto(socket_.Get(), datagram.data(), datagram.size(), 0,
                         reinterpret_cast<const sockaddr*>(&box), sizeof box),
                  static_cast<ssize_t>(datagram.size()));
    }

    /// The next datagram, which must come from the box's SLP port; empty when none comes.
    std::string Receive() {
        std::string datagram(8192, '\0');
        sockaddr_in from{};
        socklen_t size = sizeof from;
        const ssize_t received = recvfrom(socket_.Get(), datagram.data(), datagram.size(), 0,
                                          reinterpret_cast<sockaddr*>(&from), &size);
        EXPECT_GE(received, 0) << "nothing comes";
        EXPECT_EQ(from.sin_addr.s_addr, Address(kBoxAddress, 0).sin_addr.s_addr);
        EXPECT_EQ(ntohs(from.sin_port), 427);
        return datagram.substr(0, static_cast<std::size_t>(std::max<ssize_t>(received, 0)));
    }

    std::string Ask(const std::string& datagram) {
        Send(datagram);
        return Receive();
    }

private:
    template <typename Value>
    void Set(int level, int option, const Value& value) {
        EXPECT_EQ(setsockopt(socket_.Get(), level, option, &value, sizeof value), 0) << option;
    }

    SocketGuard socket_;
};
