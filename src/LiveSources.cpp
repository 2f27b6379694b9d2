#include "LiveSources.h"

#include <string>

#include "SourceFile.h"

namespace {

constexpr char kUsbDevices[] = "/proc/bus/usb/devices";
constexpr char kOpticalBusId[] = "Vendor=103a ProdID=000b";

}  // namespace

const KvadVin* LiveSources::Vehicle() {
    if (!isVehicleRead_) {
        isVehicleRead_ = true;
        if (!vehicle_.emplace().Read()) {
            vehicle_.reset();
        }
    }
    return vehicle_ ? &*vehicle_ : nullptr;
}

bool LiveSources::HasOpticalBus() {
    if (!hasOpticalBus_) {
        static SourceFile devices(kUsbDevices);
        std::string text;
        hasOpticalBus_ = devices.ReadAll(text) && text.find(kOpticalBusId) != std::string::npos;
    }
    return *hasOpticalBus_;
}
