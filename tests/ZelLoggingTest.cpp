#include <fcntl.h>

#include <regex>

#include "Console.h"
#include "Support.h"
#include "ZelLog.h"
#include "ZelLogging.h"

namespace {

TEST(ZelLoggingTest, DebugLinesReachTheFileOnly) {
    int evaluated = 0;
    ZEL_ERROR("%d", ++evaluated);
    EXPECT_EQ(evaluated, 0) << "nobody listens";
    testing::internal::CaptureStdout();
    {
        const ZelLogging logging;
        ZEL_INFO("an %s line", "info");
        ZEL_DEBUG("a debug line");
        ZEL_ERROR("an error line");
        LogHandler::GetLogHandler("selftestloghandler").Log(ZelLog::kInfo, "", 1, "self test");
        LogHandler::GetLogHandler("UpdateFirmwareLog").Log(ZelLog::kError, "", 1, "update");
        LogHandler::GetLogHandler("DispatcherLog").Log(ZelLog::kDebug, "", 1, "command");
    }
    std::string console = testing::internal::GetCapturedStdout();
    std::string thread = std::to_string(gettid());
    thread.resize(std::max<std::size_t>(thread.size(), 6), ' ');
    const std::string time = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6})";
    std::string expected;
    for (const char* line :
         {"info    %an info line", "debug   %a debug line", "error   %an error line",
          "info    %self test", "error   %update", "debug   %command"}) {
        expected += time + "  " + line + "\n";
    }
    expected = std::regex_replace(expected, std::regex("%"), thread);
    const std::string file = ReadFile(ZelLogging::kLogFile);
    EXPECT_TRUE(std::regex_match(file, std::regex(expected))) << file;
    ExpectParts(console, {"an info line", "an error line", "self test", "update"});
    EXPECT_TRUE(console.find("debug") == console.npos && console.find("command") == console.npos);
}

TEST(ZelLoggingTest, ALimitedThreadWashesNothingOut) {
    const ZelLogging logging;
    std::thread([] {
        const ZelLog::Limit limit;
        for (int i = 0; i < 20000; ++i) {
            ZEL_DEBUG("rubbish");
        }
        ZEL_ERROR("an error line");
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        ZEL_DEBUG("after a pause");
    }).join();
    const std::string file = ReadFile(ZelLogging::kLogFile);
    EXPECT_LT(file.size(), 100000U);
    EXPECT_TRUE(std::regex_search(file, std::regex("an error line\n.*Too much to log: 19\\d+ lines "
                                                   "dropped\n.*after a pause\n$")));
}

TEST(ZelLoggingTest, AConsoleThatNobodyDrainsLosesWholeLinesAndTellsHowMany) {
    const std::string line = std::string(700, 'x') + "\n";
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    const int flags = fcntl(ends[1], F_GETFL);
    std::fflush(stdout);
    const int normal = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    for (int i = 0; i < 2000; ++i) {
        Console::Print(line);
    }
    std::string text = ReadToEnd(ends[0]);
    Console::Print("again\n");
    text += ReadToEnd(ends[0]);
    EXPECT_EQ(fcntl(ends[1], F_GETFL), flags) << "others share it";
    dup2(normal, STDOUT_FILENO);
    for (const int descriptor : {normal, ends[0], ends[1]}) {
        close(descriptor);
    }
    WriteFile("/tmp/console", text);
    EXPECT_EQ(OutputOf("awk '/^x+$/ && length == 700 {n++} / lines lost$/ {n += $1} END {print n}'"
                       " /tmp/console; grep -Ev '^(x+([.]{3})?|[0-9]+ lines lost)$' /tmp/console"),
              "2000\nagain\n");
    EXPECT_TRUE(text.starts_with(line) && text.ends_with(" lost\nagain\n"));
}

TEST(ZelLoggingTest, FileRollsOverAndTwoAreKept) {
    const ZelLogging logging;
    for (int i = 0; i < 3000; ++i) {
        ZEL_DEBUG("%s%d", std::string(1000, 'x').c_str(), i);
    }
    EXPECT_EQ(OutputOf("cd /tmp/log; ls; find -size +1048576c; grep -c x2999 nativezel.log"),
              "nativezel.1.log\nnativezel.log\n1\n");
}

}  // namespace
