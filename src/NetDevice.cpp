#include "NetDevice.h"

#include <arpa/inet.h>
#include <net/route.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <optional>

#include "Ipv4.h"
#include "LogText.h"
#include "Shell.h"
#include "StoreKeys.h"
#include "ZelLog.h"

namespace {

using Trigger = DiscoverModeCtrl::Trigger;

constexpr const char* kSlpGroups[] = {"239.255.255.253", "239.255.1.1"};

constexpr unsigned short kDeviceRoute = RTF_UP;
constexpr unsigned short kGatewayRoute = RTF_UP | RTF_GATEWAY;

bool ReadAddress(const ZelConfig& config, const char* key, const char* message, in_addr_t& out) {
    const std::string text = config.Get(key);
    const std::optional<in_addr> address = Ipv4::ParseAnyForm(text);
    if (!address) {
        ZEL_ERROR("%s '%s' is not correct", message, LogText::Of(text).c_str());
        return false;
    }
    out = address->s_addr;
    return true;
}

struct Misfit {
    const char* what;
    const char* key;
};

/// What the kernel does not like about static values, in host byte order. Nothing when it has
/// refused them for another reason.
std::optional<Misfit> FindMisfit(std::uint32_t ip, std::uint32_t netmask, std::uint32_t gateway) {
    if ((~netmask & (~netmask + 1)) != 0) {
        return Misfit{"The netmask is not ones, then zeros", "netmask"};
    }
    if (!Ipv4::IsHost(ip)) {
        return Misfit{"The ip is no address of a host", "ip"};
    }
    if (gateway == ip) {
        return std::nullopt;
    }
    if (!Ipv4::IsHost(gateway)) {
        return Misfit{"The gateway is no address of a host", "gateway"};
    }
    if (netmask == 0) {
        return Misfit{"The netmask leaves no network", "netmask"};
    }
    if (((gateway ^ ip) & netmask) != 0) {
        return Misfit{"The gateway is not in the network of ip and netmask",
                      "gateway, or the other two,"};
    }
    if ((gateway | netmask) == INADDR_BROADCAST) {
        return Misfit{"The gateway is the broadcast address of the network", "gateway"};
    }
    return std::nullopt;
}

}  // namespace

void NetDevice::StaticValues::ExplainRefusal() const {
    if (const auto misfit = FindMisfit(ntohl(ip_), ntohl(netmask_), ntohl(gateway_))) {
        ZEL_ERROR(
            "%s: ip '%s', netmask '%s', gateway '%s'; correct network.config.static.%s in the "
            "settings",
            misfit->what, Ipv4::Dotted({ip_}).c_str(), Ipv4::Dotted({netmask_}).c_str(),
            Ipv4::Dotted({gateway_}).c_str(), misfit->key);
    }
}

bool NetDevice::StaticValues::Read(const ZelConfig& config) {
    return ReadAddress(config, StoreKeys::kStaticIp, "Ip", ip_) &&
           ReadAddress(config, StoreKeys::kStaticNetmask, "Netmask", netmask_) &&
           ReadAddress(config, StoreKeys::kStaticGateway, "Geteway", gateway_);
}

NetStatus NetDevice::EnableInterface() {
    ZEL_INFO("Enable interface '%s'", name_.c_str());
    short former = 0;
    const NetStatus status = NetRequests::ChangeFlags(name_, IFF_UP | IFF_RUNNING, 0, former);
    isFreshlyUp_ = isFreshlyUp_ || (!Failed(status) && (former & IFF_UP) == 0);
    return status;
}

NetStatus NetDevice::DisableInterface() {
    ZEL_INFO("Disable interface '%s'", name_.c_str());
    StopDhcpClient();
    if (Failed(SetIp(INADDR_ANY))) {
        return NetStatus::kFailed;
    }
    // Unlike on the way up, IFF_RUNNING stays as it is.
    short former = 0;
    return NetRequests::ChangeFlags(name_, 0, IFF_UP, former);
}

NetStatus NetDevice::SetIp(in_addr_t address) {
    ZEL_INFO("Setting ip of interface '%s' to '%u'", name_.c_str(), address);
    return NetRequests::SetAddress(name_, address, SIOCSIFADDR);
}

NetStatus NetDevice::SetNetmask(in_addr_t address) {
    ZEL_INFO("Setting netmask of interface '%s' to '%u'", name_.c_str(), address);
    return NetRequests::SetAddress(name_, address, SIOCSIFNETMASK);
}

