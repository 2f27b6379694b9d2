#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <cstdarg>
#include <cstring>

#include "NetRequests.h"
#include "NetworkAttributes.h"

// Clashes with <net/if.h> unless it comes behind it.
#include <linux/wireless.h>

#include "Support.h"

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
    auto* request = static_cast<iwreq*>(argument);
    if (code == SIOCGIWSTATS && radio == request->ifr_name) {
        iw_statistics statistics{};
        statistics.qual.qual = 57;
        std::memcpy(request->u.data.pointer, &statistics, sizeof statistics);
        return 0;
    }
    return static_cast<int>(syscall(SYS_ioctl, descriptor, code, argument));
}

TEST(NetworkAttributesTest, ChangesOfTheNetworkAreSeen) {
    ZelConfig config;
    NetworkAttributes::Add(config, [] { return "wlan7"; });
    // What `ip` is told, what radio there is, and then the values; "-" is none.
    for (const auto& [change, name, values] :
         Table<const char*, const char*, std::vector<std::pair<const char*, const char*>>>{
             {"link add wlan7 type veth peer name other",
              "",
              {{"wlan.ip", "-"}, {"wlan.quality", "0"}, {"lan.ip", "192.168.68.42"}}},
             {"address add 10.1.2.3/24 dev wlan7",
              "wlan7",
              {{"wlan.ip", "10.1.2.3"}, {"wlan.netmask", "255.255.255.0"}, {"wlan.quality", "57"}}},
             {"route del default", "", {{"defaultgateway", "-"}}},
             {"route add default via 192.168.200.9", "", {{"defaultgateway", "192.168.200.9"}}},
             {"address flush dev eth0", "", {{"lan.ip", "-"}}},
             {"link del eth0", "", {{"lan.netmask", "-"}}}}) {
        EXPECT_EQ(OutputOf(std::string("/sbin/ip ") + change), "") << change;
        radio = name;
        for (const auto& [key, expected] : values) {
            std::string value = "left over";
            const bool isThere = config.Get(std::string("network.current.") + key, value);
            EXPECT_EQ(isThere || !value.empty() ? value : "-", expected) << change << ": " << key;
        }
    }
    std::string value;
    EXPECT_FALSE(NetRequests::ReadMacAddress("eth0", value));
    EXPECT_FALSE(NetRequests::ReadMacAddress("a-name-too-long-for-the-kernel", value));
}
