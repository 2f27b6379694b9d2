#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "LogClient.h"
#include "LogHandler.h"
#include "Support.h"

namespace {

constexpr int kLevel = 7;
constexpr int kOtherLevel = 8;

class MessageOnly : public LogLayout {
public:
    void Format(std::ostream& out, const LogEvent& event) const override {
        out << event.GetLogMessage() << '\n';
    }
};

class Recorder : public LogClient {
public:
    Recorder() { SetLayout(std::make_unique<MessageOnly>()); }
    std::vector<std::string> lines;

private:
    void Write(const std::string& line) override { lines.push_back(line); }
};

TEST(LogHandlerTest, LinesFollowTheTreeAsFarAsLevelsLetThem) {
    LogHandler& top = LogHandler::GetLogHandler("top");
    LogHandler& left = LogHandler::GetLogHandler("left");
    LogHandler& right = LogHandler::GetLogHandler("right");
    LogHandler& bottom = LogHandler::GetLogHandler("bottom");
    EXPECT_EQ(&top, &LogHandler::GetLogHandler("top"));
    EXPECT_TRUE(top.AddClient(left));
    EXPECT_TRUE(top.AddClient(right));
    EXPECT_TRUE(left.AddClient(bottom));
    EXPECT_TRUE(right.AddClient(bottom));
    EXPECT_FALSE(bottom.AddClient(top)) << "a circle";
    EXPECT_FALSE(top.AddClient(top));
    EXPECT_FALSE(top.IsListening(kLevel)) << "nobody writes yet";

    Recorder recorder;
    bottom.AddClient(recorder);
    EXPECT_TRUE(top.IsListening(kLevel));
    EXPECT_FALSE(top.IsListening(-1));
    EXPECT_FALSE(top.IsListening(LogLevelManager::kMaxLevel + 1));

    top.Log(kLevel, "unit", 1, "%s %d", "both ways", 1);
    left.SetLogLevel(kLevel, false);
    top.Log(kLevel, "unit", 2, "one way");
    left.Log(kLevel, "unit", 3, "stopped at the start");
    right.SetLogLevel(kLevel, false);
    EXPECT_FALSE(top.IsListening(kLevel));
    top.Log(kLevel, "unit", 4, "stopped on both ways");
    top.Log(kOtherLevel, "unit", 5, "other level");
    left.SetLogLevel(kLevel, true);
    const std::string longText(100000, 'x');
    top.Log(kLevel, "unit", 6, "%s", longText.c_str());
    bottom.RemoveClient(recorder);
    EXPECT_FALSE(top.IsListening(kLevel));
    top.Log(kLevel, "unit", 7, "nobody");
    EXPECT_EQ(recorder.lines, (std::vector<std::string>{"both ways 1\n", "one way\n",
                                                        "other level\n", longText + "\n"}));
}

TEST(LogHandlerTest, LevelsHaveNames) {
    EXPECT_TRUE(LogLevelManager::RegisterLevel(kLevel, "seven"));
    EXPECT_FALSE(LogLevelManager::RegisterLevel(-1, "none"));
    EXPECT_FALSE(LogLevelManager::RegisterLevel(LogLevelManager::kMaxLevel + 1, "none"));
    EXPECT_EQ(LogLevelManager::GetLevelName(kLevel), "seven");
    EXPECT_EQ(LogLevelManager::GetLevelName(kOtherLevel), "8");
}

TEST(LogHandlerTest, AFileThatCannotBeWrittenIsNoFailure) {
    WriteFile("/tmp/plain", "x");
    LogClientRollingFile impossible("/tmp/plain/a.log", 1000, 2);
    impossible.Append(LogEvent(kLevel, "unit", 1, "lost"));
    LogClientRollingFile full("/dev/full", 1000000, 1);
    full.Append(LogEvent(kLevel, "unit", 1, "lost"));
}

TEST(LogHandlerTest, LinesOfManyThreadsStayWhole) {
    LogHandler& handler = LogHandler::GetLogHandler("threads");
    LogClientRollingFile file("/tmp/threads.log", 100000000, 1);
    file.SetLayout(std::make_unique<MessageOnly>());
    handler.AddClient(file);
    InFourThreads([&handler](int t) {
        for (int i = 0; i < 200; ++i) {
            handler.Log(kLevel, "unit", 1, "%s",
                        std::string(500, static_cast<char>('a' + t)).c_str());
        }
    });
    handler.RemoveClient(file);
    std::istringstream lines(ReadFile("/tmp/threads.log"));
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        ASSERT_EQ(line, std::string(500, line[0]));
    }
    EXPECT_EQ(count, 800);
}

}  // namespace
