#include <arpa/inet.h>
#include <linux/sockios.h>
#include <signal.h>

#include <cerrno>
#include <iomanip>
#include <sstream>
#include <vector>

#include "NetDevice.h"
#include "NetworkBox.h"

namespace {

constexpr char kModeKey[] = "network.config.discover.mode";
const std::string slpRoutes = "239.255.1.1 scope link \n239.255.255.253 scope link \n";
const std::string arping = "/usr/bin/arping -b -c 1 -U -I t0 0.0.0.0\n";
const std::string udhcpc =
    "/sbin/udhcpc -s /etc/network/udhcpc.script -p /var/run/udhcpc_t0.pid -i t0 -n -t 3 -H TAVO -C "
    "-Svv\n";
const std::string zcip =
    "/sbin/zcip -fq t0 /etc/network/zcip.script\n/usr/sbin/route add default dev t0\n";

class NetDeviceTest : public NetworkBox {
protected:
    NetDeviceTest() {
        Set("network.config.static.ip", "10.1.0.5");
        Set("network.config.static.netmask", "255.255.0.0");
        Set("network.config.static.gateway", "10.1.0.1");
    }

    static std::string Routes(const std::string& arguments = "dev t0") {
        return Run("ip route show " + arguments);
    }

    NetDevice device_{"t0", context_};
};

TEST_F(NetDeviceTest, FlagsOfAnInterfaceWithALongName) {
    std::vector<int> flags;
    answerRequest = [&flags](unsigned long code, const ifreq& request) {
        if (code == SIOCSIFFLAGS) {
            flags.push_back(request.ifr_flags & (IFF_UP | IFF_RUNNING));
        }
        return Answer();
    };
    AddInterface("abcdefghijklmn0");
    Ip("address add 10.1.0.5/16 dev abcdefghijklmn0");
    NetDevice device("abcdefghijklmn0-and-more", context_);
    EXPECT_EQ(device.DisableInterface(), 0);
    EXPECT_FALSE(IsUp("abcdefghijklmn0"));
    EXPECT_EQ(Addresses("abcdefghijklmn0"), "");
    EXPECT_EQ(device.EnableInterface(), 0);
    EXPECT_TRUE(IsUp("abcdefghijklmn0"));
    EXPECT_EQ(flags, (std::vector<int>{IFF_RUNNING, IFF_UP | IFF_RUNNING}));
    EXPECT_EQ(device.SetHostGateway(), 0);
    EXPECT_EQ(Routes("239.255.1.1"), "239.255.1.1 dev abcdefghijklmn0 scope link \n");
}

TEST_F(NetDeviceTest, AddressesAndRoutes) {
    const in_addr_t ip = inet_addr("10.1.0.5");
    const in_addr_t gateway = inet_addr("10.1.0.1");
    const std::string network = "10.1.0.0/16 proto kernel scope link src 10.1.0.5 \n";
    Ip("route del default");
    const std::string all = "default via 10.1.0.1 \n" + network + slpRoutes;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(device_.SetStatic(ip, inet_addr("255.255.0.0"), gateway), 0);
        EXPECT_EQ(Addresses("t0"), "10.1.0.5/16 t0\n");
        EXPECT_EQ(Routes(), all);
        EXPECT_EQ(Recorded(), arping);
    }
    EXPECT_EQ(device_.SetGateway(gateway), 0);
    EXPECT_EQ(device_.SetGateway(inet_addr("172.16.0.1")), -1);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(device_.DelHostGateway(), 0);
        EXPECT_EQ(device_.DelDefaultGateway(), 0);
        EXPECT_EQ(Routes(), network);
    }
}

TEST_F(NetDeviceTest, TheGatewayIsThatOfTheInterfacesLastDefaultRoute) {
    long long gateway = 1;
    EXPECT_EQ(device_.GetGateway(gateway), 0);
    EXPECT_EQ(gateway, 0);
    Ip("address add 10.1.0.5/16 dev t0");
    Ip("route del default");
    Ip("route add 10.9.0.0/16 via 10.1.0.7");
    Ip("route add default via 10.1.0.1 metric 5");
    Ip("route add default via 10.1.255.2 metric 6");
    Ip("route add default via 192.168.200.9 metric 7");
    EXPECT_EQ(device_.GetGateway(gateway), 0);
    EXPECT_EQ(gateway, inet_addr("10.1.255.2"));
    EXPECT_EQ(device_.DelDefaultGateway(), 0);
    EXPECT_EQ(Routes("default"),
              "default via 10.1.0.1 dev t0 metric 5 \n"
              "default via 192.168.200.9 dev eth0 metric 7 \n");
}

