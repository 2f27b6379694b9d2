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
        Set("network.config.static.ip", "10.7.7.7");
        Set("network.config.static.netmask", "255.0.0.0");
        Set("network.config.static.gateway", "10.7.7.1");
    }

    static void RecordAddressing(const std::string& tool, const std::string& script) {
        Record(tool, "ip -4 address flush dev eth0; " + script);
    }

    ModeSwitch::Outcome Switch(long mode, const char* asked = "192.168.68.42") {
        return switch_.Run(mode, in_addr{inet_addr(asked)}, former_);
    }

    SetNet setNet_{context_};
    ModeSwitch switch_{context_, setNet_, [] {}};
    ModeSwitch::FormerAddress former_;
};

TEST_F(ModeSwitchTest, TheFormerAddressIsAnAliasAsLongAsItIsHeld) {
    using enum AddressMode;
    using enum ModeSwitch::Outcome;
    // Nothing counts any more for the mode of the next start, the mode that is in force does.
    mode_.Event(DiscoverModeCtrl::Trigger::kAssigning, kLinkLocal);
    mode_.Event(DiscoverModeCtrl::Trigger::kCommunicated);
    const std::tuple<long, const char*, std::string, std::string, ModeSwitch::Outcome, AddressMode>
        cases[] = {{3, "201", "/sbin/udhcpc", "10.7.7.7/8", kDone, kDhcp},
                   {2, "3", "/sbin/zcip", "169.254.7.7/16", kDone, kLinkLocal},
                   {3, "201", "/sbin/udhcpc", "192.168.7.7/16", kDone, kDhcp},
                   {2, "3", "/sbin/zcip", "10.7.7.7/8", kNotConfirmed, kDhcp},
                   {1, "201", "/sbin/zcip", "169.254.7.7/16", kDone, kLinkLocal},
                   {3, "201", "/sbin/udhcpc", "169.254.7.7/16", kNotConfirmed, kLinkLocal},
                   {1, "202", "", "10.7.7.7/8", kDone, kStatic},
                   {1, "3", "/sbin/udhcpc", "169.254.7.7/16", kDone, kLinkLocal}};
    int label = 0;
    for (const auto& [mode, stored, tool, address, outcome, current] : cases) {
        SCOPED_TRACE(std::to_string(mode) + " " + address);
        Ip("-4 address flush dev eth0");
        Ip("address add 192.168.68.42/16 dev eth0");
        Set(StoreKeys::kAddressMode, stored);
        if (!tool.empty()) {
            RecordAddressing(tool, "ip address add " + address + " dev eth0");
        }
        EXPECT_EQ(Switch(mode), outcome);
        EXPECT_EQ(mode_.CurrentMode(), current);
        EXPECT_EQ(config_.Get(StoreKeys::kAddressMode), stored);
        EXPECT_TRUE(Recorded().starts_with(tool));
        EXPECT_EQ(Addresses("eth0"),
                  address + " eth0\n192.168.68.42/16 eth0:" + std::to_string(label++) + "\n");
        former_.reset();
        EXPECT_EQ(Addresses("eth0"), address + " eth0\n");
    }
    for (const char* asked : {"169.254.7.7", "0.0.0.0", "127.0.0.1", "127.8.8.8"}) {
        EXPECT_EQ(Switch(1, asked), kDone);
        EXPECT_EQ(former_, nullptr) << asked << " is not lost";
    }
}

TEST_F(ModeSwitchTest, WithoutALeaseTheBoxIsStillToBeReached) {
    RecordAddressing("/sbin/udhcpc", "echo 'No lease, failing'");
    RecordAddressing("/sbin/zcip", "ip address add 169.254.7.7/16 dev eth0");
    EXPECT_EQ(Switch(3), ModeSwitch::Outcome::kFailed);
    EXPECT_EQ(mode_.CurrentMode(), AddressMode::kLinkLocal);
    EXPECT_EQ(Addresses("eth0"), "169.254.7.7/16 eth0\n192.168.68.42/16 eth0:0\n");
    EXPECT_TRUE(
        Recorded().ends_with("/usr/bin/arping -b -c 1 -U -I eth0 0.0.0.0\n"
                             "/usr/bin/arping -b -c 1 -U -I eth0:0 0.0.0.0\n"));
}

}  // namespace
