#pragma once

#include <chrono>
#include <string>

/// Runs one program and waits for it, without a shell.
///
/// The process that uses this may ignore SIGCHLD, so that the system keeps no exit status for it;
/// a small process in between waits for the program and tells its fate through a pipe.
class ChildProcess {
public:
    /// Output is cut here.
    static constexpr std::size_t kMaxOutput = 1024 * 1024;

    struct Result {
        /// The program came to its own end with this exit status; -1 when it did not.
        int exitStatus = -1;
        /// Standard output of the program.
        std::string output;
        /// Why there is no exit status, for people; empty when there is one.
        std::string failure;
    };

    /// Runs the executable `path` without arguments and writes `input` to its standard input. It
    /// gets no descriptor besides 0, 1 and 2, default signal dispositions, and a process group of
    /// its own, which is ended after `timeLimit`.
    static Result Run(const std::string& path, const std::string& input,
                      std::chrono::milliseconds timeLimit);

    /// Starts the executable `path` and does not wait for its end. False when it cannot be started.
    static bool Start(const std::string& path);
};
