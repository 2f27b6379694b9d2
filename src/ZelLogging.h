#pragma once

#include <iosfwd>
#include <string_view>

#include "LogClient.h"
#include "LogHandler.h"
#include "LogLayout.h"

/// Logging of the agent: its levels, its handler tree, its file layout, and the macros that every
/// unit logs with.
class ZelLogging {
public:
    static constexpr int kInfo = 101;
    static constexpr int kDebug = 102;
    static constexpr int kError = 103;

    static constexpr char kLogFile[] = "/tmp/log/nativezel.log";

    /// Layout of the log file: time, two blanks, level padded to 8, thread id padded to 6, message,
    /// line feed.
    class ZelLogLayout : public LogLayout {
    public:
        void Format(std::ostream& out, const LogEvent& event) const override;
    };

    /// Registers the levels, wires the handlers and attaches console and log file. To be done
    /// before anything is logged; the clients live as long as the object.
    ZelLogging();
    ~ZelLogging();
    ZelLogging(const ZelLogging&) = delete;
    ZelLogging& operator=(const ZelLogging&) = delete;

    /// The agent's handler, "zelloghandler".
    static LogHandler& Handler();

    /// Lines at level "debug" that a limited thread writes in a second, in the long run, and at
    /// once after a pause.
    static constexpr int kLimitedRate = 10;
    static constexpr int kLimitedBurst = 200;

    /// Limits the calling thread while it lives: for one that logs whatever strangers throw at it,
    /// who would wash everything else out of the log. How many lines were dropped is told.
    class Limit {
    public:
        Limit();
        ~Limit();
        Limit(const Limit&) = delete;
        Limit& operator=(const Limit&) = delete;
    };
    /// Whether the calling thread may write one more line; it then counts.
    static bool Admit(int level);

private:
    LogClientConsole console_;
    LogClientRollingFile file_;
};

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
        LogHandler& zelLogHandler = ZelLogging::Handler();                       \
        if (zelLogHandler.IsListening(level) && ZelLogging::Admit(level)) {      \
            static constexpr ZelSourceName kZelLogSource(__FILE__);              \
            zelLogHandler.Log(level, kZelLogSource.text, __LINE__, __VA_ARGS__); \
        }                                                                        \
    } while (false)

/// Log a printf-style line under the agent's handler at level "info", "debug" or "error".
#define ZEL_INFO(...) ZEL_LOG(ZelLogging::kInfo, __VA_ARGS__)
#define ZEL_DEBUG(...) ZEL_LOG(ZelLogging::kDebug, __VA_ARGS__)
#define ZEL_ERROR(...) ZEL_LOG(ZelLogging::kError, __VA_ARGS__)
