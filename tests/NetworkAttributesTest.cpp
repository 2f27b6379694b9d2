#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <string>

#include "NetworkAttributes.h"

// Clashes with <net/if.h> unless it comes behind it.
#include <linux/wireless.h>

#include "Shell.h"

namespace {
std::string radio;  // name of the interface that answers as a wireless one
}

// The box's card is no radio: its answers to wireless requests are given here, in front of the
// kernel.
extern "C" int ioctl(int descriptor, unsigned long code, ...) noexcept {
    va_list arguments;
    va_start(arguments, code);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (!radio.empty() && code == SIOCGIWSTATS) {
        auto* request = static_cast<iwreq*>(argument);
        if (radio == request->ifr_name) {
            iw_statistics statistics{};
            statistics.qual.qual = 57;
            std::memcpy(request->u.data.pointer, &statistics, sizeof statistics);
            return 0;
        }
    }
    return static_cast<int>(syscall(SYS_ioctl, descriptor, code, argument));
}

namespace {

void Ip(const std::string& arguments) {
    std::string output;
    Shell::RunSystemWithResult(output, "/sbin/ip %s 2>&1", arguments.c_str());
    EXPECT_EQ(output, "");
}

TEST(NetworkAttributesTest, WirelessValuesAreThoseOfTheNamedInterface) {
    ZelConfig config;
    NetworkAttributes::Add(config, [] { return "wlan7"; });
    EXPECT_EQ(config.Get("network.current.wlan.ip"), "");
    Ip("link add wlan7 type veth peer name other");
    Ip("address add 10.1.2.3/24 dev wlan7");
    EXPECT_EQ(config.Get("network.current.wlan.quality"), "0");
    radio = "wlan7";
    EXPECT_EQ(config.Get("network.current.wlan.ip"), "10.1.2.3");
    EXPECT_EQ(config.Get("network.current.wlan.netmask"), "255.255.255.0");
    EXPECT_EQ(config.Get("network.current.wlan.quality"), "57");
    EXPECT_EQ(config.Get("network.current.lan.ip"), "192.168.68.42");
    radio.clear();
}

TEST(NetworkAttributesTest, ChangesOfTheNetworkAreSeen) {
    ZelConfig config;
    NetworkAttributes::Add(config, [] { return ""; });
    std::string value;
    Ip("route del default");
    EXPECT_FALSE(config.Get("network.current.defaultgateway", value));
    Ip("route add default via 192.168.200.9");
    EXPECT_EQ(config.Get("network.current.defaultgateway"), "192.168.200.9");
    Ip("address flush dev eth0");
    EXPECT_FALSE(config.Get("network.current.lan.ip", value));
    EXPECT_EQ(value, "");
    Ip("link del eth0");
    EXPECT_FALSE(config.Get("network.current.lan.netmask", value));
    EXPECT_FALSE(NetworkAttributes::ReadMacAddress("eth0", value));
    EXPECT_FALSE(NetworkAttributes::ReadMacAddress("a-name-too-long-for-the-kernel", value));
}

}  // namespace
