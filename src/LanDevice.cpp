#include "LanDevice.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>

#include "NetworkAttributes.h"
#include "ZelLogging.h"

LanDevice::LanDevice(const Context& context)
    : NetDevice(NetworkAttributes::kLanInterface, context) {}

int LanDevice::HasLink() {
    ethtool_value link{};
    link.cmd = ETHTOOL_GLINK;
    ifreq request{};
    request.ifr_data = reinterpret_cast<char*>(&link);
    if (InterfaceRequest(&request, SIOCETHTOOL) != 0) {
        return 0;
    }
    ZEL_INFO("Lan is%s link", link.data != 0 ? "" : " not");
    return static_cast<int>(link.data);
}
