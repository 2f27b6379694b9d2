#pragma once

#include <string_view>

#include "LogHandler.h"

/// What every unit logs with: the agent's handler, its levels and the macros below.
namespace ZelLog {

inline constexpr int kInfo = 101;
inline constexpr int kDebug = 102;
inline constexpr int kError = 103;

/// The agent's handler, "zelloghandler". Nobody listens until ZelLogging has been made.
LogHandler& Handler();

/// Lines at level "debug" that a limited thread writes in a second, in the long run, and at once
/// after a pause.
inline constexpr int kLimitedRate = 10;
inline constexpr int kLimitedBurst = 200;

/// Limits the calling thread while it lives: for one that logs whatever strangers throw at it, who
/// would wash everything else out of the log. How many lines were dropped is told.
class Limit {
public:
    Limit();
    ~Limit();
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;
};

/// Whether the calling thread may write one more line; it then counts.
bool Admit(int level);

}  // namespace ZelLog

// The source name of a log line: the unit's path ("src/NetDevice.cpp"). The two oldest units have
// always been named without extension.
constexpr std::string_view kZelSourceExtension = ".cpp";
template <std::size_t N>
struct ZelSourceName {
    char text[N]{};
    constexpr explicit ZelSourceName(const char (&path)[N]) {
        std::string_view name(path, N - 1);
        if (name == "src/Zel.cpp" || name == "src/Shell.cpp") {
            name.remove_suffix(kZelSourceExtension.size());
        }
        for (std::size_t i = 0; i < name.size(); ++i) {
            text[i] = name[i];
        }
    }
};

// A line that nobody listens to costs one comparison: its arguments are not evaluated.
#define ZEL_LOG(level, ...)                                                      \
    do {                                                                         \
        LogHandler& zelLogHandler = ZelLog::Handler();                           \
        if (zelLogHandler.IsListening(level) && ZelLog::Admit(level)) {          \
            static constexpr ZelSourceName kZelLogSource(__FILE__);              \
            zelLogHandler.Log(level, kZelLogSource.text, __LINE__, __VA_ARGS__); \
        }                                                                        \
    } while (false)

/// Log a printf-style line under the agent's handler at level "info", "debug" or "error".
#define ZEL_INFO(...) ZEL_LOG(ZelLog::kInfo, __VA_ARGS__)
#define ZEL_DEBUG(...) ZEL_LOG(ZelLog::kDebug, __VA_ARGS__)
#define ZEL_ERROR(...) ZEL_LOG(ZelLog::kError, __VA_ARGS__)
