#pragma once

#include <functional>
#include <memory>

#include "LanDevice.h"
#include "WlanDevice.h"

/// Brings the box onto the network: by cable, or by WLAN when the cable has no link.
class SetNet {
public:
    /// Asked between two passes of the bring-up; true ends it.
    using StopRequested = std::function<bool()>;

    /// Looks for the WLAN adapter. The context outlives the object.
    explicit SetNet(const NetDevice::Context& context);
    virtual ~SetNet() = default;
    SetNet(const SetNet&) = delete;
    SetNet& operator=(const SetNet&) = delete;

    /// Tries once a second until an interface is configured. Returns 0 then, or -1 when it was
    /// asked to stop before.
    int SetUpNetwork(const StopRequested& stopRequested);

    /// One attempt to get onto the WLAN; takes the wired interface down. Returns 0 or -1.
    int SetUpWlan();

    /// The WLAN adapter, null when the box has none.
    WlanDevice* Wlan() const { return wlan_.get(); }

private:
    NetDevice::Context context_;
    LanDevice lan_;
    std::unique_ptr<WlanDevice> wlan_;
};
