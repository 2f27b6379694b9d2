#include "ZelLogging.h"

#include <iomanip>
#include <memory>
#include <ostream>

#include "SelfTest.h"
#include "ZelLog.h"

namespace {

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

}  // namespace

void ZelLogging::ZelLogLayout::Format(std::ostream& out, const LogEvent& event) const {
    out << event.GetDateTimeUsec() << "  " << std::left << std::setw(kLevelWidth)
        << event.GetLogLevelName() << std::setw(kThreadWidth) << event.GetThreadId()
        << event.GetLogMessage() << '\n';
}

ZelLogging::ZelLogging() : file_(kLogFile, kFileSizeLimit, kFileCount) {
    const LibSelfTestLogger selfTestLogger;
    LogLevelManager::RegisterLevel(ZelLog::kInfo, "info");
    LogLevelManager::RegisterLevel(ZelLog::kDebug, "debug");
    LogLevelManager::RegisterLevel(ZelLog::kError, "error");

    LogHandler& handler = ZelLog::Handler();
    LogHandler& console = LogHandler::GetLogHandler(kConsoleHandler);
    LogHandler& file = LogHandler::GetLogHandler(kFileHandler);
    LogHandler::GetLogHandler(kSelfTestHandler).AddClient(handler);
    handler.AddClient(console);
    handler.AddClient(file);
    console.SetLogLevel(ZelLog::kDebug, false);
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
