#pragma once

#include <functional>

/// Keeps the agent alive when one of its threads faults.
///
/// A segmentation fault is reported in the log and ends only the faulting thread. A thread that
/// runs inside Run() is taken back to it: what Run()'s caller owns is released as usual, locks of
/// the kind HeldMutex that the thread held are released, and what the abandoned frames owned on
/// the heap is lost. Other threads are ended where they are.
namespace CrashGuard {

/// Installs the SIGSEGV report for the process.
void Install();

/// Runs `work` on an alternate signal stack of its own. Returns true when it came to its end and
/// false when it faulted.
[[nodiscard]] bool Run(const std::function<void()>& work);

}  // namespace CrashGuard
