#pragma once

#include <memory>

#include "LanDevice.h"
#include "WlanDevice.h"

/// Brings the box onto the network: by cable, or by WLAN when the cable has no link.
class SetNet {
public:
    /// Asked while the link or the access point is waited for and between two passes of the
    /// bring-up; true ends it.
    using StopRequested = NetDevice::StopRequested;
    /// Number of passes that never end the bring-up.
    static constexpr int kWithoutEnd = 0;

    /// Looks for the WLAN adapter. The context outlives the object.
    explicit SetNet(const NetDevice::Context& context);
    virtual ~SetNet() = default;
    SetNet(const SetNet&) = delete;
    SetNet& operator=(const SetNet&) = delete;

    /// Makes passes, a second apart, until an interface is configured. Fails when it is asked to
    /// stop or has made `passes` of them first.
    NetStatus SetUpNetwork(const StopRequested& stopRequested, int passes = kWithoutEnd);

    /// One attempt to get onto the WLAN; takes the wired interface down.
    NetStatus SetUpWlan(const StopRequested& stopRequested);

    /// The WLAN adapter, null when the box has none.
    WlanDevice* Wlan() const { return wlan_.get(); }

private:
    NetDevice::Context context_;
    LanDevice lan_;
    std::unique_ptr<WlanDevice> wlan_;
};
