#include <arpa/inet.h>

#include "ModeSwitch.h"
#include "NetworkAttributes.h"
#include "NetworkBox.h"
#include "NetworkType.h"

namespace {

class ModeSwitchTest : public NetworkBox {
protected:
    ModeSwitchTest() {
        NetworkAttributes::Add(config_, [] { return ""; });
        NetworkType::Set(config_, NetworkType::kLan);
    }

    static void RecordAddressing(const std::string& tool, const std::string& script) {
        Record(tool, "ip -4 address flush dev eth0; " + script);
    }

    int Switch(long mode, const char* asked = "192.168.68.42") {
        return static_cast<int>(switch_.Run(mode, in_addr{inet_addr(asked)}, former_));
    }

    SetNet setNet_{context_};
    ModeSwitch switch_{context_, setNet_, [] {}};
    ModeSwitch::FormerAddress former_;
};

TEST_F(ModeSwitchTest, TheFormerAddressIsLentAsLongAsItIsHeld) {
    // Nothing counts any more for the mode of the next start, the mode that is in force does.
    mode_.Event(DiscoverModeCtrl::Trigger::kAssigning, DiscoverModeCtrl::kLinkLocal);
    mode_.Event(DiscoverModeCtrl::Trigger::kCommunicated);
    const std::tuple<long, const char*, std::string, std::string, int, unsigned> cases[] = {
        {3, "201", "/sbin/udhcpc", "10.7.7.7/8", 0, 3},
        {2, "3", "/sbin/zcip", "169.254.7.7/16", 0, 2},
        {3, "201", "/sbin/udhcpc", "192.168.7.7/16", 0, 3},
        {2, "3", "/sbin/zcip", "10.7.7.7/8", 19, 3},
        {1, "201", "/sbin/zcip", "169.254.7.7/16", 0, 2},
        {3, "201", "/sbin/udhcpc", "169.254.7.7/16", 19, 2},
        {1, "202", "", "10.7.7.7/8", 0, 1},
        {1, "3", "/sbin/udhcpc", "169.254.7.7/16", 0, 2}};
    Set("network.config.static.ip", "10.7.7.7");
    Set("network.config.static.netmask", "255.0.0.0");
    Set("network.config.static.gateway", "10.7.7.1");
    int label = 0;
    for (const auto& [mode, stored, tool, address, outcome, current] : cases) {
        SCOPED_TRACE(std::to_string(mode) + " " + address);
        Ip("-4 address flush dev eth0");
        Ip("address add 192.168.68.42/16 dev eth0");
        Set("network.config.discover.mode", stored);
        if (!tool.empty()) {
            RecordAddressing(tool, "ip address add " + address + " dev eth0");
        }
        EXPECT_EQ(Switch(mode), outcome);
        EXPECT_EQ(mode_.CurrentMode(), current);
        EXPECT_EQ(config_.Get("network.config.discover.mode"), stored);
        EXPECT_TRUE(Recorded().starts_with(tool));
        EXPECT_EQ(Addresses("eth0"),
                  address + " eth0\n192.168.68.42/16 eth0:" + std::to_string(label++) + "\n");
        former_.reset();
        EXPECT_EQ(Addresses("eth0"), address + " eth0\n");
    }
}

TEST_F(ModeSwitchTest, AnAddressThatIsNotLostIsNotLent) {
    RecordAddressing("/sbin/udhcpc", "ip address add 10.7.7.7/8 dev eth0");
    for (const char* asked : {"10.7.7.7", "0.0.0.0", "127.0.0.1", "127.8.8.8"}) {
        EXPECT_EQ(Switch(3, asked), 0);
        EXPECT_EQ(former_, nullptr) << asked;
    }
}

TEST_F(ModeSwitchTest, WithoutALeaseTheBoxIsStillToBeReached) {
    RecordAddressing("/sbin/udhcpc", "echo 'No lease, failing'");
    RecordAddressing("/sbin/zcip", "ip address add 169.254.7.7/16 dev eth0");
    EXPECT_EQ(Switch(3), 17);
    EXPECT_EQ(mode_.CurrentMode(), DiscoverModeCtrl::kLinkLocal);
    EXPECT_EQ(Addresses("eth0"), "169.254.7.7/16 eth0\n192.168.68.42/16 eth0:0\n");
    EXPECT_TRUE(
        Recorded().ends_with("/usr/bin/arping -b -c 1 -U -I eth0 0.0.0.0\n"
                             "/usr/bin/arping -b -c 1 -U -I eth0:0 0.0.0.0\n"));
}

}  // namespace
