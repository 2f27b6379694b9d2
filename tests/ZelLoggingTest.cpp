#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "Console.h"
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

TEST(ZelLoggingTest, ALimitedThreadWashesNothingOut) {
    const ZelLogging logging;
    std::thread([] {
        const ZelLogging::Limit limit;
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

/// Two connected ends of each kind that standard output can be.
std::array<int, 2> MakeEnds(const std::string& kind) {
    std::array<int, 2> ends{-1, -1};
    if (kind == "pipe") {
        EXPECT_EQ(pipe(ends.data()), 0);
    } else if (kind == "socket") {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    } else if (openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr) != 0) {
        return {-1, -1};  // a box has no terminals
    }
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    return ends;
}

void Drain(int descriptor, std::string& text) {
    std::array<char, 4096> part{};
    pollfd input{descriptor, POLLIN, 0};
    while (poll(&input, 1, 500) > 0) {
        const ssize_t count = read(descriptor, part.data(), part.size());
        if (count <= 0) {
            break;
        }
        text.append(part.data(), static_cast<std::size_t>(count));
    }
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
}

TEST(ZelLoggingTest, AConsoleThatNobodyDrainsLosesWholeLinesAndTellsHowMany) {
    const std::string line = std::string(700, 'x') + "\n";
    for (const std::string kind : {"pipe", "socket", "terminal"}) {
        const std::array<int, 2> ends = MakeEnds(kind);
        if (ends[1] < 0) {
            continue;
        }
        std::fflush(stdout);
        const int normal = dup(STDOUT_FILENO);
        dup2(ends[1], STDOUT_FILENO);
        const int flags = fcntl(ends[1], F_GETFL);
        for (int i = 0; i < 2000; ++i) {
            Console::Print(line);
        }
        std::string text;
        Drain(ends[0], text);
        Console::Print("again\n");
        Drain(ends[0], text);
        EXPECT_EQ(fcntl(ends[1], F_GETFL), flags) << "others share it";
        dup2(normal, STDOUT_FILENO);
        for (const int descriptor : {normal, ends[0], ends[1]}) {
            close(descriptor);
        }
        // A terminal takes a little more now and then.
        int found = 0;
        std::istringstream lines(text);
        for (std::string got; std::getline(lines, got);) {
            if (std::regex_match(got, std::regex("\\d+ lines lost"))) {
                found += std::stoi(got);
            } else if (got + "\n" == line) {
                ++found;
            } else {
                EXPECT_TRUE(got == "again" || got.ends_with("...")) << got;
            }
        }
        EXPECT_EQ(found, 2000) << kind;
        EXPECT_TRUE(text.starts_with(line) && text.ends_with(" lost\nagain\n")) << kind;
    }
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
