#pragma once

#include <sys/resource.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

/// Runs one program and waits for its end, within limits, or only starts it.
///
/// The process that uses this may ignore SIGCHLD, so that the system keeps no exit status for it;
/// a small process in between waits for the program and tells its fate. The program's end is the
/// end of the wait, whatever it has left running. It and all that it has started form a process
/// group, which is ended as a whole when the time limit is reached, when EndAll() is called, or
/// when the thread that waits for it ends, which it does with its process.
class ChildProcess {
public:
    /// Bytes of output that are kept; what is above is read and dropped.
    static constexpr std::size_t kMaxOutput = std::size_t{1024} * 1024;
    /// Time of what is started while a stop is requested but not yet let in (SIGTERM or SIGINT is
    /// pending), so that the stop waits for one program at most.
    static constexpr std::chrono::seconds kTimeBeforeStop{2};

    /// What is to be run.
    struct Order {
        std::string path;                         ///< of the executable
        std::vector<std::string> arguments = {};  ///< without the program's name
        std::string input = {};                   ///< its standard input
        std::chrono::milliseconds timeLimit{};
        std::string name = path;             ///< what it is called in Result::failure
        rlim_t maxFileSize = RLIM_INFINITY;  ///< bytes that it may write into one file
        bool keepsOutput = true;  ///< false: its standard output is that of the calling process
        bool runsInStop = false;  ///< is started and runs on after EndAll()
        /// False: the start is the end of the wait, with exit status 0, and the program runs on,
        /// also when the calling process ends.
        bool isWaitedFor = true;
    };

    struct Result {
        /// The program came to its own end with this exit status; -1 when it did not.
        int exitStatus = -1;
        /// Standard output of the program, kMaxOutput bytes at most.
        std::string output;
        /// Bytes of output that were dropped.
        std::size_t dropped = 0;
        /// Why it could not be started, as in errno (ECANCELED after EndAll()), else 0.
        int startError = 0;
        /// Why there is no exit status, for people; empty when there is one.
        std::string failure;
    };

    /// Runs a program. It gets no descriptor besides 0, 1 and 2, and default signal dispositions.
    [[nodiscard]] static Result Run(const Order& order);

    /// Ends what is waited for, and has nothing started any more, but for what runs in the stop.
    /// Returns at once; the callers of Run() come back right after.
    static void EndAll();

    /// Starts the executable `path` and does not wait for its end. False when it cannot be started.
    [[nodiscard]] static bool Start(const std::string& path);
};
