#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include "ManagerConnection.h"
#include "OrsSignIn.h"
#include "Support.h"

namespace {

using namespace std::chrono_literals;

constexpr char kAddress[] = "127.0.0.1";

/// Accepts one connection, sends `begin` there and then `again` every now and then.
std::jthread StartManager(const std::string& begin, const std::string& again) {
    auto listener = std::make_shared<SocketGuard>(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(listener->Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = Address(kAddress, ManagerConnection::kPort);
    EXPECT_EQ(bind(listener->Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    EXPECT_EQ(listen(listener->Get(), 1), 0);
    return std::jthread([listener, begin, again](const std::stop_token& stop) {
        const SocketGuard box(accept(listener->Get(), nullptr, nullptr));
        send(box.Get(), begin.data(), begin.size(), MSG_NOSIGNAL);
        while (!stop.stop_requested()) {
            send(box.Get(), again.data(), again.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            std::this_thread::sleep_for(10ms);
        }
    });
}

TEST(ManagerConnectionTest, AnExchangeEndsInTimeWhateverTheManagerSends) {
    const struct {
        const char* name;
        std::string begin;
        std::string again;
        bool hasHead;
    } managers[] = {
        {"slow lines", "", "H", false},
        {"a slow body", "HTTP/1.0 200 OK\r\nContent-Length: 1000000\r\n\r\n", "b", true},
        {"endless blanks in chunk lines", "HTTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
         std::string(60000, ' ') + "1\r\nx\r\n", true},
    };
    for (const auto& manager : managers) {
        const std::jthread serving = StartManager(manager.begin, manager.again);
        ManagerConnection connection(kAddress);
        HttpRequest response;
        const auto begin = ManagerConnection::Clock::now();
        EXPECT_EQ(connection.Exchange("<hello/>", response, begin + 1s), manager.hasHead)
            << manager.name;
        const auto taken = ManagerConnection::Clock::now() - begin;
        EXPECT_GT(taken, 900ms) << manager.name;
        EXPECT_LT(taken, 60s) << manager.name;
        EXPECT_FALSE(connection.Exchange("<again/>", response, begin + 1s)) << "no time is left";
    }
}

TEST(OrsSignInTest, LackOfMemoryLeavesTheBoxFree) {
    ZelConfig config;
    config.Set("zel.state.current", DeviceReservation::kFree, ZelConfig::Kind::kFixed);
    DeviceReservation reservation(config);
    DiscoverModeCtrl mode(config);
    bool wasReserved = false;
    config.Register("com.tembra.lusora.agent.impl.configuration.AgentConfiguration.ips.tmp",
                    [&](const std::string&, std::string&) -> bool {
                        wasReserved = reservation.IsReserved();
                        throw std::bad_alloc();
                    });
    EXPECT_FALSE(OrsSignIn(config, reservation, mode).Run());
    EXPECT_TRUE(wasReserved);
    EXPECT_FALSE(reservation.IsReserved());
}

}  // namespace
