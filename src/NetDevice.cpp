#include "NetDevice.h"

#include <arpa/inet.h>
#include <net/route.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <optional>

#include "Ipv4.h"
#include "LogText.h"
#include "NetRequests.h"
#include "Shell.h"
#include "ZelLog.h"

namespace {

constexpr char kNoAddress[] = "0.0.0.0";
constexpr char kHostMask[] = "255.255.255.255";
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
    return ReadAddress(config, "network.config.static.ip", "Ip", ip_) &&
           ReadAddress(config, "network.config.static.netmask", "Netmask", netmask_) &&
           ReadAddress(config, "network.config.static.gateway", "Geteway", gateway_);
}

NetDevice::NetDevice(std::string interface, const Context& context, AddressMode mode)
    : name_(std::move(interface)), mode_(mode), context_(context) {}

int NetDevice::InterfaceRequest(ifreq* request, unsigned long code) const {
    return NetRequests::Send(name_, request, code);
}

int NetDevice::HasLink() {
    return 1;
}

int NetDevice::EnableInterface() {
    ZEL_INFO("Enable interface '%s'", name_.c_str());
    short former = 0;
    const int status = NetRequests::ChangeFlags(name_, IFF_UP | IFF_RUNNING, 0, former);
    isFreshlyUp_ = isFreshlyUp_ || (status == 0 && (former & IFF_UP) == 0);
    return status;
}

int NetDevice::DisableInterface() {
    ZEL_INFO("Disable interface '%s'", name_.c_str());
    StopDhcpClient();
    if (SetIp(INADDR_ANY) != 0) {
        return -1;
    }
    // Unlike on the way up, IFF_RUNNING stays as it is.
    short former = 0;
    return NetRequests::ChangeFlags(name_, 0, IFF_UP, former);
}

int NetDevice::SetIp(in_addr_t address) {
    ZEL_INFO("Setting ip of interface '%s' to '%u'", name_.c_str(), address);
    return NetRequests::SetAddress(name_, address, SIOCSIFADDR);
}

int NetDevice::SetNetmask(in_addr_t address) {
    ZEL_INFO("Setting netmask of interface '%s' to '%u'", name_.c_str(), address);
    return NetRequests::SetAddress(name_, address, SIOCSIFNETMASK);
}

int NetDevice::SetNetmask(const StaticValues& values) {
    ZEL_INFO("Setting netmask of interface '%s'", name_.c_str());
    return SetNetmask(values.Netmask());
}

int NetDevice::SetGateway(const StaticValues& values) {
    ZEL_INFO("Setting gateway of interface '%s'", name_.c_str());
    return SetGateway(values.Gateway());
}

int NetDevice::SetGateway(in_addr_t gateway) {
    ZEL_INFO("Setting gateway of interface '%s' to '%u'", name_.c_str(), gateway);
    return DoSetGateway(kGatewayRoute, INADDR_ANY, gateway, 0);
}

int NetDevice::DoSetGateway(unsigned short flags, long long dst, long long gw, long long mask) {
    ZEL_DEBUG("%s %lld %llx %llx",
              "int NetDevice::DoSetGateway(short unsigned int, long long int, long long int, long "
              "long int)",
              dst, gw, mask);
    return NetRequests::AddRoute(name_, flags, {dst, gw, mask});
}

int NetDevice::DoDelGateway(unsigned short flags, long long dst, long long gw) {
    ZEL_DEBUG("%s %d %llx %llx",
              "int NetDevice::DoDelGateway(short unsigned int, long long int, long long int)",
              flags, dst, gw);
    return NetRequests::DeleteRoute(name_, flags, dst, gw);
}

int NetDevice::SetHostGateway() {
    ZEL_DEBUG("%s", "int NetDevice::SetHostGateway()");
    for (const char* group : kSlpGroups) {
        if (DoSetGateway(kDeviceRoute, inet_addr(group), 0, inet_addr(kHostMask)) != 0) {
            return -1;
        }
    }
    return 0;
}

int NetDevice::DelHostGateway() {
    ZEL_DEBUG("%s", "int NetDevice::DelHostGateway()");
    for (const char* group : kSlpGroups) {
        if (DoDelGateway(kDeviceRoute, inet_addr(group), 0) != 0) {
            return -1;
        }
    }
    return 0;
}

int NetDevice::DelDefaultGateway() {
    ZEL_DEBUG("%s", "int NetDevice::DelDefaultGateway()");
    long long gateway = 0;
    if (GetGateway(gateway) != 0) {
        return -1;
    }
    ZEL_INFO("Current Gateway: %lld", gateway);
    return DoDelGateway(kGatewayRoute, inet_addr(kNoAddress), gateway);
}

int NetDevice::GetGateway(long long& gateway) const {
    ZEL_DEBUG("%s %s", "int NetDevice::GetGateway(long long int&)", name_.c_str());
    return NetRequests::ReadGateway(name_, gateway);
}

std::string NetDevice::DhcpPidFile() const {
    std::string label = name_;
    std::replace(label.begin(), label.end(), ':', '_');
    return "/var/run/udhcpc_" + label + ".pid";
}

int NetDevice::StopDhcpClient() {
    return Shell::KillByPidFile(DhcpPidFile());
}

bool NetDevice::HasAddress() const {
    return NetRequests::ReadAddress(name_) != INADDR_ANY;
}

