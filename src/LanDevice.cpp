#include "LanDevice.h"

#include <unistd.h>

#include <optional>

#include "NetworkAttributes.h"
#include "ZelLog.h"

namespace {

constexpr std::chrono::milliseconds kPollInterval{100};

}  // namespace

LanDevice::LanDevice(const Context& context)
    : NetDevice(NetworkAttributes::kLanInterface, context) {}

bool LanDevice::HasLink() {
    return AwaitLink({}, [] { return false; });
}

bool LanDevice::AwaitLinkAfterSetUp(const StopRequested& stopRequested) {
    return AwaitLink(TakeFreshlyUp() ? kSetUpTime : std::chrono::seconds{0}, stopRequested);
}

bool LanDevice::AwaitLink(std::chrono::milliseconds timeout, const StopRequested& stopRequested) {
    std::optional<bool> link = NetRequests::ReadLink(Name());
    for (auto polls = timeout / kPollInterval; link == false && polls > 0 && !stopRequested();
         --polls) {
        usleep(std::chrono::microseconds(kPollInterval).count());
        link = NetRequests::ReadLink(Name());
    }
    if (link) {
        ZEL_INFO("Lan is%s link", *link ? "" : " not");
    }
    return link.value_or(false);
}
