#include <linux/sockios.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <sstream>

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
            constexpr unsigned long kClone = 0x89F7;
            constexpr unsigned long kDestroy = 0x89F8;
            if (code != kClone && code != kDestroy && code != SIOCSIWESSID) {
                return {};
            }
            std::ofstream record("/tmp/commands", std::ios::app);
            record << std::hex << code << " " << request.ifr_name << " ";
            if (code == kClone) {
                Write(record, request.ifr_data, 32);
                AddInterface("ath0");
            } else if (code == kDestroy) {
                Run("ip link del ath0");
            } else {
                iwreq wireless{};
                std::memcpy(&wireless, &request, sizeof wireless);
                Write(record, wireless.u.essid.pointer, wireless.u.essid.length);
                record << " " << wireless.u.essid.flags;
            }
            record << "\n";
            return code == SIOCSIWESSID ? essidError_ : 0;
        };
    }

    static void Write(std::ostream& out, const void* data, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i) {
            out << std::setw(2) << std::setfill('0') << +static_cast<const std::uint8_t*>(data)[i];
        }
    }

    /// A number as it lies in memory.
    static std::string Native(std::uint16_t number) {
        std::ostringstream out;
        out << std::hex;
        Write(out, &number, sizeof number);
        return out.str();
    }

    int essidError_ = 0;
    WlanAtherosDevice device_{context_};
};

TEST_F(WlanAtherosTest, Connect) {
    const Supplicant supplicant("ath0", "wpa_state=COMPLETED\n");
    const std::pair<const char*, std::string> cases[] = {{"0", "/sbin/iwpriv ath0 mode 11NG\n"},
                                                         {"1", "/sbin/iwpriv ath0 mode 11NA\n"}};
    for (const auto& [band, mode] : cases) {
        SetWlan("104", band);
        EXPECT_EQ(device_.Connect(), 0);
        std::string expected =
            "89f8 ath0 \n"
            "/usr/sbin/insmod /app/velka/wlan/sta/ath_mimo_pci.ko myregdomain=55 countrycode=40 "
            "regulatory=1\n"
            "89f7 wifi0 61746830000000000000000000000000" +
            Native(1) + Native(1) +
            "000000000000000000000000\n"
            "8b1a ath0 776f726b73686f7000 1\n";
        expected += mode + mode;
        for (const char* setting :
             {"rx_chainmask 5", "tx_chainmask 5", "cwmenable 1", "cwmmode 1", "bgscan 0"}) {
            expected += std::string("/sbin/iwpriv ath0 ") + setting + "\n";
        }
        EXPECT_EQ(Recorded(), expected + SupplicantCommand("-i ath0 -D madwifi"));
        EXPECT_EQ(ReadFile("/proc/sys/dev/wifi0/outdoor"), "0\n");
        EXPECT_EQ(ReadFile("/proc/sys/dev/wifi0/antennagain"), *band == '0' ? "5\n" : "3\n");
        EXPECT_TRUE(IsUp("ath0"));
    }
}

TEST_F(WlanAtherosTest, AMissingInterfaceIsAnInactiveCardOrNone) {
    const std::tuple<int, const char*, int> cases[] = {{ENODEV, "168c0013\n168c00c8\n", -6},
                                                       {ENODEV, "168c0013\n", -7},
                                                       {EOPNOTSUPP, "168c0013\n", -3}};
    for (const auto& [error, list, status] : cases) {
        essidError_ = error;
        WriteFile(kPciDevices, list);
        EXPECT_EQ(device_.Connect(), status);
        EXPECT_TRUE(Recorded().ends_with("8b1a ath0 776f726b73686f7000 1\n"));
    }
}

TEST_F(WlanAtherosTest, TheMacAddressNeedsTheInterface) {
    const std::string address = device_.GetMacAddress();
    EXPECT_EQ(address + "\n", Run("ip -br link show ath0 | awk '{print $3}'"));
    answerRequest = [](unsigned long, const ifreq&) { return Answer(ENODEV); };
    EXPECT_EQ(device_.GetMacAddress(), "");
}

using WlanRalinkTest = NetworkBox;

TEST_F(WlanRalinkTest, TheLastSettingsOfTheFileAreThoseOfTheConnection) {
    AddInterface("ra0");
    WlanRalinkDevice device(context_);
    const Supplicant supplicant("ra0", "wpa_state=COMPLETED\n");
    const std::string insmod = "/usr/sbin/insmod /app/velka/wlan/ra/";
    Record("/usr/sbin/insmod", "basename $1 .ko >> /run/modules");
    WriteFile("/run/modules", "rtnet5572sta\n");
    WriteFile("/app/velka/wlan/ra/RT2870STA.dat", "Default\nWirelessMode=5\n");
    SetWlan("104");

    // No room for the copy, and then what a copy that was cut off has left.
    const std::string directory = "/etc/Wireless/RT2870STA/";
    std::filesystem::create_directories(directory);
    ASSERT_EQ(mount("full", directory.c_str(), "tmpfs", 0, "size=4k"), 0);
    WriteFile(directory + "filler", std::string(4096, 'x'));
    EXPECT_NE(device.Connect(), 0);
    EXPECT_FALSE(std::filesystem::exists(directory + "RT2870STA.dat"));
    EXPECT_EQ(umount(directory.c_str()), 0);
    EXPECT_EQ(Recorded(), "");
    WriteFile(directory + "RT2870STA.dat", "Default\nWire");

    EXPECT_EQ(device.Connect(), 0);
    EXPECT_EQ(Recorded(), insmod + "rtutil5572sta.ko\n" + insmod + "rt5572sta.ko\n" +
                              SupplicantCommand("-i ra0 -D wext"));
    SetWlan("104", "1");
    Set("country.code", "US");
    EXPECT_EQ(device.Connect(), 0);
    EXPECT_EQ(Recorded(), SupplicantCommand("-i ra0 -D wext"));
    EXPECT_EQ(ReadFile("/etc/Wireless/RT2870STA/RT2870STA.dat"),
              "Default\nWirelessMode=5\nCountryCode=AT\nWirelessMode=8\n"
              "CountryCode=US\nWirelessMode=9\n");
}

TEST_F(WlanRalinkTest, TheInterfaceIsUpWhileItsAddressIsRead) {
    AddInterface("ra0");
    WlanRalinkDevice device(context_);
    EXPECT_EQ(device.GetMacAddress() + "\n", Run("ip -br link show ra0 | awk '{print $3}'"));
    EXPECT_EQ(Recorded(), "/sbin/ifconfig ra0 up\n/sbin/ifconfig ra0 down\n");
}

using WlanDeviceDetectorTest = NetworkBox;

TEST_F(WlanDeviceDetectorTest, ThePciCardIsPreferred) {
    const std::string ralink = "P:\nS:  Manufacturer=Ralink\n";
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"0013\n", "S:  Manufacturer=Other\n", ""},
        {"0013\n", ralink, "ra0"},
        {"0013\n00c8\n", ralink, "ath0"}};
    for (const auto& [pci, usb, interface] : cases) {
        WriteFile(kPciDevices, pci);
        WriteFile("/proc/bus/usb/devices", usb);
        EXPECT_EQ(WlanDeviceDetector().GetInterfaceName(), interface);
        const auto device = WlanDeviceDetector().CreateDevice(context_);
        EXPECT_EQ(device ? device->Name() : "", interface);
    }
}

}  // namespace