int NetDevice::StartDhcp() {
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
    const in_addr_t address = NetRequests::ReadAddress(name_);
    if (isCutShort || output.find("No lease, failing") != std::string::npos ||
        address == INADDR_ANY) {
        ZEL_INFO("Got no lease");
        return -1;
    }
    // A link-local one is no server's: it was there before, or the client's script has set it.
    context_.discoverMode.Assigned(Ipv4::IsLinkLocal(Ipv4::Dotted({address}))
                                       ? DiscoverModeCtrl::kLinkLocal
                                       : DiscoverModeCtrl::kDhcp);
    return 0;
}

int NetDevice::StartApipa() {
    std::string output;
    Shell::RunSystemWithResult(
        output, "/sbin/zcip -fq %s /etc/network/zcip.script > /dev/null 2>&1", name_.c_str());
    Shell::RunSystem("route add default dev " + name_);
    // An address from before may still be there.
    if (Ipv4::IsLinkLocal(Ipv4::Dotted({NetRequests::ReadAddress(name_)}))) {
        context_.discoverMode.Assigned(DiscoverModeCtrl::kLinkLocal);
    } else {
        ZEL_ERROR("Got no link-local address");
    }
    return 0;
}

void NetDevice::Announce() {
    std::string output;
    Shell::RunSystemWithResult(output, "/usr/bin/arping -b -c 1 -U -I %s 0.0.0.0", name_.c_str());
}

int NetDevice::FinishConfiguration() {
    DelHostGateway();
    const int status = SetHostGateway();
    Announce();
    const std::string vehicleEthernet = context_.config.Get("diag.connected.tavo_d");
    ZEL_INFO("TAVOD: '%s'", vehicleEthernet.c_str());
    if (vehicleEthernet == "1") {
        Shell::RunSystem("/app/w2v/start_kvad &");
    }
    return status;
}

int NetDevice::SetStatic(in_addr_t ip, in_addr_t netmask, in_addr_t gateway) {
    if (SetIp(ip) != 0 || SetNetmask(netmask) != 0 || SetGateway(gateway) != 0) {
        return -1;
    }
    context_.discoverMode.Assigned(DiscoverModeCtrl::kStatic);
    return FinishConfiguration();
}

int NetDevice::SetDhcp() {
    StopDhcpClient();
    DelDefaultGateway();
    if (StartDhcp() != 0) {
        return -1;
    }
    return FinishConfiguration();
}

int NetDevice::SetApipa() {
    StopDhcpClient();
    DelDefaultGateway();
    StartApipa();
    return FinishConfiguration();
}

NetDevice::AddressMode NetDevice::ReadMode() const {
    const std::string mode = context_.config.Get("network.config.discover.mode");
    if (mode == "201" || mode == "2") {
        return AddressMode::kLinkLocal;
    }
    return mode == "202" ? AddressMode::kStatic : AddressMode::kDhcp;
}

int NetDevice::ConfigureInterface() {
    if (StopDhcpClient() != 0) {
        return -1;
    }
    if (mode_ == AddressMode::kConfigured) {
        mode_ = ReadMode();
    }
    int status = 0;
    switch (mode_) {
        case AddressMode::kDhcp:
            status = ConfigureDhcp();
            break;
        case AddressMode::kLinkLocal:
            status = ConfigureApipa();
            break;
        case AddressMode::kStatic:
            status = ConfigureStatic();
            break;
        default:
            return -2;
    }
    return status == 0 && HasAddress() ? FinishConfiguration() : -1;
}

int NetDevice::ConfigureDhcp() {
    ZEL_INFO("Network mode is dhcp");
    context_.discoverMode.Event(DiscoverModeCtrl::Trigger::kAssigning, DiscoverModeCtrl::kDhcp);
    DelDefaultGateway();
    if (StartDhcp() == 0) {
        return 0;
    }
    const int status = StartApipa();
    // Without an address it has not fallen back: the next pass begins with DHCP again.
    if (HasAddress()) {
        context_.discoverMode.Event(DiscoverModeCtrl::Trigger::kFellBack,
                                    DiscoverModeCtrl::kLinkLocal);
    }
    return status;
}

int NetDevice::ConfigureApipa() {
    ZEL_INFO("Network mode is apipa");
    context_.discoverMode.Event(DiscoverModeCtrl::Trigger::kAssigning,
                                DiscoverModeCtrl::kLinkLocal);
    DelDefaultGateway();
    return EnableInterface() == 0 ? StartApipa() : -1;
}

int NetDevice::ConfigureStatic() {
    ZEL_INFO("Network mode is static");
    context_.discoverMode.Event(DiscoverModeCtrl::Trigger::kAssigning, DiscoverModeCtrl::kStatic);
    StaticValues values;
    if (!values.Read(context_.config)) {
        context_.discoverMode.Event(DiscoverModeCtrl::Trigger::kFellBack, DiscoverModeCtrl::kDhcp);
        return -1;
    }
    if (EnableInterface() != 0) {
        return -1;
    }
    if (SetIp(values.Ip()) != 0 || SetNetmask(values) != 0 || SetGateway(values) != 0) {
        values.ExplainRefusal();
        return -1;
    }
    context_.discoverMode.Assigned(DiscoverModeCtrl::kStatic);
    return 0;
}
