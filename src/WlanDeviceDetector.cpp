#include "WlanDeviceDetector.h"

#include "BusDevices.h"
#include "WlanAtherosDevice.h"
#include "WlanRalinkDevice.h"
#include "ZelLog.h"

WlanDeviceDetector::Adapter WlanDeviceDetector::Detect() const {
    if (BusDevices::HasAtherosCard()) {
        ZEL_INFO("* Found atheros wlan card");
        return Adapter::kAtheros;
    }
    if (BusDevices::HasRalinkCard()) {
        ZEL_INFO("* Found ralink wlan card");
        return Adapter::kRalink;
    }
    return Adapter::kNone;
}

std::unique_ptr<WlanDevice> WlanDeviceDetector::CreateDevice(
    const NetDevice::Context& context) const {
    const Adapter adapter = Detect();
    if (adapter == Adapter::kAtheros) {
        return std::make_unique<WlanAtherosDevice>(context);
    }
    if (adapter == Adapter::kRalink) {
        return std::make_unique<WlanRalinkDevice>(context);
    }
    return nullptr;
}

std::string WlanDeviceDetector::GetInterfaceName() const {
    const Adapter adapter = Detect();
    return adapter == Adapter::kAtheros  ? WlanAtherosDevice::kInterface
           : adapter == Adapter::kRalink ? WlanRalinkDevice::kInterface
                                         : "";
}