NetStatus NetDevice::SetGateway(in_addr_t gateway) {
    ZEL_INFO("Setting gateway of interface '%s' to '%u'", name_.c_str(), gateway);
    return DoSetGateway(kGatewayRoute, INADDR_ANY, gateway, 0);
}

NetStatus NetDevice::DoSetGateway(unsigned short flags, in_addr_t dst, in_addr_t gw,
                                  in_addr_t mask) {
    ZEL_DEBUG("%s %u %x %x",
              "int NetDevice::DoSetGateway(short unsigned int, long long int, long long int, long "
              "long int)",
              dst, gw, mask);
    return NetRequests::AddRoute(name_, flags, {dst, gw, mask});
}

NetStatus NetDevice::DoDelGateway(unsigned short flags, in_addr_t dst, in_addr_t gw) {
    ZEL_DEBUG("%s %d %x %x",
              "int NetDevice::DoDelGateway(short unsigned int, long long int, long long int)",
              flags, dst, gw);
    return NetRequests::DeleteRoute(name_, flags, dst, gw);
}

NetStatus NetDevice::SetHostGateway() {
    ZEL_DEBUG("%s", "int NetDevice::SetHostGateway()");
    for (const char* group : kSlpGroups) {
        if (Failed(DoSetGateway(kDeviceRoute, inet_addr(group), 0, INADDR_BROADCAST))) {
            return NetStatus::kFailed;
        }
    }
    return NetStatus::kDone;
}

void NetDevice::DelHostGateway() {
    ZEL_DEBUG("%s", "int NetDevice::DelHostGateway()");
    for (const char* group : kSlpGroups) {
        if (Failed(DoDelGateway(kDeviceRoute, inet_addr(group), 0))) {
            return;
        }
    }
}

void NetDevice::DelDefaultGateway() {
    ZEL_DEBUG("%s", "int NetDevice::DelDefaultGateway()");
    in_addr_t gateway = 0;
    if (Failed(GetGateway(gateway))) {
        return;
    }
    ZEL_INFO("Current Gateway: %u", gateway);
    static_cast<void>(DoDelGateway(kGatewayRoute, INADDR_ANY, gateway));  // the log tells
}

NetStatus NetDevice::GetGateway(in_addr_t& gateway) const {
    ZEL_DEBUG("%s %s", "int NetDevice::GetGateway(long long int&)", name_.c_str());
    return NetRequests::ReadGateway(name_, gateway);
}

std::string NetDevice::DhcpPidFile() const {
    std::string label = name_;
    std::replace(label.begin(), label.end(), ':', '_');
    return "/var/run/udhcpc_" + label + ".pid";
}

void NetDevice::StopDhcpClient() {
    Shell::KillByPidFile(DhcpPidFile());
}

bool NetDevice::HasAddress() const {
    return NetRequests::ReadOwnAddress(name_) != INADDR_ANY;
}

NetStatus NetDevice::StartDhcp() {
    std::string output;
    const Shell::Fate fate =
        Shell::RunWithin({}, output,
                         "/sbin/udhcpc -s /etc/network/udhcpc.script -p %s -i %s -n -t 3 -H "
                         "`hostname` -C -Svv",
                         DhcpPidFile().c_str(), name_.c_str());
    const bool isCutShort = fate < Shell::Fate::kEnded;
    if (isCutShort) {
        // Else a later process that has got its number would be taken for it.
        unlink(DhcpPidFile().c_str());
    }
    const in_addr_t address = NetRequests::ReadOwnAddress(name_);
    if (isCutShort || output.find("No lease, failing") != std::string::npos ||
        address == INADDR_ANY) {
        ZEL_INFO("Got no lease");
        return NetStatus::kFailed;
    }
    // A link-local one is no server's: it was there before, or the client's script has set it.
    context_.discoverMode.Assigned(
        Ipv4::IsLinkLocal(Ipv4::Dotted({address})) ? AddressMode::kLinkLocal : AddressMode::kDhcp);
    return NetStatus::kDone;
}

