#include "LogClient.h"
#include "LogHandler.h"
#include "Support.h"

namespace {

constexpr int kLevel = 7;
constexpr int kOtherLevel = 8;

struct MessageOnly : LogLayout {
    void Format(std::ostream& out, const LogEvent& event) const override {
        out << event.GetLogMessage() << '\n';
    }
};

class Recorder : public LogClient {
public:
    Recorder() { SetLayout(std::make_unique<MessageOnly>()); }
    std::string lines;

private:
    void Write(const std::string& line) override { lines += line; }
};

TEST(LogHandlerTest, LinesFollowTheTreeAsFarAsLevelsLetThem) {
    LogHandler& top = LogHandler::GetLogHandler("top");
    LogHandler& left = LogHandler::GetLogHandler("left");
    LogHandler& right = LogHandler::GetLogHandler("right");
    LogHandler& bottom = LogHandler::GetLogHandler("bottom");
    EXPECT_EQ(&top, &LogHandler::GetLogHandler("top"));
    EXPECT_TRUE(top.AddClient(left) && top.AddClient(right));
    EXPECT_TRUE(left.AddClient(bottom) && right.AddClient(bottom));
    EXPECT_FALSE(bottom.AddClient(top) || top.AddClient(top)) << "a circle";
    EXPECT_FALSE(top.IsListening(kLevel)) << "nobody writes yet";

    Recorder recorder;
    bottom.AddClient(recorder);
    EXPECT_TRUE(top.IsListening(kLevel));
    EXPECT_FALSE(top.IsListening(-1) || top.IsListening(LogLevelManager::kMaxLevel + 1));
    EXPECT_FALSE(LogLevelManager::RegisterLevel(LogLevelManager::kMaxLevel + 1, "none"));
    EXPECT_EQ(LogLevelManager::GetLevelName(kOtherLevel), "8");

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
    EXPECT_EQ(recorder.lines, "both ways 1\none way\nother level\n" + longText + "\n");
}

TEST(LogHandlerTest, LinesOfManyThreadsStayWhole) {
    LogHandler& handler = LogHandler::GetLogHandler("threads");
    LogClientRollingFile file("/tmp/threads.log", 100000000, 1);
    file.SetLayout(std::make_unique<MessageOnly>());
    handler.AddClient(file);
    InFourThreads([&handler](int t) {
        const std::string line(500, static_cast<char>('a' + t));
        for (int i = 0; i < 200; ++i) {
            handler.Log(kLevel, "unit", 1, "%s", line.c_str());
        }
    });
    handler.RemoveClient(file);
    EXPECT_EQ(OutputOf("sort /tmp/threads.log | uniq -c | sed 's/ *\\([0-9]* .\\).*/\\1/'"),
              "200 a\n200 b\n200 c\n200 d\n");
}

}  // namespace
