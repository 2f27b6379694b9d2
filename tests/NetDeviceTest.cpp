#include <arpa/inet.h>
#include <signal.h>

#include <cerrno>
#include <vector>

#include "NetDevice.h"
#include "NetworkBox.h"

namespace {

using enum NetStatus;

const std::string slpRoutes = "239.255.1.1 scope link \n239.255.255.253 scope link \n";
const std::string arping = "/usr/bin/arping -b -c 1 -U -I t0 0.0.0.0\n";
const std::string udhcpc =
    "/sbin/udhcpc -s /etc/network/udhcpc.script -p /var/run/udhcpc_t0.pid -i t0 -n -t 3 -H TAVO -C "
    "-Svv\n";
const std::string zcip =
    "/sbin/zcip -fq t0 /etc/network/zcip.script\n/usr/sbin/route add default dev t0\n";

class NetDeviceTest : public NetworkBox {
protected:
    NetDeviceTest() { SetStatic("10.1.0.5", "255.255.0.0", "10.1.0.1"); }

    void SetStatic(const char* ip, const char* netmask, const char* gateway) {
        Set("network.config.static.ip", ip);
        Set("network.config.static.netmask", netmask);
        Set("network.config.static.gateway", gateway);
    }

    /// How a start in that mode ends.
    NetStatus Start(const char* mode) {
        Set(StoreKeys::kAddressMode, mode);
        return NetDevice("t0", context_).ConfigureInterface();
    }