void NetDevice::StartApipa() {
    std::string output;
    static_cast<void>(Shell::RunSystemWithResult(
        output, "/sbin/zcip -fq %s /etc/network/zcip.script > /dev/null 2>&1",
        name_.c_str()));  // the address tells
    Shell::RunSystem("route add default dev " + name_);
    // An address from before may still be there.
    if (Ipv4::IsLinkLocal(Ipv4::Dotted({NetRequests::ReadOwnAddress(name_)}))) {
        context_.discoverMode.Assigned(AddressMode::kLinkLocal);
    } else {
        ZEL_ERROR("Got no link-local address");
    }
}

void NetDevice::Announce() {
    std::string output;
    static_cast<void>(
        Shell::RunSystemWithResult(output, "/usr/bin/arping -b -c 1 -U -I %s 0.0.0.0",
                                   name_.c_str()));  // neighbours find it out by themselves
}

NetStatus NetDevice::FinishConfiguration() {
    DelHostGateway();
    const NetStatus status = SetHostGateway();
    Announce();
    const std::string vehicleEthernet = context_.config.Get(StoreKeys::kHeadD);
    ZEL_INFO("TAVOD: '%s'", vehicleEthernet.c_str());
    if (vehicleEthernet == "1") {
        Shell::RunSystem("/app/w2v/start_kvad &");
    }
    return status;
}

NetStatus NetDevice::SetStatic(in_addr_t ip, in_addr_t netmask, in_addr_t gateway) {
    if (Failed(SetIp(ip)) || Failed(SetNetmask(netmask)) || Failed(SetGateway(gateway))) {
        return NetStatus::kFailed;
    }
    context_.discoverMode.Assigned(AddressMode::kStatic);
    return FinishConfiguration();
}

NetStatus NetDevice::SetDhcp() {
    StopDhcpClient();
    DelDefaultGateway();
    return Failed(StartDhcp()) ? NetStatus::kFailed : FinishConfiguration();
}

NetStatus NetDevice::SetApipa() {
    StopDhcpClient();
    DelDefaultGateway();
    StartApipa();
    return FinishConfiguration();
}

NetStatus NetDevice::ConfigureInterface() {
    StopDhcpClient();
    if (mode_ == AddressMode::kConfigured) {
        mode_ = AddressModes::Read(context_.config);
    }
    NetStatus status = NetStatus::kDone;
    if (mode_ == AddressMode::kStatic) {
        status = ConfigureStatic();
    } else if (mode_ == AddressMode::kLinkLocal) {
        status = ConfigureApipa();
    } else {
        ConfigureDhcp();
    }
    return !Failed(status) && HasAddress() ? FinishConfiguration() : NetStatus::kFailed;
}

void NetDevice::ConfigureDhcp() {
    ZEL_INFO("Network mode is dhcp");
    context_.discoverMode.Event(Trigger::kAssigning, AddressMode::kDhcp);
    DelDefaultGateway();
    if (!Failed(StartDhcp())) {
        return;
    }
    StartApipa();
    // Without an address it has not fallen back: the next pass begins with DHCP again.
    if (HasAddress()) {
        context_.discoverMode.Event(Trigger::kFellBack, AddressMode::kLinkLocal);
    }
}

NetStatus NetDevice::ConfigureApipa() {
    ZEL_INFO("Network mode is apipa");
    context_.discoverMode.Event(Trigger::kAssigning, AddressMode::kLinkLocal);
    DelDefaultGateway();
    if (Failed(EnableInterface())) {
        return NetStatus::kFailed;
    }
    StartApipa();
    return NetStatus::kDone;
}

NetStatus NetDevice::ConfigureStatic() {
    ZEL_INFO("Network mode is static");
    context_.discoverMode.Event(Trigger::kAssigning, AddressMode::kStatic);
    StaticValues values;
    if (!values.Read(context_.config)) {
        context_.discoverMode.Event(Trigger::kFellBack, AddressMode::kDhcp);
        return NetStatus::kFailed;
    }
    const auto setNetmask = [&] {
        ZEL_INFO("Setting netmask of interface '%s'", name_.c_str());
        return SetNetmask(values.Netmask());
    };
    const auto setGateway = [&] {
        ZEL_INFO("Setting gateway of interface '%s'", name_.c_str());
        return SetGateway(values.Gateway());
    };
    if (Failed(EnableInterface())) {
        return NetStatus::kFailed;
    }
    if (Failed(SetIp(values.Ip())) || Failed(setNetmask()) || Failed(setGateway())) {
        values.ExplainRefusal();
        return NetStatus::kFailed;
    }
    context_.discoverMode.Assigned(AddressMode::kStatic);
    return NetStatus::kDone;
}
