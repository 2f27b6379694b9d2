#include <sys/mount.h>

#include <cerrno>
#include <cstring>

#include "NetworkBox.h"
#include "WlanAtherosDevice.h"
#include "WlanDeviceDetector.h"
#include "WlanRalinkDevice.h"

// Clashes with <net/if.h> unless it comes behind it.
#include <linux/wireless.h>

namespace {

constexpr char kPciDevices[] = "/proc/bus/pci/devices";

/// A madwifi driver: "ath0" exists between a clone and a destroy request. Its requests are written
/// down among the command lines.
class WlanAtherosTest : public NetworkBox {
protected:
    WlanAtherosTest() {
        WriteFile("/proc/sys/dev/wifi0/outdoor", "1\n");
        WriteFile("/proc/sys/dev/wifi0/antennagain", "");
        SetWlan("104");
        answerRequest = [this](unsigned long code, const ifreq& request) -> Answer {
            std::ofstream record("/tmp/commands", std::ios::app);
            if (code == 0x89F7) {
                struct {
                    char name[16];
                    std::uint16_t numbers[2];
                    char zeros[12];
                } clone{};
                std::memcpy(&clone, request.ifr_data, sizeof clone);
                EXPECT_EQ(std::string(clone.zeros, 12), std::string(12, '\0'));
                record << "clone " << request.ifr_name << " " << clone.name << " "
                       << clone.numbers[0] << " " << clone.numbers[1] << std::endl;
                AddInterface("ath0");
            } else if (code == 0x89F8) {
                record << "destroy " << request.ifr_name << std::endl;
                OutputOf("ip link del ath0");
            } else if (code == SIOCSIWESSID) {
                iwreq wireless{};
                std::memcpy(&wireless, &request, sizeof wireless);
                const auto& [pointer, length, flags] = wireless.u.essid;
                record << "essid " << request.ifr_name << " " << static_cast<char*>(pointer) << " "
                       << length << " " << flags << std::endl;
                return essidError_;
            } else {
                return {};
            }
            return 0;
        };
    }

