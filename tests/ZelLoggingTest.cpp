#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "ZelLogging.h"

namespace {

std::string ReadFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

TEST(ZelLoggingTest, DebugLinesReachTheFileOnly) {
    testing::internal::CaptureStdout();
    {
        const ZelLogging logging;
        ZEL_INFO("an %s line", "info");
        ZEL_DEBUG("a debug line");
        ZEL_ERROR("an error line");
        LogHandler::GetLogHandler("selftestloghandler").Log(ZelLogging::kInfo, "", 1, "self test");
        LogHandler::GetLogHandler("DispatcherLog").Log(ZelLogging::kDebug, "", 1, "command");
    }
    const std::string console = testing::internal::GetCapturedStdout();
    EXPECT_NE(console.find("an info line"), std::string::npos);
    EXPECT_NE(console.find("an error line"), std::string::npos);
    EXPECT_NE(console.find("self test"), std::string::npos);
    EXPECT_EQ(console.find("a debug line"), std::string::npos);
    EXPECT_EQ(console.find("command"), std::string::npos);

    std::string thread = std::to_string(gettid());
    thread.resize(std::max<std::size_t>(thread.size(), 6), ' ');
    const std::string time = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6})";
    std::string expected;
    for (const char* line : {"info    %an info line", "debug   %a debug line",
                             "error   %an error line", "info    %self test", "debug   %command"}) {
        expected += time + "  " + line + "\n";
    }
    expected = std::regex_replace(expected, std::regex("%"), thread);
    const std::string file = ReadFile(ZelLogging::kLogFile);
    EXPECT_TRUE(std::regex_match(file, std::regex(expected))) << file;
}

TEST(ZelLoggingTest, FileRollsOverAndTwoAreKept) {
    const ZelLogging logging;
    for (int i = 0; i < 3000; ++i) {
        ZEL_DEBUG("%s", std::string(1000, 'x').c_str());
    }
    const std::filesystem::path directory =
        std::filesystem::path(ZelLogging::kLogFile).parent_path();
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        ++files;
        EXPECT_LE(entry.file_size(), 1048576U) << entry.path();
    }
    EXPECT_EQ(files, 2);
}

TEST(ZelLoggingTest, NothingIsEvaluatedWhenNobodyListens) {
    int evaluated = 0;
    const auto argument = [&evaluated] { return ++evaluated; };
    ZEL_ERROR("%d", argument());
    EXPECT_EQ(evaluated, 0);
    const ZelLogging logging;
    ZEL_ERROR("%d", argument());
    EXPECT_EQ(evaluated, 1);
}

}  // namespace
