#pragma once

#include <chrono>
#include <string>

/// One log line on its way from a handler to the clients. Immutable.
class LogEvent {
public:
    /// `sourceFile` must be a string literal or outlive the event. Time and thread are taken here.
    LogEvent(int level, const char* sourceFile, int sourceLine, std::string message);

    /// Local time of the event, "YYYY-MM-DD hh:mm:ss.uuuuuu".
    std::string GetDateTimeUsec() const;
    int GetLogLevel() const { return level_; }
    /// Name of the level as registered with LogLevelManager.
    std::string GetLogLevelName() const;
    /// Kernel thread id of the thread that logged, in decimal.
    std::string GetThreadId() const;
    const std::string& GetLogMessage() const { return message_; }
    const char* GetSourceFile() const { return sourceFile_; }
    int GetSourceLine() const { return sourceLine_; }

private:
    std::chrono::system_clock::time_point time_;
    int level_;
    int threadId_;
    const char* sourceFile_;
    int sourceLine_;
    std::string message_;
};
