#include "LanDevice.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <unistd.h>

#include "NetworkAttributes.h"
#include "ZelLog.h"

namespace {

constexpr std::chrono::milliseconds kPollInterval{100};

}  // namespace

LanDevice::LanDevice(const Context& context)
    : NetDevice(NetworkAttributes::kLanInterface, context) {}

int LanDevice::HasLink() {
    return AwaitLink({}, [] { return false; }) ? 1 : 0;
}

bool LanDevice::AwaitLinkAfterSetUp(const StopRequested& stopRequested) {
    return AwaitLink(TakeFreshlyUp() ? kSetUpTime : std::chrono::seconds{0}, stopRequested);
}

bool LanDevice::AwaitLink(std::chrono::milliseconds patience, const StopRequested& stopRequested) {
    int link = AskLink();
    for (auto polls = patience / kPollInterval; link == 0 && polls > 0 && !stopRequested();
         --polls) {
        usleep(std::chrono::microseconds(kPollInterval).count());
        link = AskLink();
    }
    if (link >= 0) {
        ZEL_INFO("Lan is%s link", link != 0 ? "" : " not");
    }
    return link > 0;
}

int LanDevice::AskLink() {
    ethtool_value link{};
    link.cmd = ETHTOOL_GLINK;
    ifreq request{};
    request.ifr_data = reinterpret_cast<char*>(&link);
    if (InterfaceRequest(&request, SIOCETHTOOL) != 0) {
        return -1;
    }
    return link.data != 0 ? 1 : 0;
}
