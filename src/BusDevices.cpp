#include "BusDevices.h"

#include <fstream>
#include <string>

#include "ZelLog.h"

namespace BusDevices {
namespace {

bool IsListed(const char* path, const char* mark, const char* label) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        ZEL_DEBUG("%s: %s", label, line.c_str());
        if (line.find(mark) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool HasAtherosCard() {
    return IsListed("/proc/bus/pci/devices", "00c8", "pci.devices");
}

bool HasRalinkCard() {
    return IsListed("/proc/bus/usb/devices", "Manufacturer=Ralink", "usb.devices");
}

}  // namespace BusDevices