TEST_F(NetDeviceTest, StatusesOfRequests) {
    NetDevice missing("t7", context_);
    EXPECT_EQ(missing.EnableInterface(), -2);
    EXPECT_EQ(missing.DisableInterface(), -1);
    EXPECT_EQ(missing.SetHostGateway(), -1);
    const std::pair<int, int> cases[] = {
        {0, 0}, {ENODEV, -2}, {EOPNOTSUPP, -3}, {EADDRNOTAVAIL, -4}, {EPERM, -5}};
    for (const auto& [error, status] : cases) {
        answerRequest = [error = error](unsigned long, const ifreq&) { return Answer(error); };
        EXPECT_EQ(device_.SetNetmask(INADDR_ANY), status) << error;
        EXPECT_EQ(device_.EnableInterface(), status) << error;
    }
}

TEST_F(NetDeviceTest, TheFirstConfigurationSettlesTheMode) {
    const std::tuple<const char*, std::string, unsigned> cases[] = {
        {"3", udhcpc, 3}, {"200", udhcpc, 3}, {"", udhcpc, 3},
        {"2", zcip, 2},   {"201", zcip, 2},   {"202", "", 1}};
    Record("/sbin/udhcpc");  // and what they would set is there already
    Record("/sbin/zcip");
    for (const auto& [first, commands, current] : cases) {
        SCOPED_TRACE(first);
        DiscoverModeCtrl mode(config_);
        mode.Enable();
        NetDevice device("t0", {config_, mode});
        for (const char* stored : {first, "201", "3"}) {
            Set(kModeKey, stored);
            Ip("address flush dev t0");
            Ip("address add 10.1.0.9/16 dev t0");
            Ip("route replace default via 10.1.0.1");
            EXPECT_EQ(device.ConfigureInterface(), 0);
            EXPECT_EQ(Recorded(), commands + arping);
            EXPECT_EQ(mode.CurrentMode(), current);
            EXPECT_EQ(Addresses("t0"), commands.empty() ? "10.1.0.5/16 t0\n" : "10.1.0.9/16 t0\n");
            EXPECT_EQ(Routes("default dev t0"), commands.empty() ? "default via 10.1.0.1 \n" : "");
            EXPECT_TRUE(Routes().ends_with(slpRoutes));
        }
    }
}

/// Fills in addresses as their words print: "[d 10.1.0.1]", "[x ...]" in hexadecimal, "[8 ...]" in
/// eight digits of it.
std::string WithWords(const std::string& text) {
    std::ostringstream out;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '[') {
            out << text[at];
            continue;
        }
        const std::size_t end = text.find(']', at);
        const char format = text[at + 1];
        out << (format == 'd' ? std::dec : std::hex) << std::setw(format == '8' ? 8 : 0)
            << std::setfill('0') << inet_addr(text.substr(at + 3, end - at - 3).c_str());
        at = end;
    }
    return out.str();
}

TEST_F(NetDeviceTest, WhatIsLogged) {
    const std::string expected = WithWords(R"(debug pid file '/var/run/udhcpc_t0.pid' dosn't exist
info Network mode is static
info Enable interface 't0'
info Setting ip of interface 't0' to '[d 10.1.0.5]'
info Setting netmask of interface 't0'
info Setting netmask of interface 't0' to '[d 255.255.0.0]'
info Setting gateway of interface 't0'
info Setting gateway of interface 't0' to '[d 10.1.0.1]'
debug int NetDevice::DoSetGateway(short unsigned int, long long int, long long int, long long int) 0 [x 10.1.0.1] 0
debug int NetDevice::DelHostGateway()
debug int NetDevice::DoDelGateway(short unsigned int, long long int, long long int) 1 [x 239.255.255.253] 0
debug int NetDevice::DoDelGateway(short unsigned int, long long int, long long int) 1 [x 239.255.1.1] 0
debug int NetDevice::SetHostGateway()
debug int NetDevice::DoSetGateway(short unsigned int, long long int, long long int, long long int) [d 239.255.255.253] 0 ffffffff
debug int NetDevice::DoSetGateway(short unsigned int, long long int, long long int, long long int) [d 239.255.1.1] 0 ffffffff
debug Open pipe '/usr/bin/arping -b -c 1 -U -I t0 0.0.0.0'
debug Read pipe ''
info TAVOD: '0'
debug int NetDevice::DelDefaultGateway()
debug int NetDevice::GetGateway(long long int&) t0
debug Iface, Destination, Gateway, Flags
debug t0, 00000000, [8 10.1.0.1], 0003
debug set t0 [x 10.1.0.1]
debug t0, [8 10.1.0.0], 00000000, 0001
debug t0, [8 239.255.1.1], 00000000, 0005
debug t0, [8 239.255.255.253], 00000000, 0005
debug Gateway: [x 10.1.0.1]
info Current Gateway: [d 10.1.0.1]
debug int NetDevice::DoDelGateway(short unsigned int, long long int, long long int) 3 0 [x 10.1.0.1]
)");
    Ip("link del eth0");
    Set(kModeKey, "202");
    Set("diag.connected.tavo_d", "0");
    std::filesystem::resize_file(ZelLogging::kLogFile, 0);
    EXPECT_EQ(device_.ConfigureInterface(), 0);
    EXPECT_EQ(device_.DelDefaultGateway(), 0);
    // The board's emulator lists routes in lower case.
    EXPECT_EQ(Run(std::string("sed -E 's/^\\S+ \\S+ +(\\w+) +[0-9]+ +/\\1 /; "
                              "/^debug t0,/s/.*/\\L&/' ") +
                  ZelLogging::kLogFile + " | head -n -1"),
              expected);
}

