#include <vector>

#include "NetworkBox.h"
#include "NetworkType.h"
#include "SetNet.h"

namespace {

class SetNetTest : public NetworkBox {
protected:
    /// Runs the bring-up for at most that many passes; `onPass` comes behind each.
    int RunPasses(int passes, const std::function<void(int)>& onPass) {
        int pass = 0;
        onPause = [&](std::chrono::microseconds pause) {
            if (pause == std::chrono::seconds(1)) {
                onPass(++pass);
            }
        };
        return SetNet(context_).SetUpNetwork([] { return false; }, passes);
    }

    static std::string Count(const std::string& line) {
        return Run("grep -c '" + line + "$' " + ZelLogging::kLogFile);
    }

    void AddWlan() {
        WriteFile("/proc/bus/usb/devices", "S:  Manufacturer=Ralink\n");
        AddInterface("ra0");
        SetWlan("104");
    }
};

TEST_F(SetNetTest, TheCableIsTakenWhenItHasALink) {
    AddWlan();
    Ip("link set eth0 down");
    EXPECT_EQ(RunPasses(1, [](int) { ADD_FAILURE(); }), 0);
    EXPECT_EQ(config_.Get(NetworkType::kKey), "0");
    EXPECT_NE(Recorded().find("-p /var/run/udhcpc_eth0.pid -i eth0 "), std::string::npos);
    EXPECT_FALSE(IsUp("ra0"));
}

TEST_F(SetNetTest, TheCableIsWaitedForThreePasses) {
    SetCable("down");
    const auto expectLog = [](int pass) {
        EXPECT_EQ(Count("No WLAN interface found"), std::to_string(std::max(pass - 3, 0)) + "\n");
    };
    EXPECT_EQ(RunPasses(5, expectLog), -1);
    EXPECT_EQ(Recorded(), "");
    EXPECT_EQ(RunPasses(3, [](int pass) { SetCable(pass == 2 ? "up" : "down"); }), 0);
    EXPECT_EQ(config_.Get(NetworkType::kKey), "0");
    EXPECT_EQ(LanDevice(context_).HasLink(), 1);
    Ip("link del eth0");
    EXPECT_EQ(LanDevice(context_).HasLink(), 0);
}

TEST_F(SetNetTest, TheLinkOfAnInterfaceThatWasSetUpIsWaitedFor) {
    AddWlan();
    Set("wlan.conf.infra.band", "none");
    SetCable("down");
    for (const bool comes : {true, false}) {
        Ip("link set eth0 down");
        std::filesystem::resize_file(ZelLogging::kLogFile, 0);
        std::vector<std::chrono::microseconds> waits(1);
        onPause = [&](std::chrono::microseconds pause) {
            if (pause == std::chrono::seconds(1)) {
                waits.emplace_back();
            } else if ((waits.back() += pause) == std::chrono::milliseconds(2900) &&
                       waits.size() == 5 && comes) {
                SetCable("up");
            }
        };
        // Every attempt for the WLAN takes the interface down.
        EXPECT_EQ(SetNet(context_).SetUpNetwork([] { return false; }, 5), comes ? 0 : -1);
        const auto limit = std::chrono::seconds(3);
        const auto last = comes ? std::chrono::milliseconds(2900) : limit;
        waits.resize(5);
        EXPECT_EQ(waits, (std::vector<std::chrono::microseconds>{limit, {}, {}, {}, last}));
        EXPECT_EQ(Count("Lan is not link") + Count("Lan is link"), comes ? "4\n1\n" : "5\n0\n");
        SetCable("down");
    }
}

TEST_F(SetNetTest, AStopEndsTheWaitForTheLink) {
    SetCable("down");
    Ip("link set eth0 down");
    int asked = 0;
    EXPECT_EQ(SetNet(context_).SetUpNetwork([&asked] { return ++asked > 3; }), -1);
    EXPECT_EQ(Count("Lan is not link") + Count("No network configured, restart initializing"),
              "1\n0\n");
}

TEST_F(SetNetTest, TheWlanIsTriedInEveryPassThen) {
    SetCable("down");
    AddWlan();
    Set("wlan.conf.infra.band", "none");
    const Supplicant supplicant("ra0", "wpa_state=COMPLETED\n");
    const auto onPass = [this](int pass) {
        EXPECT_EQ(IsUp("eth0"), pass <= 3) << pass;
        if (pass == 5) {
            EXPECT_EQ(Recorded(), "");
            Set("wlan.conf.infra.band", "0");
        }
    };
    EXPECT_EQ(RunPasses(6, onPass), 0);
    EXPECT_EQ(config_.Get(NetworkType::kKey), "1");
    EXPECT_TRUE(IsUp("ra0"));
    EXPECT_FALSE(IsUp("eth0"));
    EXPECT_EQ(Addresses("eth0"), "");
    EXPECT_TRUE(Recorded().ends_with(
        SupplicantCommand("-i ra0 -D wext") +
        "/sbin/udhcpc -s /etc/network/udhcpc.script -p /var/run/udhcpc_ra0.pid -i ra0 -n -t 3 -H "
        "TAVO -C -Svv\n/usr/bin/arping -b -c 1 -U -I ra0 0.0.0.0\n"));
}

}  // namespace
