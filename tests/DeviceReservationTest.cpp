#include <regex>
#include <set>

#include "DeviceReservation.h"
#include "Support.h"

namespace {

class DeviceReservationTest : public testing::Test {
protected:
    DeviceReservationTest() { config_.Set("zel.state.current", "4", ZelConfig::Kind::kFixed); }

    static constexpr char kForwarding[] = "/proc/sys/net/ipv4/ip_forward";
    ZelConfig config_;
    DeviceReservation reservation_{config_};
};

TEST_F(DeviceReservationTest, WhatAReservationLeavesInTheBox) {
    // A lock that was never set is not cleared.
    config_.Set("zel.state.current", "5", ZelConfig::Kind::kFixed);
    config_.Set("zel.state.handle", "1", ZelConfig::Kind::kFixed);
    WriteFile(kForwarding, "1\n");
    EXPECT_TRUE(reservation_.Release("1"));
    EXPECT_EQ(ReadFile(kForwarding), "1\n");

    std::string handle;
    ASSERT_TRUE(reservation_.Reserve("owner", "192.168.68.1", handle));
    EXPECT_TRUE(std::regex_match(handle, std::regex("-?[0-9]{1,19}"))) << handle;
    EXPECT_EQ(config_.Get("zel.state.handle"), handle);
    EXPECT_EQ(ReadFile(kForwarding), "1\n");
    EXPECT_TRUE(std::filesystem::is_empty("/tmp/forceconnect"));
    EXPECT_TRUE(reservation_.Release(handle));
    EXPECT_EQ(config_.Get("zel.state.handle"), "");
    EXPECT_EQ(ReadFile(kForwarding), "0\n");
    EXPECT_FALSE(reservation_.Release(""));
    EXPECT_FALSE(reservation_.ReleaseOwnedBy(""));
    const std::string owner(DeviceReservation::kMaxOwner + 1, 'o');
    ASSERT_TRUE(reservation_.Reserve(owner, "0", handle));
    EXPECT_TRUE(reservation_.ReleaseOwnedBy(owner));

    reservation_.Stop();
    EXPECT_FALSE(reservation_.Reserve("owner", "0", handle));
}

TEST_F(DeviceReservationTest, HostLockIsWhateverTheSystemReadsAsAnAddress) {
    for (const auto& [hostLock, stored, source] : Table<const char*, const char*, const char*>{
             {"", "0.0.0.0", ""},
             {"0", "0.0.0.0", ""},
             {"127.0.0.1", "127.0.0.1", "-s 127.0.0.1/32 "},
             {"0x0a.1", "10.0.0.1", "-s 10.0.0.1/32 "},
             {"10.0.0.1; reboot", "255.255.255.255", "-s 255.255.255.255/32 "},
             {"workshop-pc", "255.255.255.255", "-s 255.255.255.255/32 "}}) {
        SCOPED_TRACE(hostLock);
        std::string expected;
        for (const char* port : {"6801", "6802", "52410", "52411"}) {
            expected += std::string("-A INPUT ") + source + "-p tcp -m tcp --dport " + port +
                        " -j ACCEPT\n";
        }
        std::string handle;
        ASSERT_TRUE(reservation_.Reserve("owner", hostLock, handle));
        EXPECT_EQ(config_.Get("zel.state.hostlock"), stored);
        EXPECT_EQ(OutputOf("/sbin/iptables -S INPUT | grep -v ^-P"), expected);
        ASSERT_TRUE(reservation_.Release(handle));
        EXPECT_EQ(OutputOf("/sbin/iptables -S INPUT | grep -v ^-P"), "");
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
