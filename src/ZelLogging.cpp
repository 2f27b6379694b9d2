#include "ZelLogging.h"

#include <algorithm>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <string_view>

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

constexpr std::size_t kGap = 2;
constexpr std::size_t kLevelWidth = 8;
constexpr std::size_t kThreadWidth = 6;

/// Left-aligned; returns what is behind.
char* Put(std::string_view text, std::size_t width, char* place) {
    std::fill_n(std::copy(text.begin(), text.end(), place), width - text.size(), ' ');
    return place + width;
}

}  // namespace

void ZelLogging::ZelLogLayout::Format(std::ostream& out, const LogEvent& event) const try {
    const auto& time = event.GetDateTimeUsec();
    const auto& level = event.GetLogLevelName();
    const auto& thread = event.GetThreadId();
    const auto& message = event.GetLogMessage();
    const std::size_t timeWidth = time.size() + kGap;
    const std::size_t levelWidth = std::max(level.size(), kLevelWidth);
    const std::size_t threadWidth = std::max(thread.size(), kThreadWidth);
    const std::size_t size = timeWidth + levelWidth + threadWidth + message.size() + 1;
    // In one piece: each output to a stream costs as much as all of this.
    const auto line = std::make_unique_for_overwrite<char[]>(size);
    char* place = Put(time, timeWidth, line.get());
    place = Put(level, levelWidth, place);
    place = Put(thread, threadWidth, place);
    *Put(message, message.size(), place) = '\n';
    out.write(line.get(), static_cast<std::streamsize>(size));
} catch (const std::bad_alloc&) {
    out.setstate(std::ios_base::badbit);  // as the stream itself does
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
