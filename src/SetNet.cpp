#include "SetNet.h"

#include <unistd.h>

#include "NetworkType.h"
#include "WlanDeviceDetector.h"
#include "ZelLog.h"

namespace {

constexpr int kPassesForLan = 3;

}  // namespace

SetNet::SetNet(const NetDevice::Context& context)
    : context_(context), lan_(context), wlan_(WlanDeviceDetectorEx().CreateDevice(context)) {}

int SetNet::SetUpNetwork(const StopRequested& stopRequested, int passes) {
    // Not refilled: once the cable has been waited for, every pass without link tries the WLAN.
    int budget = kPassesForLan;
    for (int pass = 1;; ++pass) {
        lan_.EnableInterface();
        if (wlan_) {
            wlan_->DisableInterface();
        }
        const bool hasLink = lan_.AwaitLinkAfterSetUp(stopRequested);
        if (stopRequested()) {
            return -1;
        }
        if (hasLink) {
            ZEL_DEBUG("Lan link detect, set ip address");
            if (lan_.ConfigureInterface() == 0) {
                ZEL_INFO("LAN interface configured, IP: %s",
                         context_.config.Get("network.current.lan.ip").c_str());
                NetworkType::Set(context_.config, NetworkType::kLan);
                return 0;
            }
        } else if (budget > 0) {
            --budget;
        } else {
            ZEL_DEBUG("No Lan link detect, try wlan");
            if (SetUpWlan(stopRequested) == 0) {
                return 0;
            }
            if (stopRequested()) {
                return -1;
            }
        }
        ZEL_ERROR("No network configured, restart initializing");
        sleep(1);
        if (stopRequested() || pass == passes) {
            return -1;
        }
    }
}

int SetNet::SetUpWlan(const StopRequested& stopRequested) {
    if (!wlan_) {
        ZEL_ERROR("No WLAN interface found");
        return -1;
    }
    lan_.DisableInterface();
    if (wlan_->Connect(stopRequested) != 0) {
        return -1;
    }
    ZEL_DEBUG("Connected to an access point, set ip address");
    if (wlan_->ConfigureInterface() != 0) {
        return -1;
    }
    ZEL_INFO("WLAN interface configured, IP: %s",
             context_.config.Get("network.current.wlan.ip").c_str());
    NetworkType::Set(context_.config, NetworkType::kWlan);
    return 0;
}