TEST_F(NetDeviceTest, WithoutALeaseTheAddressIsLinkLocal) {
    const char* clients[] = {
        "echo started; echo 'No lease, failing'; exit 1",
        "ip address add 10.1.0.7/16 dev t0; echo 'No lease, failing'; exit 1",
        "ip address add 10.1.0.7/16 dev t0; kill -9 $PPID $$",
        "kill -9 $$",
        "echo 'udhcpc: no lease, failing'; exit 1",
        "ip address add 10.1.0.7/16 dev t0 label t0:0",
        "exit 127",
        "",
    };
    const std::string bothTools = udhcpc + zcip + arping;
    const std::string linkLocalTools = zcip + arping;
    for (const char* client : clients) {
        SCOPED_TRACE(client);
        Record("/sbin/udhcpc", client);
        Set(kModeKey, "3");
        DiscoverModeCtrl mode(config_);
        mode.Enable();
        NetDevice device("t0", {config_, mode});
        EXPECT_EQ(device.SetDhcp(), -1);
        EXPECT_EQ(Recorded(), udhcpc);
        Ip("address flush dev t0");
        EXPECT_EQ(device.ConfigureInterface(), 0);
        EXPECT_EQ(Recorded(), bothTools);
        mode.Event(DiscoverModeCtrl::Trigger::kCommunicated);
        EXPECT_EQ(config_.Get(kModeKey), "2");
        EXPECT_EQ(device.SetApipa(), 0);
        EXPECT_EQ(Recorded(), linkLocalTools);
        Ip("address flush dev t0");
    }
}

TEST_F(NetDeviceTest, WithoutALinkLocalAddressTheInterfaceIsNotConfigured) {
    Record("/sbin/udhcpc");
    Record("/sbin/zcip");
    EXPECT_EQ(device_.SetApipa(), 0);
    Set(kModeKey, "201");
    EXPECT_EQ(NetDevice("t0", context_).ConfigureInterface(), -1);
    Set(kModeKey, "3");
    EXPECT_EQ(device_.ConfigureInterface(), -1);
    EXPECT_EQ(mode_.CurrentMode(), DiscoverModeCtrl::kDhcp);
    Record("/sbin/udhcpc", "ip address add 10.1.0.7/16 dev t0");
    EXPECT_EQ(device_.ConfigureInterface(), 0);
    mode_.Event(DiscoverModeCtrl::Trigger::kCommunicated);
    EXPECT_EQ(mode_.CurrentMode(), DiscoverModeCtrl::kDhcp) << "it never was on another";
    EXPECT_EQ(config_.Get(kModeKey), "3");
}

