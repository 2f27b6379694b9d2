#include "NetDevice.h"

#include <arpa/inet.h>
#include <net/route.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string_view>

#include "Shell.h"
#include "SocketGuard.h"
#include "ZelLogging.h"

namespace {

constexpr char kRouteFile[] = "/proc/net/route";
constexpr char kNoAddress[] = "0.0.0.0";
constexpr char kHostMask[] = "255.255.255.255";
constexpr const char* kSlpGroups[] = {"239.255.255.253", "239.255.1.1"};

constexpr unsigned short kDeviceRoute = RTF_UP;
constexpr unsigned short kGatewayRoute = RTF_UP | RTF_GATEWAY;
constexpr unsigned short kHostRoute = RTF_UP | RTF_HOST;

using InterfaceName = std::array<char, IFNAMSIZ>;

InterfaceName CutName(const std::string& name) {
    InterfaceName cut{};
    name.copy(cut.data(), cut.size() - 1);
    return cut;
}

/// A socket to send requests to the kernel through; the failure is logged.
int OpenRequestSocket() {
    const int opened = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (opened < 0) {
        ZEL_ERROR("Can't create socket because of '%s'", std::strerror(errno));
    }
    return opened;
}

/// `address` in network byte order.
sockaddr ToSocketAddress(in_addr_t address) {
    sockaddr_in internet{};
    internet.sin_family = AF_INET;
    internet.sin_addr.s_addr = address;
    sockaddr generic{};
    std::memcpy(&generic, &internet, sizeof generic);
    return generic;
}

rtentry MakeRoute(unsigned short flags, long long destination) {
    rtentry route{};
    route.rt_dst = ToSocketAddress(static_cast<in_addr_t>(destination));
    route.rt_flags = flags;
    return route;
}

bool ReadAddress(const ZelConfig& config, const char* key, const char* message, in_addr_t& out) {
    const std::string text = config.Get(key);
    in_addr address{};
    if (inet_aton(text.c_str(), &address) == 0) {
        ZEL_ERROR("%s '%s' is not correct", message, text.c_str());
        return false;
    }
    out = address.s_addr;
    return true;
}

}  // namespace

bool NetDevice::StaticValues::Read(const ZelConfig& config) {
    return ReadAddress(config, "network.config.static.ip", "Ip", ip_) &&
           ReadAddress(config, "network.config.static.netmask", "Netmask", netmask_) &&
           ReadAddress(config, "network.config.static.gateway", "Geteway", gateway_);
}

NetDevice::NetDevice(std::string interface, const Context& context, AddressMode mode)
    : name_(std::move(interface)), mode_(mode), context_(context) {}

int NetDevice::InterfaceRequest(ifreq* request, unsigned long code) const {
    return InterfaceRequest(name_, request, code);
}

int NetDevice::InterfaceRequest(const std::string& interface, ifreq* request, unsigned long code) {
    if (request == nullptr) {
        return kRequestFailed;
    }
    const InterfaceName name = CutName(interface);
    std::memcpy(request->ifr_name, name.data(), name.size());
    const SocketGuard socketGuard(OpenRequestSocket());
    if (socketGuard.Get() < 0) {
        return kNoSocket;
    }
    if (ioctl(socketGuard.Get(), code, request) != -1) {
        return 0;
    }
    switch (errno) {
        case ENODEV:
            ZEL_ERROR("errno: ERR_NO_SUCH_DEVICE");
            return kNoSuchDevice;
        case EOPNOTSUPP:
            ZEL_ERROR("errno: ERR_NOT_SUPPORTED");
            return kNotSupported;
        case EADDRNOTAVAIL:
            ZEL_ERROR("errno: EADDRNOTAVAIL -> %s", std::strerror(errno));
            return kAddressNotAvailable;
        default:
            ZEL_ERROR("errno: %d -> %s", errno, std::strerror(errno));
            return kRequestFailed;
    }
}

int NetDevice::HasLink() {
    return 1;
}

int NetDevice::ChangeFlags(short set, short cleared) {
    ifreq request{};
    const int status = InterfaceRequest(&request, SIOCGIFFLAGS);
    if (status != 0) {
        return status;
    }
    request.ifr_flags = static_cast<short>((request.ifr_flags | set) & ~cleared);
    return InterfaceRequest(&request, SIOCSIFFLAGS);
}

int NetDevice::EnableInterface() {
    ZEL_INFO("Enable interface '%s'", name_.c_str());
    return ChangeFlags(IFF_UP | IFF_RUNNING, 0);
}

int NetDevice::DisableInterface() {
    ZEL_INFO("Disable interface '%s'", name_.c_str());
    StopDhcpClient();
    if (SetIp(INADDR_ANY) != 0) {
        return -1;
    }
    // Unlike on the way up, IFF_RUNNING stays as it is.
    return ChangeFlags(0, IFF_UP);
}

int NetDevice::SetAddress(in_addr_t address, unsigned long code) {
    ifreq request{};
    request.ifr_addr = ToSocketAddress(address);
    return InterfaceRequest(&request, code);
}

int NetDevice::SetIp(in_addr_t address) {
    ZEL_INFO("Setting ip of interface '%s' to '%u'", name_.c_str(), address);
    return SetAddress(address, SIOCSIFADDR);
}

