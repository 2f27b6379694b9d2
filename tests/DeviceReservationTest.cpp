#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>

#include "DeviceReservation.h"
#include "Shell.h"

namespace {

class DeviceReservationTest : public testing::Test {
protected:
    DeviceReservationTest() { config_.Set("zel.state.current", "4", ZelConfig::Kind::kFixed); }

    /// The packet filter's rules for incoming packets, one a line.
    static std::string Rules() {
        std::string rules;
        EXPECT_TRUE(Shell::RunSystemWithResult(rules, "/sbin/iptables -S INPUT | grep -v ^-P"));
        return rules;
    }

    static std::string RulesFor(const std::string& source) {
        std::string rules;
        for (const char* port : {"6801", "6802", "52410", "52411"}) {
            rules += "-A INPUT " + source + "-p tcp -m tcp --dport " + port + " -j ACCEPT\n";
        }
        return rules;
    }

    static std::string Forwarding() {
        std::string value;
        ReadFirstLine("/proc/sys/net/ipv4/ip_forward", value);
        return value;
    }

    ZelConfig config_;
    DeviceReservation reservation_{config_};
};

TEST_F(DeviceReservationTest, WhatAReservationLeavesInTheBox) {
    std::string handle;
    ASSERT_TRUE(reservation_.Reserve("owner", "192.168.68.1", handle));
    EXPECT_TRUE(std::regex_match(handle, std::regex("-?[0-9]{1,19}"))) << handle;
    EXPECT_EQ(config_.Get("zel.state.handle"), handle);
    EXPECT_EQ(Forwarding(), "1");
    EXPECT_TRUE(std::filesystem::is_empty("/tmp/forceconnect"));
    EXPECT_TRUE(reservation_.Release(handle));
    EXPECT_EQ(config_.Get("zel.state.handle"), "");
    EXPECT_EQ(Forwarding(), "0");
    EXPECT_FALSE(reservation_.Release(""));
    EXPECT_FALSE(reservation_.ReleaseOwnedBy(""));

    reservation_.Stop();
    EXPECT_FALSE(reservation_.Reserve("owner", "0", handle));
}

TEST_F(DeviceReservationTest, ALockThatWasNeverSetIsNotCleared) {
    config_.Set("zel.state.current", "5", ZelConfig::Kind::kFixed);
    config_.Set("zel.state.handle", "1", ZelConfig::Kind::kFixed);
    std::ofstream("/proc/sys/net/ipv4/ip_forward") << "1\n";
    EXPECT_TRUE(reservation_.Release("1"));
    EXPECT_EQ(Forwarding(), "1");
}

TEST_F(DeviceReservationTest, HostLockIsWhateverTheSystemReadsAsAnAddress) {
    const struct {
        const char* hostLock;
        const char* stored;
        const char* source;
    } cases[] = {
        {"", "0.0.0.0", ""},
        {"0", "0.0.0.0", ""},
        {"127.0.0.1", "127.0.0.1", "-s 127.0.0.1/32 "},
        {"0x0a.1", "10.0.0.1", "-s 10.0.0.1/32 "},
        {"10.0.0.1; reboot", "255.255.255.255", "-s 255.255.255.255/32 "},
        {"workshop-pc", "255.255.255.255", "-s 255.255.255.255/32 "},
    };
    for (const auto& c : cases) {
        std::string handle;
        ASSERT_TRUE(reservation_.Reserve("owner", c.hostLock, handle)) << c.hostLock;
        EXPECT_EQ(config_.Get("zel.state.hostlock"), c.stored) << c.hostLock;
        EXPECT_EQ(Rules(), RulesFor(c.source)) << c.hostLock;
        ASSERT_TRUE(reservation_.Release(handle));
        EXPECT_EQ(Rules(), "") << c.hostLock;
    }
}

// All that can be known of a handle from outside is its second and the number of reservations.
TEST_F(DeviceReservationTest, HandlesOfOneSecondCannotBeTold) {
    std::set<std::string> handles;
    for (int i = 0; i < 10; ++i) {
        DeviceReservation fresh(config_);
        std::string handle;
        ASSERT_TRUE(fresh.Reserve("owner", "0", handle));
        handles.insert(handle);
        ASSERT_TRUE(fresh.Release(handle));
    }
    EXPECT_EQ(handles.size(), 10U);
}

}  // namespace
