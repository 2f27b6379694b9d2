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
    switch (Detect()) {
        case Adapter::kAtheros:
            return std::make_unique<WlanAtherosDevice>(context);
        case Adapter::kRalink:
            return std::make_unique<WlanRalinkDevice>(context);
        case Adapter::kNone:
            break;
    }
    return nullptr;
}

std::string WlanDeviceDetector::GetInterfaceName() const {
    switch (Detect()) {
        case Adapter::kAtheros:
            return WlanAtherosDevice::kInterface;
        case Adapter::kRalink:
            return WlanRalinkDevice::kInterface;
        case Adapter::kNone:
            break;
    }
    return "";
}
