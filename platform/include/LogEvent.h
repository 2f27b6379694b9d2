#pragma once

#include <array>
#include <string>
#include <string_view>

/// One log line on its way from a handler to the clients. Immutable. What its getters return is
/// valid as long as the event is.
class LogEvent {
public:
    using Time = std::array<char, 26>;

    /// `sourceFile` must be a string literal, or outlive the event as `message` must. Time and
    /// thread are taken here.
    LogEvent(int level, const char* sourceFile, int sourceLine, std::string_view message);
    LogEvent(const LogEvent&) = delete;
    LogEvent& operator=(const LogEvent&) = delete;

    /// Local time of the event, "YYYY-MM-DD hh:mm:ss.uuuuuu".
    std::string_view GetDateTimeUsec() const { return {time_.data(), time_.size()}; }
    int GetLogLevel() const { return level_; }
    /// Name of the level as registered with LogLevelManager.
    std::string GetLogLevelName() const;
    /// Kernel thread id of the thread that logged, in decimal.
    std::string_view GetThreadId() const { return threadId_; }
    std::string_view GetLogMessage() const { return message_; }
    const char* GetSourceFile() const { return sourceFile_; }
    int GetSourceLine() const { return sourceLine_; }

private:
    Time time_;
    int level_;
    std::string_view threadId_;
    const char* sourceFile_;
    int sourceLine_;
    std::string_view message_;
};
