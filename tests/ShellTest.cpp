#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "Shell.h"
#include "Support.h"
#include "ZelLogging.h"

namespace {

/// As the agent runs: children are reaped by the system, SIGPIPE is no end.
class ShellTest : public testing::Test {
protected:
    ShellTest() {
        struct sigaction action {};
        action.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &action, nullptr);
        action.sa_flags = SA_NOCLDWAIT;
        sigaction(SIGCHLD, &action, nullptr);
    }

    /// Starts a daemon that writes its process id to kPidFile.
    static void StartDaemon(const std::string& script) {
        std::string output;
        Shell::RunSystemWithResult(
            output, "%s",
            ("sh -c '" + script + "' > /dev/null 2>&1 & echo $! > " + kPidFile).c_str());
    }

    static bool IsAlive(const std::string& pid) {
        return std::filesystem::exists("/proc/" + pid + "/status");
    }

    static constexpr char kPidFile[] = "/tmp/daemon.pid";
    ZelLogging logging_;
    std::string result_ = "left over";
};

TEST_F(ShellTest, OutputIsTheResultWhateverTheStatus) {
    EXPECT_TRUE(
        Shell::RunSystemWithResult(result_, "echo %s; echo hidden >&2; exit %d", "seen", 3));
    EXPECT_EQ(result_, "seen\n");
    EXPECT_TRUE(Shell::RunSystemWithResult(result_, "no-such-command 2>/dev/null"));
    EXPECT_EQ(result_, "");
    EXPECT_TRUE(Shell::RunSystemWithResult(result_, "head -c 200000 /dev/zero | tr '\\0' x"));
    EXPECT_EQ(result_, std::string(200000, 'x'));
    EXPECT_TRUE(Shell::RunSystemWithResult(result_, "yes | head -n 1"));
    EXPECT_EQ(result_, "y\n");
    const std::string log = ReadFile(ZelLogging::kLogFile);
    EXPECT_NE(log.find("Open pipe 'yes | head -n 1'\n"), std::string::npos);
    EXPECT_NE(log.find("Read pipe 'y\n'\n"), std::string::npos);
}

TEST_F(ShellTest, LongCommandsAreCut) {
    EXPECT_TRUE(Shell::RunSystemWithResult(result_, "echo %s", std::string(1000, 'x').c_str()));
    EXPECT_EQ(result_, std::string(511 - 5, 'x') + "\n");
}

TEST_F(ShellTest, ToolsSeeACleanProcess) {
    const int own = open("/dev/full", O_RDONLY);
    EXPECT_TRUE(Shell::RunSystemWithResult(result_, "ls -l /proc/self/fd | grep -c /dev/full"));
    EXPECT_EQ(result_, "0\n");
    close(own);
    EXPECT_TRUE(Shell::RunSystemWithResult(
        result_, "sed -n 's/SigIgn:\\|SigBlk:/0x/p' /proc/self/status | tr -d '\\t'"));
    std::istringstream masks(result_);
    std::uint64_t blocked = 1;
    std::uint64_t ignored = ~0ULL;
    masks >> std::hex >> blocked >> ignored;
    EXPECT_EQ(blocked, 0U) << result_;
    EXPECT_EQ(ignored & (1U << (SIGPIPE - 1) | 1U << (SIGCHLD - 1)), 0U) << result_;
}

TEST_F(ShellTest, NoToolHoldsItsCaller) {
    using std::chrono::milliseconds;
    using Fate = Shell::Fate;
    const std::string flood(Shell::kMaxOutput, 'x');
    const struct {
        std::string command;
        Shell::Limits limits;
        Fate fate;
        std::string output;
        int left = 0;  // that the end of the shell does not end
        std::string logged = {};
    } cases[] = {
        {"echo a; sleep 4321 &", {}, Fate::kSucceeded, "a\n", 1},
        {"echo a; sleep 4321 & sleep 4321",
         {milliseconds(300)},
         Fate::kCutShort,
         "a\n",
         0,
         "'echo a; sleep 4321 & sleep 4321' was ended after 300 ms"},
        {"trap '' TERM INT; sleep 4321 | sleep 4321", {milliseconds(300)}, Fate::kCutShort, ""},
        {"yes | tr -d '\n' | tr y x", {milliseconds(2000)}, Fate::kCutShort, flood},
        {"head -c 2000000 /dev/zero | tr '\\0' x",
         {},
         Fate::kSucceeded,
         flood,
         0,
         "wrote more than 1048576 bytes, the last 951424 are dropped"},
        {"echo a; exit 3", {}, Fate::kEnded, "a\n"},
        {"echo a; kill -9 $$", {}, Fate::kCutShort, "a\n", 0, "' was ended by signal 9"},
        {"exec 2>/dev/null; head -c 9000 /dev/zero > /tmp/f; wc -c < /tmp/f",
         {.fileSize = 5000},
         Fate::kSucceeded,
         "5000\n"},
    };
    const auto sleeping = [this] {
        Shell::RunSystemWithResult(result_, "pgrep -x sleep | wc -l");
        return std::stoi(result_);
    };
    for (const auto& each : cases) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(Shell::RunWithin(each.limits, result_, "%s", each.command.c_str()), each.fate)
            << each.command;
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
        EXPECT_EQ(result_, each.output) << each.command;
        EXPECT_TRUE(Eventually([&] { return sleeping() == each.left; })) << each.command;
        Shell::RunSystem("pkill -KILL -x sleep");
        EXPECT_NE(ReadFile(ZelLogging::kLogFile).find(each.logged), std::string::npos)
            << each.logged;
    }
    Shell::RunSystem("sleep 4321 & echo started > /tmp/started");
    EXPECT_EQ(ReadFile("/tmp/started"), "started\n");
    EXPECT_EQ(sleeping(), 1);
    Shell::RunSystem("pkill -KILL -x sleep");
}

