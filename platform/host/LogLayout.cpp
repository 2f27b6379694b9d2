#include "LogLayout.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <forward_list>
#include <mutex>
#include <ostream>

#include "LogEvent.h"
#include "LogLevelManager.h"

namespace {

constexpr char kDateFormat[] = "%Y-%m-%d %H:%M:%S";
constexpr std::size_t kDateSize = 19;

struct LevelNames {
    std::mutex mutex;
    std::forward_list<std::string> all;  // also those replaced: somebody may be reading them
    std::array<std::atomic<const std::string*>, LogLevelManager::kMaxLevel + 1> current{};
};

// Logging goes on while the process ends: this is never destroyed.
LevelNames& Levels() {
    static auto& levels = *new LevelNames;
    return levels;
}

/// The calling thread's number: to ask for it is a system call.
std::string_view ThreadId() {
    thread_local std::array<char, 12> text{};
    thread_local std::size_t size = 0;
    if (size == 0) {
        size = static_cast<std::size_t>(
            std::snprintf(text.data(), text.size(), "%ld", syscall(SYS_gettid)));
    }
    return {text.data(), size};
}

/// The text of a second, which most lines share with the thread's line before.
const std::array<char, kDateSize + 1>& DateOf(std::time_t second) {
    thread_local std::time_t known = -1;
    thread_local std::array<char, kDateSize + 1> text{};
    if (second != known) {
        std::tm local{};
        localtime_r(&second, &local);
        std::strftime(text.data(), text.size(), kDateFormat, &local);
        known = second;
    }
    return text;
}

LogEvent::Time Now() {
    constexpr long kNanosecondsPerMicrosecond = 1000;
    constexpr long kBase = 10;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    LogEvent::Time time{};
    std::copy_n(DateOf(now.tv_sec).begin(), kDateSize, time.begin());
    time[kDateSize] = '.';
    long microseconds = now.tv_nsec / kNanosecondsPerMicrosecond;
    for (std::size_t place = time.size() - 1; place > kDateSize; --place) {
        time[place] = static_cast<char>('0' + microseconds % kBase);
        microseconds /= kBase;
    }
    return time;
}

}  // namespace

bool LogLevelManager::RegisterLevel(int level, const std::string& name) {
    if (level < 0 || level > kMaxLevel) {
        return false;
    }
    LevelNames& levels = Levels();
    const std::lock_guard lock(levels.mutex);
    levels.current[static_cast<std::size_t>(level)] = &levels.all.emplace_front(name);
    return true;
}

std::string LogLevelManager::GetLevelName(int level) {
    const std::string* name = level < 0 || level > kMaxLevel
                                  ? nullptr
                                  : Levels().current[static_cast<std::size_t>(level)].load();
    return name == nullptr ? std::to_string(level) : *name;
}

LogEvent::LogEvent(int level, const char* sourceFile, int sourceLine, std::string_view message)
    : time_(Now()),
      level_(level),
      threadId_(ThreadId()),
      sourceFile_(sourceFile),
      sourceLine_(sourceLine),
      message_(message) {}

std::string LogEvent::GetLogLevelName() const {
    return LogLevelManager::GetLevelName(level_);
}

void LogLayout::Format(std::ostream& out, const LogEvent& event) const {
    out << event.GetDateTimeUsec() << ' ' << event.GetLogLevelName() << ' ' << event.GetThreadId()
        << ' ' << event.GetSourceFile() << ':' << event.GetSourceLine() << ' '
        << event.GetLogMessage() << '\n';
}
