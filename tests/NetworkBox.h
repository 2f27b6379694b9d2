#pragma once

#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "NetDevice.h"
#include "SocketGuard.h"
#include "Support.h"
#include "ZelLogging.h"

/// What a request to the kernel gets for an answer: 0 or an error number; none leaves it to the
/// kernel.
using Answer = std::optional<int>;
inline std::function<Answer(unsigned long code, ifreq& request)> answerRequest;
/// Comes in the place of every sleep.
inline std::function<void(std::chrono::microseconds)> onPause = [](auto) {};

/// A box with a spare interface, "t0" (its other end is "t1"), and with tools that write their
/// command lines down; those that ask for an address set one. Nothing sleeps in it.
class NetworkBox : public testing::Test {
protected:
    NetworkBox() {
        mode_.Enable();
        AddInterface("t0");
        for (const char* tool :
             {"/usr/sbin/route", "/sbin/iwpriv", "/usr/bin/arping", "/sbin/ifconfig",
              "/usr/sbin/insmod", "/app/velka/wlan/sta/wpa_supplicant"}) {
            Record(tool);
        }
        Record("/sbin/udhcpc",
               "while [ $1 != -i ]; do shift; done; ip address replace 10.7.7.7/8 dev $2");
        Record("/sbin/zcip", "ip address replace 169.254.7.7/16 dev $2");
    }
    ~NetworkBox() override {
        answerRequest = nullptr;
        onPause = [](auto) {};
    }

    /// Runs the `ip` tool, which is to say nothing.
    static void Ip(const std::string& arguments) {
        EXPECT_EQ(OutputOf("ip " + arguments), "") << arguments;
    }
    static void AddInterface(const std::string& name) {
        const std::string other = name.substr(0, name.size() - 1) + "1";
        Ip("link add " + name + " up type veth peer name " + other);
        Ip("link set " + other + " up");
    }
    /// Puts the cable of eth0 in ("up") or pulls it.
    static void SetCable(const std::string& state) {
        EXPECT_EQ(OutputOf("nsenter --net=/run/netns/switch ip link set box " + state), "");
    }

    /// The IPv4 addresses of an interface with their prefix lengths and labels, a line each.
    static std::string Addresses(const std::string& interface) {
        return OutputOf("ip -4 -o address show dev " + interface +
                        " | sed 's/.*inet \\(\\S*\\).* \\(\\S*\\)\\\\.*/\\1 \\2/'");
    }
    static bool IsUp(const std::string& interface) {
        return !OutputOf("ip link show dev " + interface + " up").empty();
    }

    /// Lays a tool at `path` that writes its command line down and runs `script`.
    static void Record(const std::string& path, const std::string& script = "") {
        InstallProgram(path, "echo \"$0 $*\" >> /tmp/commands\n" + script);
    }
    /// The command lines since the last call.
    static std::string Recorded() {
        return OutputOf("cat /tmp/commands 2>/dev/null; rm -f /tmp/commands");
    }

    /// Asked to stop? No.
    static bool Never() { return false; }

    void Set(const std::string& key, const std::string& value) {
        config_.Set(key, value, ZelConfig::Kind::kPersistent);
    }
    void SetWlan(const std::string& level, const std::string& band = "0") {
        Set("wlan.conf.infra.band", band);
        Set("wlan.conf.infra.ssid", "workshop");
        Set("wlan.conf.infra.security.level", level);
        Set("country.code", "AT");
    }

    static std::string SupplicantCommand(const std::string& interfaceAndDriver,
                                         const std::string& directory = "/tmp/supplicant") {
        return "/app/velka/wlan/sta/wpa_supplicant " + interfaceAndDriver + " -c " + directory +
               "/wpa.conf -B -C /tmp/supplicant/ctrl -tddf /tmp/log/wpa_supplicant -P "
               "/var/run/wpa_supplicant.pid\n";
    }

    ZelLogging logging_;
    ZelConfig config_;
    DiscoverModeCtrl mode_{config_};
    NetDevice::Context context_{config_, mode_};
};

/// A WPA supplicant's control socket; an empty reply is none.
class Supplicant {
public:
    Supplicant(const std::string& interface, const std::string& reply)
        : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const std::string path = "/tmp/supplicant/ctrl/" + interface;
        std::filesystem::create_directories("/tmp/supplicant/ctrl");
        std::filesystem::remove(path);
        sockaddr_un address{AF_UNIX, ""};
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const auto* generic = reinterpret_cast<const sockaddr*>(&address);
        EXPECT_EQ(bind(socket_.Get(), generic, sizeof address), 0);
        thread_ = std::jthread([this, reply] {
            char request[64]{};
            sockaddr_un client{};
            auto* from = reinterpret_cast<sockaddr*>(&client);
            socklen_t size = sizeof client;
            while (recvfrom(socket_.Get(), request, sizeof request - 1, 0, from, &size) > 0) {
                EXPECT_STREQ(request, "STATUS");
                if (!reply.empty()) {
                    sendto(socket_.Get(), reply.data(), reply.size(), 0, from, size);
                }
            }
        });
    }
    ~Supplicant() { shutdown(socket_.Get(), SHUT_RDWR); }

private:
    SocketGuard socket_;
    std::jthread thread_;
};
