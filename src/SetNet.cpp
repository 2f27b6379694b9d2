#include "SetNet.h"

#include <unistd.h>

#include "NetworkType.h"
#include "StoreKeys.h"
#include "WlanDeviceDetector.h"
#include "ZelLog.h"

namespace {

constexpr int kPassesForLan = 3;

}  // namespace

SetNet::SetNet(const NetDevice::Context& context)
    : context_(context), lan_(context), wlan_(WlanDeviceDetectorEx().CreateDevice(context)) {}

NetStatus SetNet::SetUpNetwork(const StopRequested& stopRequested, int passes) {
    // Not refilled: once the cable has been waited for, every pass without link tries the WLAN.
    int budget = kPassesForLan;
    for (int pass = 1;; ++pass) {
        // What an interface refuses here shows when it is used.
        static_cast<void>(lan_.EnableInterface());
        if (wlan_) {
            static_cast<void>(wlan_->DisableInterface());
        }
        const bool hasLink = lan_.AwaitLinkAfterSetUp(stopRequested);
        if (stopRequested()) {
            return NetStatus::kFailed;
        }
        if (hasLink) {
            ZEL_DEBUG("Lan link detect, set ip address");
            if (!Failed(lan_.ConfigureInterface())) {
                ZEL_INFO("LAN interface configured, IP: %s",
                         context_.config.Get(StoreKeys::kLanIp).c_str());
                NetworkType::Set(context_.config, NetworkType::kLan);
                return NetStatus::kDone;
            }
        } else if (budget > 0) {
            --budget;
        } else {
            ZEL_DEBUG("No Lan link detect, try wlan");
            if (!Failed(SetUpWlan(stopRequested))) {
                return NetStatus::kDone;
            }
            if (stopRequested()) {
                return NetStatus::kFailed;
            }
        }
        ZEL_ERROR("No network configured, restart initializing");
        sleep(1);
        if (stopRequested() || pass == passes) {
            return NetStatus::kFailed;
        }
    }
}

NetStatus SetNet::SetUpWlan(const StopRequested& stopRequested) {
    if (!wlan_) {
        ZEL_ERROR("No WLAN interface found");
        return NetStatus::kFailed;
    }
    static_cast<void>(lan_.DisableInterface());  // it has no link anyway
    if (Failed(wlan_->Connect(stopRequested))) {
        return NetStatus::kFailed;
    }
    ZEL_DEBUG("Connected to an access point, set ip address");
    if (Failed(wlan_->ConfigureInterface())) {
        return NetStatus::kFailed;
    }
    ZEL_INFO("WLAN interface configured, IP: %s", context_.config.Get(StoreKeys::kWlanIp).c_str());
    NetworkType::Set(context_.config, NetworkType::kWlan);
    return NetStatus::kDone;
}
