#include <fcntl.h>

#include "Shell.h"
#include "Support.h"
#include "ZelLogging.h"

namespace {

using namespace std::chrono_literals;

class ShellTest : public testing::Test {
protected:
    /// As in the agent: children are reaped by the system, SIGPIPE is no end.
    ShellTest() {
        signal(SIGPIPE, SIG_IGN);
        signal(SIGCHLD, SIG_IGN);
    }

    ZelLogging logging_;
    std::string result_ = "left over";
};

TEST_F(ShellTest, OutputIsTheResultWhateverTheStatus) {
    const int own = open("/dev/full", O_RDONLY);
    sigset_t stops{};
    sigaddset(&stops, SIGTERM);
    sigprocmask(SIG_BLOCK, &stops, nullptr);
    for (const auto& [command, output] : Table<std::string, std::string>{
             {"echo seen; echo hidden >&2; exit 3", "seen\n"},
             {"no-such-command 2>/dev/null", ""},
             {"yes | head -n 1", "y\n"},
             {"echo " + std::string(1000, 'x'), std::string(511 - 5, 'x') + "\n"},  // cut
             // Tools see a clean process.
             {"ls -l /proc/self/fd | grep -c /dev/full", "0\n"},
             {"kill $$; echo blocked", ""},
             {"echo $((0x$(sed -n 's/SigIgn:.//p' /proc/self/status) & 0x11000))", "0\n"}}) {
        EXPECT_TRUE(Shell::RunSystemWithResult(result_, "%s", command.c_str()));
        EXPECT_EQ(result_, output) << command;
    }
    sigprocmask(SIG_UNBLOCK, &stops, nullptr);
    close(own);
    ExpectParts(ReadFile(ZelLogging::kLogFile),
                {"Open pipe 'yes | head -n 1'\n", "Read pipe 'y\n'\n"});
}

TEST_F(ShellTest, NoToolHoldsItsCaller) {
    using Fate = Shell::Fate;
    const std::string flood(Shell::kMaxOutput, 'x');
    // Of the sleeping, so many are left by the end of the shell.
    for (const auto& [command, limits, fate, output, left, logged] :
         Table<std::string, Shell::Limits, Fate, std::string, int, const char*>{
             {"echo a; sleep 4321 &", {}, Fate::kSucceeded, "a\n", 1, ""},
             {"echo a; sleep 4321 & sleep 4321",
              {300ms},
              Fate::kCutShort,
              "a\n",
              0,
              "'echo a; sleep 4321 & sleep 4321' was ended after 300 ms"},
             {"trap '' TERM INT; sleep 4321 | sleep 4321", {300ms}, Fate::kCutShort, "", 0, ""},
             {"yes | tr -d '\n' | tr y x", {2000ms}, Fate::kCutShort, flood, 0, ""},
             {"head -c 2000000 /dev/zero | tr '\\0' x",
              {},
              Fate::kSucceeded,
              flood,
              0,
              "wrote more than 1048576 bytes, the last 951424 are dropped"},
             {"echo a; exit 3", {}, Fate::kEnded, "a\n", 0, ""},
             {"echo a; kill -9 $$", {}, Fate::kCutShort, "a\n", 0, "' was ended by signal 9"},
             {"exec 2>/dev/null; head -c 9000 /dev/zero > /tmp/f; wc -c < /tmp/f",
              {.fileSize = 5000},
              Fate::kSucceeded,
              "5000\n",
              0,
              ""}}) {
        SCOPED_TRACE(command);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(Shell::RunWithin(limits, result_, "%s", command.c_str()), fate);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 30s);
        EXPECT_EQ(result_, output);
        EXPECT_TRUE(Eventually([expected = std::to_string(left) + "\n"] {
            return OutputOf("pgrep -x sleep | wc -l") == expected;
        }));
        OutputOf("pkill -KILL -x sleep");
        ExpectParts(ReadFile(ZelLogging::kLogFile), {logged});
    }
    Shell::RunSystem("sleep 4321 & echo started > /tmp/started");
    EXPECT_EQ(OutputOf("cat /tmp/started; pkill -KILL -c -x sleep"), "started\n1\n");
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
    ExpectParts(ReadFile(ZelLogging::kLogFile), {"'echo a' finished with number '125': '"});
}

TEST_F(ShellTest, KillByPidFile) {
    const std::string file = "/tmp/daemon.pid";
    Shell::KillByPidFile(file);
    ExpectParts(ReadFile(ZelLogging::kLogFile), {"pid file '/tmp/daemon.pid' dosn't exist\n"});
    for (const auto& [trap, isStubborn] : Table<const char*, bool>{
             {"trap 'rm /tmp/daemon.pid; exit' TERM", false}, {"trap '' TERM", true}}) {
        SCOPED_TRACE(trap);
        OutputOf(std::string("(") + trap +
                 "; touch /tmp/ready; while :; do sleep 0.05; done)"
                 " > /dev/null 2>&1 & echo $! > " +
                 file);
        const std::string pid = OutputOf("tr -d '\\n' < " + file);
        EXPECT_TRUE(Eventually([] { return std::filesystem::exists("/tmp/ready"); }));
        std::filesystem::remove("/tmp/ready");
        Shell::KillByPidFile(file);
        EXPECT_FALSE(std::filesystem::exists(file));
        EXPECT_TRUE(Eventually([&pid] { return !std::filesystem::exists("/proc/" + pid); }));
        const std::string log = ReadFile(ZelLogging::kLogFile);
        ExpectParts(log, {"kill " + pid + "\n"});
        EXPECT_EQ(log.find("kill -9 " + pid + "\n") != log.npos, isStubborn);
        ExpectParts(log, {"pid file '/tmp/daemon.pid' no longer exist\n"});
    }
    // "kill 0" would be the end of this test.
    for (const char* wrong : {"", "0", "-1", "1;touch /tmp/injected"}) {
        WriteFile(file, wrong + std::string("\n"));
        Shell::KillByPidFile(file);
        EXPECT_FALSE(std::filesystem::exists("/tmp/injected") || std::filesystem::exists(file));
    }
}

TEST_F(ShellTest, AModuleIsLoadedUnlessALoadedNameContainsIts) {
    EXPECT_EQ(Shell::LoadModule("radio_pci", "/lib/radio_pci.ko", "band=1 mode=2"), 0);
    EXPECT_EQ(Shell::LoadModule("radio", "/lib/radio.ko", ""), 0);
    EXPECT_EQ(Shell::LoadModule("radio_pci2", "/lib/radio_pci2.ko", ""), 0);
    EXPECT_EQ(ReadFile("/tmp/insmod.log"), "/lib/radio_pci.ko band=1 mode=2\n/lib/radio_pci2.ko\n");
}

TEST_F(ShellTest, DirectoryPathsAndPrefixes) {
    for (const auto& [path, result] : Table<const char*, int>{
             {"/tmp/a/b", 0}, {"/tmp/a/b", 0}, {"/tmp/a//d/", 0}, {"/proc/none/x", -1}}) {
        EXPECT_EQ(Shell::MakeDirectoryPath(path, 0755), result);
        EXPECT_EQ(std::filesystem::is_directory(path), result == 0);
    }
    EXPECT_TRUE(Shell::HasPrefixIgnoringCase("Content-Length: 1", "content-LENGTH"));
    EXPECT_FALSE(Shell::HasPrefixIgnoringCase("Content", "Content-Length"));
    EXPECT_FALSE(Shell::HasPrefixIgnoringCase("Xontent", "c"));
}

}  // namespace
