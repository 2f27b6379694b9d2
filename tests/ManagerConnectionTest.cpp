#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "ManagerConnection.h"
#include "OrsSignIn.h"
#include "Support.h"

namespace {

using namespace std::chrono_literals;
using Clock = ManagerConnection::Clock;
using Connections = std::vector<std::vector<std::string>>;

constexpr char kAddress[] = "127.0.0.1";

/// Accepts one connection after the other, and sends there one text after each request; then
/// `again` every now and then, or nothing more until the box closes it.
std::jthread StartManager(const Connections& connections, const std::string& again = "") {
    auto listener =
        std::make_shared<SocketGuard>(OpenSocket(SOCK_STREAM, kAddress, ManagerConnection::kPort));
    EXPECT_EQ(listen(listener->Get(), 1), 0);
    return std::jthread([listener, connections, again](const std::stop_token& stop) {
        for (const auto& texts : connections) {
            const SocketGuard box(accept(listener->Get(), nullptr, nullptr));
            std::string received(4096, '\0');
            for (std::size_t i = 0; recv(box.Get(), received.data(), received.size(), 0) > 0; ++i) {
                const std::string text = i < texts.size() ? texts[i] : "";
                send(box.Get(), text.data(), text.size(), MSG_NOSIGNAL);
                while (!again.empty() && !stop.stop_requested()) {
                    send(box.Get(), again.data(), again.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
                    std::this_thread::sleep_for(10ms);
                }
            }
        }
    });
}

TEST(ManagerConnectionTest, AnExchangeEndsInTimeWhateverTheManagerSends) {
    const struct {
        const char* name;
        const char* begin;
        std::string again;
        bool hasHead;
    } managers[] = {
        {"slow lines", "", "H", false},
        {"a slow body", "HTTP/1.0 200 OK\r\nContent-Length: 1000000\r\n\r\n", "b", true},
        {"endless blanks in chunk lines", "HTTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
         std::string(60000, ' ') + "1\r\nx\r\n", true},
    };
    for (const auto& manager : managers) {
        const std::jthread serving = StartManager({{manager.begin}}, manager.again);
        ManagerConnection connection(kAddress);
        HttpResponse response;
        const auto begin = Clock::now();
        EXPECT_EQ(connection.Exchange("<hello/>", response, begin + 1s), manager.hasHead)
            << manager.name;
        EXPECT_GT(Clock::now() - begin, 900ms) << manager.name;
        EXPECT_LT(Clock::now() - begin, 60s) << manager.name;
        EXPECT_FALSE(connection.Exchange("<again/>", response, begin + 1s)) << "no time is left";
    }
}

TEST(ManagerConnectionTest, AnAnswerIsTakenForItsOwnMessageOnly) {
    const std::string one(6000, '1');  // longer than what is received at once
    const std::string two(6000, '2');
    const std::string half = one.substr(0, 3000);
    const std::string head = "HTTP/1.0 200 OK\r\nContent-Length: 6000\r\n\r\n";
    const std::string provisional = "HTTP/1.1 100 Continue\r\n\r\n";
    const struct {
        const char* name;
        Clock::duration timeout;
        Connections connections;
        std::string first;
    } managers[] = {
        {"both at once", 300ms, {{"", head + one + head + one}, {head + two}}, one},
        {"one, then the other", 300ms, {{"", head + one, head + one}, {head + two}}, one},
        {"half a head", 300ms, {{head.substr(0, 25)}, {head + one, head + two}}, one},
        {"half a body", 60s, {{head + half, half + head + one}, {head + two}}, half},
        {"a provisional answer", 60s, {{provisional + head + one, head + two}}, one},
    };
    for (const auto& manager : managers) {
        const std::jthread serving = StartManager(manager.connections);
        ManagerConnection connection(kAddress);
        HttpResponse response;
        const auto exchange = [&](const char* message, Clock::duration time) {
            return connection.Exchange(message, response, Clock::now() + time);
        };
        EXPECT_TRUE(exchange("<one/>", manager.timeout) || exchange("<one/>", 60s));
        EXPECT_EQ(response.body, manager.first) << manager.name;
        connection.Settle(Clock::now() + 60s);
        EXPECT_TRUE(exchange("<two/>", 60s));
        EXPECT_EQ(response.body, two) << manager.name;
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
    OrsSignIn(config, reservation, mode).Run();
    EXPECT_TRUE(wasReserved);
    EXPECT_FALSE(reservation.IsReserved());
}

}  // namespace
