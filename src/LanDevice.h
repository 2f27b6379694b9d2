#pragma once

#include "NetDevice.h"

/// The wired interface, "eth0".
class LanDevice : public NetDevice {
public:
    explicit LanDevice(const Context& context);

    /// Whether the cable is in and the other end alive (ETHTOOL_GLINK).
    int HasLink() override;
};
