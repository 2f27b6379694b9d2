#include "LogLayout.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <ostream>
#include <unordered_map>
#include <utility>

#include "LogEvent.h"
#include "LogLevelManager.h"

namespace {

struct LevelNames {
    std::mutex mutex;
    std::unordered_map<int, std::string> names;
};

// Logging goes on while the process ends: this is never destroyed.
LevelNames& Levels() {
    static auto& levels = *new LevelNames;
    return levels;
}

}  // namespace

bool LogLevelManager::RegisterLevel(int level, const std::string& name) {
    if (level < 0 || level > kMaxLevel) {
        return false;
    }
    const std::lock_guard lock(Levels().mutex);
    Levels().names[level] = name;
    return true;
}

std::string LogLevelManager::GetLevelName(int level) {
    const std::lock_guard lock(Levels().mutex);
    const auto found = Levels().names.find(level);
    return found == Levels().names.end() ? std::to_string(level) : found->second;
}

LogEvent::LogEvent(int level, const char* sourceFile, int sourceLine, std::string message)
    : time_(std::chrono::system_clock::now()),
      level_(level),
      threadId_(static_cast<int>(syscall(SYS_gettid))),
      sourceFile_(sourceFile),
      sourceLine_(sourceLine),
      message_(std::move(message)) {}

std::string LogEvent::GetDateTimeUsec() const {
    const auto sinceEpoch =
        std::chrono::duration_cast<std::chrono::microseconds>(time_.time_since_epoch()).count();
    const auto seconds = static_cast<std::time_t>(sinceEpoch / 1000000);
    std::tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 32> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text.data() + length, text.size() - length, ".%06d",
                  static_cast<int>(sinceEpoch % 1000000));
    return text.data();
}

std::string LogEvent::GetLogLevelName() const {
    return LogLevelManager::GetLevelName(level_);
}

std::string LogEvent::GetThreadId() const {
    return std::to_string(threadId_);
}

void LogLayout::Format(std::ostream& out, const LogEvent& event) const {
    out << event.GetDateTimeUsec() << ' ' << event.GetLogLevelName() << ' ' << event.GetThreadId()
        << ' ' << event.GetSourceFile() << ':' << event.GetSourceLine() << ' '
        << event.GetLogMessage() << '\n';
}