TEST_F(NetDeviceTest, WhatIsWrongWithStaticValuesThatTheKernelRefuses) {
    const std::tuple<const char*, const char*, const char*, std::string> cases[] = {
        {"10.1.0.5", "255.255.0.0", "10.2.0.1", "gateway is not in the network of ip and netmask"},
        {"10.1.0.5", "255.255.255.255", "10.1.0.1",
         "gateway is not in the network of ip and netmask"},
        {"10.1.0.5", "255.255.0.0", "10.1.255.255",
         "gateway is the broadcast address of the network"},
        {"10.1.0.5", "255.255.0.0", "0.0.0.0", "gateway is no address of a host"},
        {"10.1.0.5", "255.255.0.0", "224.0.0.1", "gateway is no address of a host"},
        {"10.1.0.5", "255.0.255.0", "10.1.0.1", "netmask is not ones, then zeros"},
        {"10.1.0.5", "0.0.0.255", "10.1.0.1", "netmask is not ones, then zeros"},
        {"10.1.0.5", "0.0.0.0", "10.1.0.1", "netmask leaves no network"},
        {"0.0.0.0", "255.255.0.0", "10.1.0.1", "ip is no address of a host"},
        {"239.1.0.5", "255.255.0.0", "239.1.0.1", "ip is no address of a host"},
        {"10.1.0.5", "255.255.0.0", "10.1.0.5", ""},
        {"10.1.0.5", "255.255.255.254", "10.1.0.4", ""}};
    Ip("link del eth0");
    Set(kModeKey, "202");
    for (const auto& [ip, netmask, gateway, what] : cases) {
        SCOPED_TRACE(std::string(ip) + " " + netmask + " " + gateway);
        Ip("address flush dev t0");
        Set("network.config.static.ip", ip);
        Set("network.config.static.netmask", netmask);
        Set("network.config.static.gateway", gateway);
        std::filesystem::resize_file(ZelLogging::kLogFile, 0);
        EXPECT_EQ(NetDevice("t0", context_).ConfigureInterface(), what.empty() ? 0 : -1);
        const std::string line = " The " + what + ": ip '" + ip + "', netmask '" + netmask +
                                 "', gateway '" + gateway + "'; correct network.config.static.";
        const std::string log = ReadFile(ZelLogging::kLogFile);
        EXPECT_EQ(log.find("; correct ") == std::string::npos, what.empty()) << log;
        EXPECT_EQ(log.find(line) == std::string::npos, what.empty()) << log;
    }
}

TEST_F(NetDeviceTest, BadStaticValuesChangeNoAddress) {
    const std::pair<std::string, std::string> cases[] = {
        {"ip", " Ip"}, {"netmask", " Netmask"}, {"gateway", " Geteway"}};
    for (const auto& [value, name] : cases) {
        Set(kModeKey, "202");
        Set("network.config.static." + value, "10.1.0.256");
        DiscoverModeCtrl mode(config_);
        mode.Enable();
        EXPECT_EQ(NetDevice("t0", {config_, mode}).ConfigureInterface(), -1) << value;
        EXPECT_EQ(Addresses("t0") + Recorded(), "") << value;
        EXPECT_EQ(config_.Get(kModeKey), "3") << value;
        EXPECT_NE(ReadFile(ZelLogging::kLogFile).find(name + " '10.1.0.256' is not correct\n"),
                  std::string::npos);
        Set("network.config.static." + value, "10.1.0.255");
    }
}

TEST_F(NetDeviceTest, AnInterfaceThatGoesAwayIsAFailure) {
    const std::pair<const char*, const char*> cases[] = {{"3", "/sbin/udhcpc"},
                                                         {"201", "/sbin/zcip"}};
    for (const auto& [mode, tool] : cases) {
        Set(kModeKey, mode);
        Record(tool, "ip link del t0");
        EXPECT_LT(NetDevice("t0", context_).ConfigureInterface(), 0) << tool;
        EXPECT_TRUE(Recorded().starts_with(tool));
        AddInterface("t0");
    }
    Ip("link del t0");
    EXPECT_LT(device_.ConfigureInterface(), 0);
    EXPECT_EQ(Recorded(), "");
}

TEST_F(NetDeviceTest, AnAliasHasAPidFileOfItsOwn) {
    const std::string id = Run("sleep 1000 >/dev/null 2>&1 & echo $!");
    WriteFile("/var/run/udhcpc_eth0_1.pid", id);
    NetDevice("eth0:1", context_).DisableInterface();
    EXPECT_TRUE(Eventually([&id] { return kill(std::stoi(id), 0) != 0; }));
}

TEST_F(NetDeviceTest, TheVehicleEthernetIsStartedInTheBackground) {
    Record("/app/w2v/start_kvad", "sleep 20; touch /tmp/waited");
    for (const char* isConnected : {"0", "1"}) {
        Set("diag.connected.tavo_d", isConnected);
        EXPECT_EQ(device_.ConfigureInterface(), 0);
    }
    EXPECT_FALSE(std::filesystem::exists("/tmp/waited"));
    EXPECT_TRUE(Eventually([] { return Run("grep -c start_kvad /tmp/commands") == "1\n"; }));
}

}  // namespace
