#include "ZelLogging.h"

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <memory>
#include <ostream>
#include <utility>

#include "SelfTest.h"

namespace {

constexpr char kHandler[] = "zelloghandler";
constexpr char kConsoleHandler[] = "zellogconsole";
constexpr char kFileHandler[] = "zellogfile";
// Of the platform's libraries.
constexpr char kSelfTestHandler[] = "selftestloghandler";
constexpr char kDispatcherHandler[] = "DispatcherLog";
constexpr char kUpdateHandler[] = "UpdateFirmwareLog";

// A level of the platform's own libraries that is too chatty for a console.
constexpr int kPlatformTrace = 342;

constexpr std::size_t kFileSizeLimit = 1048576;
constexpr std::size_t kFileCount = 2;

constexpr int kLevelWidth = 8;
constexpr int kThreadWidth = 6;

using Clock = std::chrono::steady_clock;

/// One line more is a kLimitedRate-th of a second more until the whole burst is there again.
struct Allowance {
    bool isLimited = false;
    unsigned long dropped = 0;
    Clock::time_point restored{};
};
thread_local Allowance allowance;

}  // namespace

void ZelLogging::ZelLogLayout::Format(std::ostream& out, const LogEvent& event) const {
    out << event.GetDateTimeUsec() << "  " << std::left << std::setw(kLevelWidth)
        << event.GetLogLevelName() << std::setw(kThreadWidth) << event.GetThreadId()
        << event.GetLogMessage() << '\n';
}

ZelLogging::ZelLogging() : file_(kLogFile, kFileSizeLimit, kFileCount) {
    const LibSelfTestLogger selfTestLogger;
    LogLevelManager::RegisterLevel(kInfo, "info");
    LogLevelManager::RegisterLevel(kDebug, "debug");
    LogLevelManager::RegisterLevel(kError, "error");

    LogHandler& handler = Handler();
    LogHandler& console = LogHandler::GetLogHandler(kConsoleHandler);
    LogHandler& file = LogHandler::GetLogHandler(kFileHandler);
    LogHandler::GetLogHandler(kSelfTestHandler).AddClient(handler);
    handler.AddClient(console);
    handler.AddClient(file);
    console.SetLogLevel(kDebug, false);
    console.SetLogLevel(kPlatformTrace, false);
    console.AddClient(console_);
    file_.SetLayout(std::make_unique<ZelLogLayout>());
    file.AddClient(file_);
    LogHandler::GetLogHandler(kDispatcherHandler).AddClient(handler);
    LogHandler::GetLogHandler(kUpdateHandler).AddClient(handler);
}

ZelLogging::~ZelLogging() {
    LogHandler::GetLogHandler(kConsoleHandler).RemoveClient(console_);
    LogHandler::GetLogHandler(kFileHandler).RemoveClient(file_);
}

LogHandler& ZelLogging::Handler() {
    static LogHandler& handler = LogHandler::GetLogHandler(kHandler);
    return handler;
}

ZelLogging::Limit::Limit() {
    allowance.isLimited = true;
}

ZelLogging::Limit::~Limit() {
    allowance.isLimited = false;
}

bool ZelLogging::Admit(int level) {
    if (!allowance.isLimited || level != kDebug) {
        return true;
    }
    constexpr std::chrono::nanoseconds kCost =
        std::chrono::nanoseconds(std::chrono::seconds(1)) / kLimitedRate;
    const Clock::time_point now = Clock::now();
    const Clock::time_point restored = std::max(allowance.restored, now) + kCost;
    if (restored - now > kLimitedBurst * kCost) {
        ++allowance.dropped;
        return false;
    }
    allowance.restored = restored;
    if (const unsigned long dropped = std::exchange(allowance.dropped, 0); dropped > 0) {
        ZEL_INFO("Too much to log: %lu lines dropped", dropped);
    }
    return true;
}
