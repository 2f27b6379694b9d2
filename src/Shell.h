#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

/// Runs the board's tools. Keeps no state; any thread may call it. Descriptors of the agent never
/// reach a tool.
class Shell {
public:
    /// Command lines are cut at this many bytes, the terminating zero included.
    static constexpr std::size_t kCommandSize = 512;
    /// Output beyond this is read and dropped.
    static constexpr std::size_t kMaxOutput = 4 * 1024 * 1024;

    /// Runs the command line made from `format` through the system shell, waits for the end of its
    /// standard output and sets `result` to it. Returns false when the command could not be
    /// started; the command's exit status is not looked at.
    static bool RunSystemWithResult(std::string& result, const char* format, ...)
        __attribute__((format(printf, 2, 3)));

    /// Runs a command line through the system shell and waits for the shell's end (not for what it
    /// left in the background). Its output goes where the agent's goes.
    static void RunSystem(const std::string& command);

    /// Ends the process named in a pid file: "kill", half a second, then "kill -9" and removal of
    /// the file if it is still there. Returns 0.
    static int KillByPidFile(const std::string& path);

    /// Loads a kernel module unless a loaded module's name contains `name`. Returns 0, or -1 when
    /// the tool could not be started.
    static int LoadModule(const std::string& name, const std::string& path,
                          const std::string& parameters);

    /// Makes `path` and the directories above it. Returns 0, or -1 with errno set.
    static int MakeDirectoryPath(const std::string& path, mode_t mode);

    /// Whether `text` begins with `prefix`, upper and lower case being the same (ASCII).
    static bool HasPrefixIgnoringCase(std::string_view text, std::string_view prefix);
};
