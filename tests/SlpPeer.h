#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>

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
        std::thread([this] {
            const SocketGuard space(open("/run/netns/client", O_RDONLY | O_CLOEXEC));
            EXPECT_EQ(setns(space.Get(), CLONE_NEWNET), 0);
            socket_.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        }).join();
        const sockaddr_in any = Address("0.0.0.0", port);
        EXPECT_EQ(bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
        const timeval patience{30, 0};
        setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        const in_addr card = Address(kAddress, 0).sin_addr;
        const ip_mreq membership{Address("239.255.255.253", 0).sin_addr, card};
        EXPECT_EQ(setsockopt(socket_.Get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership,
                             sizeof membership),
                  0);
        // It has no route for groups.
        const std::string_view interface = "eth0";
        EXPECT_EQ(setsockopt(socket_.Get(), SOL_SOCKET, SO_BINDTODEVICE, interface.data(),
                             static_cast<socklen_t>(interface.size())),
                  0);
        const unsigned char off = 0;
        setsockopt(socket_.Get(), IPPROTO_IP, IP_MULTICAST_LOOP, &off, sizeof off);
    }

    void Send(const std::string& datagram, const char* to = kBoxAddress) {
        const sockaddr_in box = Address(to, 427);
        EXPECT_EQ(sendto(socket_.Get(), datagram.data(), datagram.size(), 0,
                         reinterpret_cast<const sockaddr*>(&box), sizeof box),
                  static_cast<ssize_t>(datagram.size()));
    }

    /// The next datagram, which must come from the box's SLP port; empty when none comes.
    std::string Receive() {
        std::array<char, 8192> datagram{};
        sockaddr_in from{};
        socklen_t size = sizeof from;
        const ssize_t received = recvfrom(socket_.Get(), datagram.data(), datagram.size(), 0,
                                          reinterpret_cast<sockaddr*>(&from), &size);
        if (received < 0) {
            ADD_FAILURE() << "nothing comes";
            return "";
        }
        EXPECT_EQ(from.sin_addr.s_addr, Address(kBoxAddress, 0).sin_addr.s_addr);
        EXPECT_EQ(ntohs(from.sin_port), 427);
        return {datagram.data(), static_cast<std::size_t>(received)};
    }

    std::string Ask(const std::string& datagram) {
        Send(datagram);
        return Receive();
    }

private:
    SocketGuard socket_;
};
