#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <cstdarg>
#include <string>
#include <string_view>

#include "ChildProcess.h"

/// Runs the board's tools. Keeps no state; any thread may call it. Descriptors of the agent never
/// reach a tool. A tool that reaches a limit, or is at work when everything is ended
/// (ChildProcess::EndAll), is ended with all that it has started, and a line in the log says so.
/// What a tool has left in the background when its shell ends stays.
class Shell {
public:
    /// Command lines are cut at this many bytes, the terminating zero included.
    static constexpr std::size_t kCommandSize = 512;
    /// Output beyond this is read and dropped, with a line in the log.
    static constexpr std::size_t kMaxOutput = ChildProcess::kMaxOutput;
    /// Bytes of a tool's output in the log; the rest is cut there.
    static constexpr std::size_t kMaxLogged = std::size_t{64} * 1024;
    /// What a command may take until its shell has ended.
    static constexpr std::chrono::seconds kTimeLimit{60};

    /// Limits of one command.
    struct Limits {
        std::chrono::milliseconds time = kTimeLimit;
        rlim_t fileSize = RLIM_INFINITY;  ///< bytes that it may write into one file
        bool runsInStop = false;          ///< runs although everything is ended
    };

    /// How far a command came.
    enum class Fate {
        kNotStarted,
        kCutShort,  ///< it was ended, or its shell crashed
        kEnded,     ///< with an exit status other than 0, which not every tool means
        kSucceeded
    };

    /// Runs the command line made from `format` through the system shell, waits for the shell's end
    /// (not for what it left in the background) and sets `result` to its standard output. Returns
    /// false when the command could not be started; how it went otherwise is not looked at.
    [[nodiscard]] static bool RunSystemWithResult(std::string& result, const char* format, ...)
        __attribute__((format(printf, 2, 3)));

    /// The same within other limits.
    [[nodiscard]] static Fate RunWithin(const Limits& limits, std::string& result,
                                        const char* format, ...)
        __attribute__((format(printf, 3, 4)));

    /// Runs a command line through the system shell and waits for the shell's end. Its output goes
    /// where the agent's goes.
    static void RunSystem(const std::string& command);

    /// Ends the process named in a pid file: "kill", half a second, then "kill -9" and removal of
    /// the file if it is still there.
    static void KillByPidFile(const std::string& path);

    /// Loads a kernel module unless a loaded module's name contains `name`. Returns 0, or -1 when
    /// the tool could not be started.
    [[nodiscard]] static int LoadModule(const std::string& name, const std::string& path,
                                        const std::string& parameters);

    /// Makes `path` and the directories above it. Returns 0, or -1 with errno set.
    [[nodiscard]] static int MakeDirectoryPath(const std::string& path, mode_t mode);

    /// Whether `text` begins with `prefix`, upper and lower case being the same (ASCII).
    static bool HasPrefixIgnoringCase(std::string_view text, std::string_view prefix);

private:
    [[nodiscard]] static Fate RunFormatted(const Limits& limits, std::string& result,
                                           const char* format, va_list arguments)
        __attribute__((format(printf, 3, 0)));
};