    int essidError_ = 0;
    WlanAtherosDevice device_{context_};
};

TEST_F(WlanAtherosTest, Connect) {
    const Supplicant supplicant("ath0", "wpa_state=COMPLETED\n");
    for (const auto& [band, mode, gain] : Table<const char*, const char*, const char*>{
             {"0", "mode 11NG", "5\n"}, {"1", "mode 11NA", "3\n"}}) {
        SetWlan("104", band);
        EXPECT_EQ(device_.Connect(Never), NetStatus::kDone);
        std::string expected =
            "destroy ath0\n/usr/sbin/insmod /app/velka/wlan/sta/ath_mimo_pci.ko myregdomain=55 "
            "countrycode=40 regulatory=1\nclone wifi0 ath0 1 1\nessid ath0 workshop 9 1\n";
        for (const char* setting : {mode, mode, "rx_chainmask 5", "tx_chainmask 5", "cwmenable 1",
                                    "cwmmode 1", "bgscan 0"}) {
            expected += std::string("/sbin/iwpriv ath0 ") + setting + "\n";
        }
        EXPECT_EQ(Recorded(), expected + SupplicantCommand("-i ath0 -D madwifi"));
        EXPECT_EQ(ReadFile("/proc/sys/dev/wifi0/outdoor"), "0\n");
        EXPECT_EQ(ReadFile("/proc/sys/dev/wifi0/antennagain"), gain);
        EXPECT_TRUE(IsUp("ath0"));
    }
}

TEST_F(WlanAtherosTest, AMissingInterfaceIsAnInactiveCardOrNone) {
    for (const auto& [error, list, status] :
         Table<int, const char*, NetStatus>{{ENODEV, "168c0013\n168c00c8\n", NetStatus::kInactive},
                                            {ENODEV, "168c0013\n", NetStatus::kNoCard},
                                            {EOPNOTSUPP, "168c0013\n", NetStatus::kNotSupported}}) {
        essidError_ = error;
        WriteFile(kPciDevices, list);
        EXPECT_EQ(device_.Connect(Never), status);
        EXPECT_TRUE(Recorded().ends_with("essid ath0 workshop 9 1\n"));
    }
    Ip("link del ath0");
    const std::string address = device_.GetMacAddress();
    EXPECT_EQ(address + "\n", OutputOf("ip -br link show ath0 | awk '{print $3}'"));
    answerRequest = [](unsigned long, const ifreq&) { return Answer(ENODEV); };
    EXPECT_EQ(device_.GetMacAddress(), "");
}

using WlanRalinkTest = NetworkBox;

TEST_F(WlanRalinkTest, TheLastSettingsOfTheFileAreThoseOfTheConnection) {
    AddInterface("ra0");
    WlanRalinkDevice device(context_);
    const Supplicant supplicant("ra0", "wpa_state=COMPLETED\n");
    const std::string insmod = "/usr/sbin/insmod /app/velka/wlan/ra/";
    const std::string file = "/etc/Wireless/RT2870STA/RT2870STA.dat";
    Record("/usr/sbin/insmod", "basename $1 .ko >> /run/modules");
    WriteFile("/run/modules", "rtnet5572sta\n");
    WriteFile("/app/velka/wlan/ra/RT2870STA.dat", "Default\nWirelessMode=5\n");
    SetWlan("104");

    // No room for the copy, and then what a copy that was cut off has left.
    const std::string directory = std::filesystem::path(file).parent_path();
    std::filesystem::create_directories(directory);
    ASSERT_EQ(mount("full", directory.c_str(), "tmpfs", 0, "size=4k"), 0);
    WriteFile(directory + "/filler", std::string(4096, 'x'));
    EXPECT_TRUE(Failed(device.Connect(Never)));
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_EQ(umount(directory.c_str()), 0);
    EXPECT_EQ(Recorded(), "");
    WriteFile(file, "Default\nWire");

    EXPECT_EQ(device.Connect(Never), NetStatus::kDone);
    EXPECT_EQ(Recorded(), insmod + "rtutil5572sta.ko\n" + insmod + "rt5572sta.ko\n" +
                              SupplicantCommand("-i ra0 -D wext"));
    SetWlan("104", "1");
    Set("country.code", "US");
    EXPECT_EQ(device.Connect(Never), NetStatus::kDone);
    EXPECT_EQ(Recorded(), SupplicantCommand("-i ra0 -D wext"));
    EXPECT_EQ(ReadFile(file),
              "Default\nWirelessMode=5\nCountryCode=AT\nWirelessMode=8\n"
              "CountryCode=US\nWirelessMode=9\n");

    // The interface is up while its address is read.
    EXPECT_EQ(device.GetMacAddress() + "\n", OutputOf("ip -br link show ra0 | awk '{print $3}'"));
    EXPECT_EQ(Recorded(), "/sbin/ifconfig ra0 up\n/sbin/ifconfig ra0 down\n");
}

using WlanDeviceDetectorTest = NetworkBox;

TEST_F(WlanDeviceDetectorTest, ThePciCardIsPreferred) {
    for (const auto& [pci, maker, interface] :
         Table<const char*, std::string, std::string>{{"0013\n", "Other", ""},
                                                      {"0013\n", "Ralink", "ra0"},
                                                      {"0013\n00c8\n", "Ralink", "ath0"}}) {
        WriteFile(kPciDevices, pci);
        WriteFile("/proc/bus/usb/devices", "P:\nS:  Manufacturer=" + maker + "\n");
        EXPECT_EQ(WlanDeviceDetector().GetInterfaceName(), interface);
        const auto device = WlanDeviceDetector().CreateDevice(context_);
        EXPECT_EQ(device ? device->Name() : "", interface);
    }
}

}  // namespace
