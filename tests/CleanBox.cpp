#include <gtest/gtest.h>
#include <sys/mount.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "Support.h"

namespace {

constexpr char kLayers[] = "/layers";
/// Folders that a test may write to, and what is mounted below them.
constexpr const char* kFolders[] = {"/app", "/config", "/etc", "/proc/bus", "/proc/sys",
                                    "/run", "/tmp",    "/usr", "/var"};
constexpr const char* kMounts[] = {"/run/netns", "/proc/sys/net"};

/// The network card that a fresh box has (simbox/init), in the place of all that there are.
constexpr char kRenewNetwork[] =
    "for card in $(ls /proc/sys/net/ipv4/conf | grep -Ev '^(all|default|lo)$'); do"
    "  ip link del $card 2>/dev/null;"
    "done;"
    "ip link add eth0 address 02:00:00:12:34:56 type veth peer name box netns switch &&"
    "ip address add 192.168.68.42/16 brd + dev eth0 && ip link set eth0 up &&"
    "nsenter --net=/run/netns/switch ip link set box master bridge up &&"
    "ip route add default via 192.168.68.1";

constexpr int kSignals[] = {SIGCHLD, SIGHUP, SIGINT, SIGPIPE, SIGSEGV, SIGTERM, SIGXFSZ};

/// Gives every test the files of a fresh box: what it writes goes into layers above the box's
/// folders, which are taken away behind it. So are changes of the network and of what signals do.
class CleanBox : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override {
        network_ = Network();
        for (std::size_t i = 0; i < actions_.size(); ++i) {
            sigaction(kSignals[i], nullptr, &actions_[i]);
        }
        std::filesystem::create_directory(kLayers);
        Mount("layers", kLayers, "tmpfs", 0, "mode=755");
        for (const char* folder : kMounts) {
            Mount(folder, Layer(folder), nullptr, MS_BIND | MS_REC, "");
            // Else what is unmounted there would be so in the box.
            Mount("", Layer(folder), nullptr, MS_PRIVATE | MS_REC, "");
        }
        for (const std::string folder : kFolders) {
            Mount("overlay", folder, "overlay", 0,
                  "userxattr,lowerdir=" + folder + ",upperdir=" + Layer(folder + ".upper") +
                      ",workdir=" + Layer(folder + ".work"));
        }
        for (const char* folder : kMounts) {
            Mount(Layer(folder), folder, nullptr, MS_BIND | MS_REC, "");
        }
    }

    void OnTestEnd(const testing::TestInfo&) override {
        for (const std::string folder : kFolders) {
            Unmount(folder);
        }
        Unmount(kLayers);
        for (std::size_t i = 0; i < actions_.size(); ++i) {
            sigaction(kSignals[i], &actions_[i], nullptr);
        }
        if (Network() != network_) {
            EXPECT_EQ(system(kRenewNetwork), 0);
        }
    }

    /// Cards, addresses and routes.
    static std::string Network() {
        std::string network = ReadFile("/proc/net/route") + ReadFile("/proc/net/fib_trie");
        for (const auto& card : std::filesystem::directory_iterator("/proc/sys/net/ipv4/conf")) {
            network += card.path();
        }
        return network;
    }

    /// The folder of that layer, made when there is none.
    static std::string Layer(std::string name) {
        std::replace(name.begin(), name.end(), '/', '-');
        std::string path = std::string(kLayers) + "/" + name;
        std::filesystem::create_directory(path);
        return path;
    }

    static void Mount(const std::string& what, const std::string& folder, const char* type,
                      unsigned long flags, const std::string& options) {
        EXPECT_EQ(mount(what.c_str(), folder.c_str(), type, flags, options.c_str()), 0)
            << folder << ": " << std::strerror(errno);
    }

    static void Unmount(const std::string& folder) {
        EXPECT_EQ(umount2(folder.c_str(), MNT_DETACH), 0) << folder << ": " << std::strerror(errno);
    }

    std::string network_;
    std::array<struct sigaction, std::size(kSignals)> actions_{};
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    // Whoever is root would mount over the folders of the machine.
    if (std::getenv("SIMBOX") == nullptr && !GTEST_FLAG_GET(list_tests)) {
        std::fprintf(stderr, "%s changes what it runs in; run it in a box: simbox/run %s\n",
                     argv[0], argv[0]);
        return 1;
    }
    testing::UnitTest::GetInstance()->listeners().Append(new CleanBox);
    return RUN_ALL_TESTS();
}