int NetDevice::SetNetmask(in_addr_t address) {
    ZEL_INFO("Setting netmask of interface '%s' to '%u'", name_.c_str(), address);
    return SetAddress(address, SIOCSIFNETMASK);
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
    const SocketGuard socketGuard(OpenRequestSocket());
    if (socketGuard.Get() < 0) {
        return -1;
    }
    InterfaceName name = CutName(name_);
    rtentry route = MakeRoute(flags, dst);
    route.rt_gateway = ToSocketAddress(static_cast<in_addr_t>(gw));
    route.rt_genmask = ToSocketAddress(static_cast<in_addr_t>(mask));
    route.rt_dev = name.data();
    if (ioctl(socketGuard.Get(), SIOCADDRT, &route) == 0) {
        return 0;
    }
    const int error = errno;
    ZEL_ERROR("ioctl error: %d %s", error, std::strerror(error));
    // The route that is wanted may stand from an earlier start.
    return error == EEXIST ? 0 : -1;
}

int NetDevice::DoDelGateway(unsigned short flags, long long dst, long long gw) {
    ZEL_DEBUG("%s %d %llx %llx",
              "int NetDevice::DoDelGateway(short unsigned int, long long int, long long int)",
              flags, dst, gw);
    const SocketGuard socketGuard(OpenRequestSocket());
    if (socketGuard.Get() < 0) {
        return -1;
    }
    // What is not there need not be deleted.
    rtentry throughGateway = MakeRoute(flags, dst);
    throughGateway.rt_gateway = ToSocketAddress(static_cast<in_addr_t>(gw));
    static_cast<void>(ioctl(socketGuard.Get(), SIOCDELRT, &throughGateway));
    InterfaceName name = CutName(name_);
    rtentry throughDevice = MakeRoute(kHostRoute, dst);
    throughDevice.rt_dev = name.data();
    static_cast<void>(ioctl(socketGuard.Get(), SIOCDELRT, &throughDevice));
    return 0;
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
    std::ifstream file(kRouteFile);
    if (!file) {
        ZEL_ERROR("Can't open file because of '%s'", std::strerror(errno));
        return -1;
    }
    unsigned long long found = 0;
    std::string line;
    while (std::getline(file, line)) {
        std::array<char, IFNAMSIZ> interface {};
        std::array<char, 16> destination{};
        std::array<char, 16> word{};
        std::array<char, 16> flags{};
        if (std::sscanf(line.c_str(), "%15s %15s %15s %15s", interface.data(), destination.data(),
                        word.data(), flags.data()) != 4) {
            continue;
        }
        ZEL_DEBUG("%s, %s, %s, %s", interface.data(), destination.data(), word.data(),
                  flags.data());
        // The flags are hexadecimal; their last decimal digit tells RTF_UP just as well.
        if (name_ == interface.data() && std::string_view(destination.data()) == "00000000" &&
            std::strtol(flags.data(), nullptr, 10) % 2 != 0) {
            // The address word as it lies in memory, in eight digits.
            constexpr int kHexadecimal = 16;
            found = std::strtoull(std::string(word.data(), 8).c_str(), nullptr, kHexadecimal);
            ZEL_DEBUG("set %s %llx", interface.data(), found);
        }
    }
    ZEL_DEBUG("Gateway: %llx", found);
    gateway = static_cast<long long>(found);
    return 0;
}

std::string NetDevice::DhcpPidFile() const {
    std::string label = name_;
    std::replace(label.begin(), label.end(), ':', '_');
    return "/var/run/udhcpc_" + label + ".pid";
}

int NetDevice::StopDhcpClient() {
    return Shell::KillByPidFile(DhcpPidFile());
}

int NetDevice::StartDhcp() {
    std::string output;
    Shell::RunSystemWithResult(output,
                               "/sbin/udhcpc -s /etc/network/udhcpc.script -p %s -i %s -n -t 3 -H "
                               "`hostname` -C -Svv",
                               DhcpPidFile().c_str(), name_.c_str());
    if (output.find("No lease, failing") != std::string::npos) {
        ZEL_INFO("Got no lease");
        return -1;
    }
    return 0;
}

int NetDevice::StartApipa() {
    std::string output;
    Shell::RunSystemWithResult(
        output, "/sbin/zcip -fq %s /etc/network/zcip.script > /dev/null 2>&1", name_.c_str());
    Shell::RunSystem("route add default dev " + name_);
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
    return status == 0 ? FinishConfiguration() : -1;
}

int NetDevice::ConfigureDhcp() {
    ZEL_INFO("Network mode is dhcp");
    context_.discoverMode.Event(DiscoverModeCtrl::Trigger::kAssigning, DiscoverModeCtrl::kDhcp);
    DelDefaultGateway();
    if (StartDhcp() == 0) {
        return 0;
    }
    const int status = StartApipa();
    context_.discoverMode.Event(DiscoverModeCtrl::Trigger::kFellBack, DiscoverModeCtrl::kLinkLocal);
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
    const bool done = EnableInterface() == 0 && SetIp(values.Ip()) == 0 &&
                      SetNetmask(values) == 0 && SetGateway(values) == 0;
    return done ? 0 : -1;
}
