#pragma once

#include <string>

/// What the tool's exit status says.
enum class ExitStatus {
    kDone = 0,
    kRefused = 1,        ///< the box has understood and does not do it
    kUsage = 2,          ///< the command line is wrong
    kUnreachable = 3,    ///< no such box, or it cannot be reached
    kNotUnderstood = 4,  ///< the answer is a fault or makes no sense
    kNotWritten = 5      ///< standard output takes no more
};

/// How something ended, and if it failed, one line that says why.
struct [[nodiscard]] Outcome {
    ExitStatus status = ExitStatus::kDone;
    std::string text;
    /// Whether what was asked may have been done all the same: only its answer is missing.
    bool isOpen = false;

    bool Failed() const { return status != ExitStatus::kDone; }
};