TEST_F(ShellTest, AfterTheEndOfAllOnlyWhatTheStopNeedsIsStarted) {
    const auto run = [this] {
        ChildProcess::EndAll();
        const bool isRefused = !Shell::RunSystemWithResult(result_, "echo a") && result_.empty();
        Shell::RunWithin({.runsInStop = true}, result_, "echo b");
        std::exit(isRefused && result_ == "b\n" ? 0 : 1);
    };
    signal(SIGCHLD, SIG_DFL);  // it waits for the process that does it
    // In a program of its own: the end is all of this one's.
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
    EXPECT_NE(ReadFile(ZelLogging::kLogFile).find("'echo a' finished with number '125': '"),
              std::string::npos);
}

TEST_F(ShellTest, KillByPidFile) {
    EXPECT_EQ(Shell::KillByPidFile(kPidFile), 0);

    StartDaemon("trap \"rm /tmp/daemon.pid; exit\" TERM; while true; do sleep 0.05; done");
    std::string pid = ReadFile(kPidFile);
    pid.pop_back();
    ASSERT_TRUE(IsAlive(pid));
    usleep(200000);
    EXPECT_EQ(Shell::KillByPidFile(kPidFile), 0);
    std::string log = ReadFile(ZelLogging::kLogFile);
    EXPECT_NE(log.find("pid file '/tmp/daemon.pid' dosn't exist\n"), std::string::npos);
    EXPECT_NE(log.find("kill " + pid + "\n"), std::string::npos);
    EXPECT_NE(log.find("pid file '/tmp/daemon.pid' no longer exist\n"), std::string::npos);
    EXPECT_EQ(log.find("kill -9"), std::string::npos);

    StartDaemon("trap \"\" TERM; while true; do sleep 0.05; done");
    pid = ReadFile(kPidFile);
    pid.pop_back();
    usleep(200000);
    EXPECT_EQ(Shell::KillByPidFile(kPidFile), 0);
    EXPECT_FALSE(std::filesystem::exists(kPidFile));
    log = ReadFile(ZelLogging::kLogFile);
    EXPECT_NE(log.find("kill -9 " + pid + "\n"), std::string::npos);
    EXPECT_TRUE(Eventually([&pid] { return !IsAlive(pid); }));

    // "kill 0" would be the end of this test.
    for (const char* wrong : {"", "0", "-1", "1;touch /tmp/injected"}) {
        std::ofstream(kPidFile) << wrong << "\n";
        EXPECT_EQ(Shell::KillByPidFile(kPidFile), 0);
        EXPECT_FALSE(std::filesystem::exists("/tmp/injected"));
        EXPECT_FALSE(std::filesystem::exists(kPidFile)) << wrong;
    }
}

TEST_F(ShellTest, AModuleIsLoadedUnlessALoadedNameContainsIts) {
    EXPECT_EQ(Shell::LoadModule("radio_pci", "/lib/radio_pci.ko", "band=1 mode=2"), 0);
    EXPECT_EQ(Shell::LoadModule("radio", "/lib/radio.ko", ""), 0);
    EXPECT_EQ(Shell::LoadModule("radio_pci2", "/lib/radio_pci2.ko", ""), 0);
    EXPECT_EQ(ReadFile("/tmp/insmod.log"), "/lib/radio_pci.ko band=1 mode=2\n/lib/radio_pci2.ko\n");
}

TEST_F(ShellTest, DirectoryPaths) {
    EXPECT_EQ(Shell::MakeDirectoryPath("/tmp/a/b/c", 0755), 0);
    EXPECT_TRUE(std::filesystem::is_directory("/tmp/a/b/c"));
    EXPECT_EQ(Shell::MakeDirectoryPath("/tmp/a/b/c", 0755), 0);
    EXPECT_EQ(Shell::MakeDirectoryPath("/tmp/a//d/", 0700), 0);
    EXPECT_TRUE(std::filesystem::is_directory("/tmp/a/d"));
    EXPECT_EQ(Shell::MakeDirectoryPath("/proc/none/x", 0755), -1);
}

TEST(ShellPrefixTest, UpperAndLowerCaseAreTheSame) {
    EXPECT_TRUE(Shell::HasPrefixIgnoringCase("Content-Length: 1", "content-LENGTH"));
    EXPECT_TRUE(Shell::HasPrefixIgnoringCase("x", ""));
    EXPECT_FALSE(Shell::HasPrefixIgnoringCase("Content", "Content-Length"));
    EXPECT_FALSE(Shell::HasPrefixIgnoringCase("Xontent", "c"));
}

}  // namespace