    static std::string Routes(const std::string& arguments = "dev t0") {
        return OutputOf("ip route show " + arguments);
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
    EXPECT_EQ(device.DisableInterface(), kDone);
    EXPECT_FALSE(IsUp("abcdefghijklmn0"));
    EXPECT_EQ(Addresses("abcdefghijklmn0"), "");
    EXPECT_EQ(device.EnableInterface(), kDone);
    EXPECT_TRUE(IsUp("abcdefghijklmn0"));
    EXPECT_EQ(flags, (std::vector<int>{IFF_RUNNING, IFF_UP | IFF_RUNNING}));
    EXPECT_EQ(device.SetHostGateway(), kDone);
    EXPECT_EQ(Routes("239.255.1.1"), "239.255.1.1 dev abcdefghijklmn0 scope link \n");
}

TEST_F(NetDeviceTest, AddressesAndRoutes) {
    const in_addr_t gateway = inet_addr("10.1.0.1");
    const std::string network = "10.1.0.0/16 proto kernel scope link src 10.1.0.5 \n";
    Ip("route del default");
    const std::string all = "default via 10.1.0.1 \n" + network + slpRoutes;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(device_.SetStatic(inet_addr("10.1.0.5"), inet_addr("255.255.0.0"), gateway),
                  kDone);
        EXPECT_EQ(Addresses("t0"), "10.1.0.5/16 t0\n");
        EXPECT_EQ(Routes(), all);
        EXPECT_EQ(Recorded(), arping);
    }
    EXPECT_EQ(device_.SetGateway(gateway), kDone);
    EXPECT_EQ(device_.SetGateway(inet_addr("172.16.0.1")), kFailed);
    for (int i = 0; i < 2; ++i) {
        device_.DelHostGateway();
        device_.DelDefaultGateway();
        EXPECT_EQ(Routes(), network);
    }
}

TEST_F(NetDeviceTest, TheGatewayIsThatOfTheInterfacesLastDefaultRoute) {
    in_addr_t gateway = 1;
    EXPECT_EQ(device_.GetGateway(gateway), kDone);
    EXPECT_EQ(gateway, 0U);
    Ip("address add 10.1.0.5/16 dev t0");
    Ip("route del default");
    Ip("route add 10.9.0.0/16 via 10.1.0.7");
    Ip("route add default via 10.1.0.1 metric 5");
    Ip("route add default via 10.1.255.2 metric 6");
    Ip("route add default via 192.168.200.9 metric 7");
    EXPECT_EQ(device_.GetGateway(gateway), kDone);
    EXPECT_EQ(gateway, inet_addr("10.1.255.2"));
    device_.DelDefaultGateway();
    EXPECT_EQ(Routes("default"),
              "default via 10.1.0.1 dev t0 metric 5 \n"
              "default via 192.168.200.9 dev eth0 metric 7 \n");
}

TEST_F(NetDeviceTest, StatusesOfRequests) {
    NetDevice missing("t7", context_);
    EXPECT_EQ(missing.EnableInterface(), kNoSuchDevice);
    EXPECT_EQ(missing.DisableInterface(), kFailed);
    EXPECT_EQ(missing.SetHostGateway(), kFailed);
    const std::pair<int, int> cases[] = {
        {0, 0}, {ENODEV, -2}, {EOPNOTSUPP, -3}, {EADDRNOTAVAIL, -4}, {EPERM, -5}};
    for (const auto& [error, status] : cases) {
        answerRequest = [error = error](unsigned long, const ifreq&) { return Answer(error); };
        EXPECT_EQ(static_cast<int>(device_.SetNetmask(INADDR_ANY)), status) << error;
        EXPECT_EQ(static_cast<int>(device_.EnableInterface()), status) << error;
    }
}

TEST_F(NetDeviceTest, TheFirstConfigurationSettlesTheMode) {
    using enum AddressMode;
    const std::tuple<const char*, std::string, AddressMode> cases[] = {
        {"3", udhcpc, kDhcp},    {"200", udhcpc, kDhcp},    {"", udhcpc, kDhcp},
        {"2", zcip, kLinkLocal}, {"201", zcip, kLinkLocal}, {"202", "", kStatic}};
    Record("/sbin/udhcpc");  // and what they would set is there already
    Record("/sbin/zcip");
    for (const auto& [first, commands, current] : cases) {
        SCOPED_TRACE(first);
        DiscoverModeCtrl mode(config_);
        mode.Enable();
        NetDevice device("t0", {config_, mode});
        for (const char* stored : {first, "201", "3"}) {
            Set(StoreKeys::kAddressMode, stored);
            Ip("address flush dev t0");
            Ip("address add 10.1.0.9/16 dev t0");
            Ip("route replace default via 10.1.0.1");
            EXPECT_EQ(device.ConfigureInterface(), kDone);
            EXPECT_EQ(Recorded(), commands + arping);
            EXPECT_EQ(mode.CurrentMode(), current);
            EXPECT_EQ(Addresses("t0"), commands.empty() ? "10.1.0.5/16 t0\n" : "10.1.0.9/16 t0\n");
            EXPECT_EQ(Routes("default dev t0"), commands.empty() ? "default via 10.1.0.1 \n" : "");
            EXPECT_TRUE(Routes().ends_with(slpRoutes));
        }
    }
}

TEST_F(NetDeviceTest, WithoutALeaseTheAddressIsLinkLocal) {
    const std::string bothTools = udhcpc + zcip + arping;
    for (const char* client : {"echo started; echo 'No lease, failing'; exit 1",
                               "ip address add 10.1.0.7/16 dev t0; echo 'No lease, failing'",
                               "ip address add 10.1.0.7/16 dev t0; kill -9 $PPID $$",
                               "ip address add 10.1.0.7/16 dev t0 label t0:0", "exit 127"}) {
        SCOPED_TRACE(client);
        Record("/sbin/udhcpc", client);
        Set(StoreKeys::kAddressMode, "3");
        DiscoverModeCtrl mode(config_);
        mode.Enable();
        NetDevice device("t0", {config_, mode});
        EXPECT_EQ(device.SetDhcp(), kFailed);
        EXPECT_EQ(Recorded(), udhcpc);
        Ip("address flush dev t0");
        EXPECT_EQ(device.ConfigureInterface(), kDone);
        EXPECT_EQ(Recorded(), bothTools);
        mode.Event(DiscoverModeCtrl::Trigger::kCommunicated);
        EXPECT_EQ(config_.Get(StoreKeys::kAddressMode), "2");
        Ip("address flush dev t0");
    }
}

TEST_F(NetDeviceTest, WithoutALinkLocalAddressTheInterfaceIsNotConfigured) {
    Record("/sbin/udhcpc");
    Record("/sbin/zcip");
    EXPECT_EQ(device_.SetApipa(), kDone);
    EXPECT_EQ(Start("201"), kFailed);
    EXPECT_EQ(Start("3"), kFailed);
    EXPECT_EQ(mode_.CurrentMode(), AddressMode::kDhcp);
    Record("/sbin/udhcpc", "ip address add 10.1.0.7/16 dev t0");
    EXPECT_EQ(Start("3"), kDone);
    mode_.Event(DiscoverModeCtrl::Trigger::kCommunicated);
    EXPECT_EQ(mode_.CurrentMode(), AddressMode::kDhcp) << "it never was on another";
    EXPECT_EQ(config_.Get(StoreKeys::kAddressMode), "3");
}

TEST_F(NetDeviceTest, WhatIsWrongWithStaticValues) {
    const std::string outside = "The gateway is not in the network of ip and netmask: ";
    const std::tuple<const char*, const char*, const char*, std::string> cases[] = {
        {"10.1.0.5", "255.255.0.0", "10.2.0.1", outside},
        {"10.1.0.5", "255.255.255.255", "10.1.0.1", outside},
        {"10.1.0.5", "255.255.0.0", "10.1.255.255", "The gateway is the broadcast address of the "},
        {"10.1.0.5", "255.255.0.0", "0.0.0.0", "The gateway is no address of a host: "},
        {"10.1.0.5", "255.255.0.0", "224.0.0.1", "The gateway is no address of a host: "},
        {"10.1.0.5", "255.0.255.0", "10.1.0.1", "The netmask is not ones, then zeros: "},
        {"10.1.0.5", "0.0.0.255", "10.1.0.1", "The netmask is not ones, then zeros: "},
        {"10.1.0.5", "0.0.0.0", "10.1.0.1", "The netmask leaves no network: "},
        {"0.0.0.0", "255.255.0.0", "10.1.0.1", "The ip is no address of a host: "},
        {"239.1.0.5", "255.255.0.0", "239.1.0.1", "The ip is no address of a host: "},
        {"10.1.0.5", "255.255.0.0", "10.1.0.5", ""},
        {"10.1.0.5", "255.255.255.254", "10.1.0.4", ""},
        {"10.1.0.256", "255.255.0.0", "10.1.0.1", "Ip '10.1.0.256' is not correct\n"},
        {"10.1.0.5", "x", "10.1.0.1", "Netmask 'x' is not correct\n"},
        {"10.1.0.5", "255.255.0.0", "", "Geteway '' is not correct\n"}};
    Ip("link del eth0");
    for (const auto& [ip, netmask, gateway, line] : cases) {
        SCOPED_TRACE(std::string(ip) + " " + netmask + " " + gateway);
        Ip("address flush dev t0");
        SetStatic(ip, netmask, gateway);
        std::filesystem::resize_file(ZelLogging::kLogFile, 0);
        DiscoverModeCtrl mode(config_);
        mode.Enable();
        Set(StoreKeys::kAddressMode, "202");
        EXPECT_EQ(NetDevice("t0", {config_, mode}).ConfigureInterface(),
                  line.empty() ? kDone : kFailed);
        const bool isNoAddress = line.find("not correct") != std::string::npos;
        const bool isRefused = !line.empty() && !isNoAddress;
        const std::string log = ReadFile(ZelLogging::kLogFile);
        EXPECT_NE(log.find(" " + line), std::string::npos) << log;
        EXPECT_EQ(log.find("; correct network.config.static.") != std::string::npos, isRefused);
        EXPECT_EQ(config_.Get(StoreKeys::kAddressMode), isNoAddress ? "3" : "202");
        EXPECT_TRUE(!isNoAddress || Addresses("t0").empty()) << "it is not tried";
    }
}

TEST_F(NetDeviceTest, AnAliasHasAPidFileOfItsOwn) {
    const std::string id = OutputOf("sleep 1000 >/dev/null 2>&1 & echo $!");
    WriteFile("/var/run/udhcpc_eth0_1.pid", id);
    NetDevice("eth0:1", context_).StopDhcpClient();
    EXPECT_TRUE(Eventually([&id] { return kill(std::stoi(id), 0) != 0; }));
}

TEST_F(NetDeviceTest, TheVehicleEthernetIsStartedInTheBackground) {
    Record("/app/w2v/start_kvad", "sleep 20; touch /tmp/waited");
    for (const char* isConnected : {"0", "1"}) {
        Set("diag.connected.tavo_d", isConnected);
        EXPECT_EQ(device_.ConfigureInterface(), kDone);
    }
    EXPECT_FALSE(std::filesystem::exists("/tmp/waited"));
    EXPECT_TRUE(Eventually([] { return OutputOf("grep -c start_kvad /tmp/commands") == "1\n"; }));
}

}  // namespace
