#include "ModeSwitch.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <mutex>

#include "Ipv4.h"
#include "NetworkAttributes.h"
#include "NetworkType.h"
#include "StoreKeys.h"
#include "ZelLog.h"

namespace {

// How long the link, and then the address, is waited for.
constexpr std::chrono::seconds kTimeout{5};
constexpr std::chrono::milliseconds kPollInterval{100};
// The WLAN is tried at every pass but the first three.
constexpr int kRecoveryPasses = 10;

bool PollUntil(const std::function<bool()>& condition) {
    for (auto polls = kTimeout / kPollInterval; polls > 0; --polls) {
        if (condition()) {
            return true;
        }
        usleep(std::chrono::microseconds(kPollInterval).count());
    }
    return condition();
}

/// An address beside the interface's own, taken away with the object.
class Alias : public NetDevice {
public:
    Alias(const std::string& label, const Context& context, in_addr_t ip, in_addr_t netmask)
        : NetDevice(label, context) {
        if (!Failed(SetIp(ip)) && !Failed(SetNetmask(netmask))) {
            Announce();
        }
    }
    ~Alias() override {
        static_cast<void>(SetIp(INADDR_ANY));  // it may be gone with the card
    }
};

}  // namespace

ModeSwitch::Outcome ModeSwitch::Run(long number, in_addr asked, FormerAddress& former) {
    const std::optional<AddressMode> mode = AddressModes::OfClient(number);
    if (!mode) {
        ZEL_ERROR("Unknown network mode %ld; 1 is configured, 2 link-local, 3 DHCP", number);
        return Outcome::kFailed;
    }
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock) {
        ZEL_ERROR("The network mode is being switched already");
        return Outcome::kFailed;
    }
    onWlan_ = !NetworkType::IsLan(context_.config);
    const std::string netmask = context_.config.Get(NetworkType::NetmaskKey(!onWlan_));
    context_.discoverMode.Follow();
    LanDevice lan(context_);
    const Outcome outcome = Switch(lan, *mode);
    if (outcome != Outcome::kDone && (onWlan_ || context_.config.Get(StoreKeys::kLanIp).empty())) {
        Recover(lan);
    }
    former = AddAlias(asked, netmask);
    onMoved_();
    return outcome;
}

ModeSwitch::Outcome ModeSwitch::Switch(LanDevice& lan, AddressMode mode) {
    if (mode == AddressMode::kLinkLocal) {
        ZEL_DEBUG("switchMode to apipa");
    } else if (mode == AddressMode::kDhcp) {
        ZEL_DEBUG("switchMode to dhcp");
    }
    if (onWlan_) {
        if (setNet_.Wlan() != nullptr) {
            static_cast<void>(setNet_.Wlan()->DisableInterface());
        }
        static_cast<void>(lan.EnableInterface());  // else it has no link
    }
    if (!lan.AwaitLink(kTimeout, [] { return false; })) {
        return Outcome::kNotConfirmed;
    }
    NetworkType::Set(context_.config, NetworkType::kLan);
    NetStatus status{};
    if (mode == AddressMode::kLinkLocal) {
        status = lan.SetApipa();
    } else if (mode == AddressMode::kDhcp) {
        status = lan.SetDhcp();
    } else {
        status = lan.ConfigureInterface();
    }
    if (Failed(status)) {
        return Outcome::kFailed;
    }
    return PollUntil([this, mode] { return HasAddress(mode); }) ? Outcome::kDone
                                                                : Outcome::kNotConfirmed;
}

bool ModeSwitch::HasAddress(AddressMode mode) const {
    const std::string address = context_.config.Get(StoreKeys::kLanIp);
    const bool isLinkLocal = Ipv4::IsLinkLocal(address);
    return !address.empty() &&
           (mode == AddressMode::kConfigured || isLinkLocal == (mode == AddressMode::kLinkLocal));
}

void ModeSwitch::Recover(LanDevice& lan) {
    if (!onWlan_) {
        if (!Failed(lan.EnableInterface())) {
            static_cast<void>(lan.SetApipa());  // nothing else is left to try
        }
        return;
    }
    const auto goOn = [] { return false; };
    if (Failed(setNet_.SetUpWlan(goOn))) {
        static_cast<void>(setNet_.SetUpNetwork(goOn, kRecoveryPasses));
    }
}

ModeSwitch::FormerAddress ModeSwitch::AddAlias(in_addr address, const std::string& netmask) {
    const auto isCurrent = [&](const char* key) {
        return inet_addr(context_.config.Get(key).c_str()) == address.s_addr;
    };
    const bool isLoopback = ntohl(address.s_addr) >> IN_CLASSA_NSHIFT == IN_LOOPBACKNET;
    if (address.s_addr == INADDR_ANY || isLoopback || isCurrent(StoreKeys::kLanIp) ||
        isCurrent(StoreKeys::kWlanIp)) {
        return nullptr;
    }
    // A label of its own: the alias before may still be there.
    constexpr unsigned kLabels = 100;
    const std::string label =
        std::string(NetworkAttributes::kLanInterface) + ":" + std::to_string(aliases_++ % kLabels);
    return std::make_shared<Alias>(label, context_, address.s_addr, inet_addr(netmask.c_str()));
}
