#include <vector>

#include "NetworkBox.h"
#include "NetworkType.h"
#include "SetNet.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

class SetNetTest : public NetworkBox {
protected:
    /// Runs the bring-up for at most that many passes; `onPass` comes behind each. How it ends.
    NetStatus RunPasses(int passes, const std::function<void(int)>& onPass) {
        onPause = [&onPass, pass = 0](microseconds pause) mutable {
            if (pause == seconds(1)) {
                onPass(++pass);
            }
        };
        return SetNet(context_).SetUpNetwork(Never, passes);
    }

    static int Count(const std::string& line) {
        return std::stoi(OutputOf("grep -c '" + line + "$' " + ZelLogging::kLogFile));
    }

    void AddWlan(const std::string& band) {
        WriteFile("/proc/bus/usb/devices", "S:  Manufacturer=Ralink\n");
        AddInterface("ra0");
        SetWlan("104", band);
    }
};

TEST_F(SetNetTest, TheCableIsWaitedForThreePasses) {
    SetCable("down");
    const auto expectLog = [](int pass) {
        EXPECT_EQ(Count("No WLAN interface found"), std::max(pass - 3, 0));
    };
    EXPECT_EQ(RunPasses(5, expectLog), NetStatus::kFailed);
    EXPECT_EQ(Recorded(), "");
    EXPECT_EQ(RunPasses(3, [](int pass) { SetCable(pass == 2 ? "up" : "down"); }),
              NetStatus::kDone);
    EXPECT_TRUE(LanDevice(context_).HasLink());
    Ip("link del eth0");
    EXPECT_FALSE(LanDevice(context_).HasLink());
}

TEST_F(SetNetTest, TheLinkOfAnInterfaceThatWasSetUpIsWaitedFor) {
    AddWlan("none");
    for (const bool comes : {true, false}) {
        SetCable("down");
        Ip("link set eth0 down");
        std::filesystem::resize_file(ZelLogging::kLogFile, 0);
        std::vector<microseconds> waits(1);
        onPause = [&](microseconds pause) {
            if (pause == seconds(1)) {
                waits.emplace_back();
            } else if ((waits.back() += pause) == milliseconds(2900) && waits.size() == 5 &&
                       comes) {
                SetCable("up");
            }
        };
        // Every attempt for the WLAN takes the interface down.
        EXPECT_EQ(SetNet(context_).SetUpNetwork(Never, 5),
                  comes ? NetStatus::kDone : NetStatus::kFailed);
        const microseconds last = comes ? milliseconds(2900) : seconds(3);
        waits.resize(5);
        EXPECT_EQ(waits, (std::vector<microseconds>{seconds(3), {}, {}, {}, last}));
        EXPECT_EQ(Count("Lan is not link"), comes ? 4 : 5);
        EXPECT_EQ(Count("Lan is link"), comes ? 1 : 0);
    }
}

TEST_F(SetNetTest, AStopEndsTheWaitForTheLink) {
    SetCable("down");
    Ip("link set eth0 down");
    int asked = 0;
    EXPECT_EQ(SetNet(context_).SetUpNetwork([&asked] { return ++asked > 3; }), NetStatus::kFailed);
    EXPECT_EQ(Count("Lan is not link"), 1);
    EXPECT_EQ(Count("No network configured, restart initializing"), 0);
}

TEST_F(SetNetTest, TheWlanIsTriedInEveryPassThen) {
    SetCable("down");
    AddWlan("none");
    const Supplicant supplicant("ra0", "wpa_state=COMPLETED\n");
    const auto onPass = [this](int pass) {
        EXPECT_EQ(IsUp("eth0"), pass <= 3) << pass;
        if (pass == 5) {
            EXPECT_EQ(Recorded(), "");
            Set("wlan.conf.infra.band", "0");
        }
    };
    EXPECT_EQ(RunPasses(6, onPass), NetStatus::kDone);
    EXPECT_EQ(config_.Get(StoreKeys::kNetworkType), NetworkType::kWlan);
    EXPECT_TRUE(IsUp("ra0"));
    EXPECT_FALSE(IsUp("eth0"));
    EXPECT_EQ(Addresses("eth0"), "");
    EXPECT_TRUE(Recorded().ends_with(
        SupplicantCommand("-i ra0 -D wext") +
        "/sbin/udhcpc -s /etc/network/udhcpc.script -p /var/run/udhcpc_ra0.pid -i ra0 -n -t 3 -H "
        "TAVO -C -Svv\n/usr/bin/arping -b -c 1 -U -I ra0 0.0.0.0\n"));
}

}  // namespace
