#include "WlanAtherosDevice.h"

#include <linux/sockios.h>

#include <array>
#include <cstdio>
#include <cstring>

// Clashes with <net/if.h> unless it comes behind it.
#include <linux/wireless.h>

#include "BusDevices.h"
#include "NetRequests.h"
#include "Shell.h"
#include "SupplicantNetwork.h"
#include "ZelLog.h"

namespace {

constexpr char kParentDevice[] = "wifi0";
constexpr char kDriver[] = "madwifi";
constexpr unsigned long kCloneRequest = SIOCDEVPRIVATE + 7;

/// What the madwifi driver takes for a new interface: ieee80211_clone_params.
struct CloneParameters {
    char name[IFNAMSIZ];
    std::uint16_t operatingMode;
    std::uint16_t flags;
    std::uint8_t bssid[6];
    std::uint8_t macAddress[6];
};
constexpr std::uint16_t kStation = 1;
constexpr std::uint16_t kParentBssid = 1;

NetStatus Run(const std::string& command) {
    std::string output;
    return Shell::RunSystemWithResult(output, "%s", command.c_str()) ? NetStatus::kDone
                                                                     : NetStatus::kFailed;
}

}  // namespace

WlanAtherosDevice::WlanAtherosDevice(const Context& context)
    : WlanDevice(kInterface, kDriver, context, "WlanAtherosDevice: ") {}

NetStatus WlanAtherosDevice::InitializeDriver(const WlanCountryCode::Country* country) {
    LogStep("Initialize wlan driver");
    if (!IsKnown(country) || !MakeDirectory(SupplicantNetwork::kDirectory)) {
        return NetStatus::kFailed;
    }
    const std::string options = "myregdomain=" + std::to_string(country->regulatoryDomain) +
                                " countrycode=" + std::to_string(country->countryCode) +
                                " regulatory=1";
    if (Shell::LoadModule("ath_mimo_pci", "/app/velka/wlan/sta/ath_mimo_pci.ko", options) != 0) {
        return NetStatus::kFailed;
    }
    return Run("echo 0 > /proc/sys/dev/wifi0/outdoor");
}

NetStatus WlanAtherosDevice::CreateInterface() {
    CloneParameters clone{};
    Name().copy(clone.name, sizeof clone.name - 1);
    clone.operatingMode = kStation;
    clone.flags = kParentBssid;
    ifreq request{};
    request.ifr_data = reinterpret_cast<char*>(&clone);
    return NetRequests::Send(kParentDevice, &request, kCloneRequest);
}

NetStatus WlanAtherosDevice::SetSsid() {
    std::string ssid = Values().ssid;
    iwreq wireless{};
    wireless.u.essid.pointer = ssid.data();
    wireless.u.essid.length = static_cast<std::uint16_t>(ssid.size() + 1);
    wireless.u.essid.flags = 1;
    ifreq request{};
    static_assert(sizeof wireless <= sizeof request);
    std::memcpy(&request, &wireless, sizeof wireless);
    return DoIo(&request, SIOCSIWESSID);
}

NetStatus WlanAtherosDevice::SetAntennaGain() {
    const std::string gain = Values().band == "1" ? "3" : "5";
    return Run("echo " + gain + "  > /proc/sys/dev/wifi0/antennagain");
}

NetStatus WlanAtherosDevice::SetBand() {
    const std::string command =
        "/sbin/iwpriv " + Name() + " mode " + (Values().band == "0" ? "11NG" : "11NA");
    // The driver takes the mode at the second time only.
    return Failed(Run(command)) ? NetStatus::kFailed : Run(command);
}

NetStatus WlanAtherosDevice::SetChainmaskAndBandwidth() {
    // Chains 0 and 2, management of the channel width, no background scans.
    constexpr const char* kSettings[] = {"rx_chainmask 5", "tx_chainmask 5", "cwmenable 1",
                                         "cwmmode 1", "bgscan 0"};
    for (const char* setting : kSettings) {
        if (Failed(Run("/sbin/iwpriv " + Name() + " " + setting))) {
            return NetStatus::kFailed;
        }
    }
    return NetStatus::kDone;
}

NetStatus WlanAtherosDevice::DoIo(ifreq* request, unsigned long code) {
    const NetStatus status = InterfaceRequest(request, code);
    ZEL_DEBUG("DoIo returned %d", static_cast<int>(status));
    if (status != NetStatus::kNoSuchDevice) {
        return status;
    }
    if (BusDevices::HasAtherosCard()) {
        ZEL_ERROR("Device only inactive");
        return NetStatus::kInactive;
    }
    return NetStatus::kNoCard;
}

std::string WlanAtherosDevice::GetMacAddress() {
    LogStep("Create wlan interface");
    if (Failed(CreateInterface())) {
        ZEL_ERROR("Create wlan interface failed");
        return "";
    }
    std::string address;
    static_cast<void>(NetRequests::ReadMacAddress(Name(), address));  // else empty
    return address;
}
