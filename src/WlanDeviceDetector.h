#pragma once

#include <memory>

#include "WlanDevice.h"

/// Finds out which WLAN adapter the box carries, from the kernel's device lists. Every operation
/// looks anew.
class WlanDeviceDetector {
public:
    enum class Adapter { kAtheros = 0, kRalink = 1, kNone = 2 };

    virtual ~WlanDeviceDetector() = default;

    /// The PCI list is looked at first.
    [[nodiscard]] Adapter Detect() const;

    /// The device of the adapter that is there, null without one.
    [[nodiscard]] std::unique_ptr<WlanDevice> CreateDevice(const NetDevice::Context& context) const;

    /// Name of that device's interface, empty without an adapter.
    [[nodiscard]] std::string GetInterfaceName() const;
};

class WlanDeviceDetectorEx : public WlanDeviceDetector {};
