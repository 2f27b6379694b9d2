#pragma once

#include <atomic>
#include <chrono>
#include <string>

#include "HeldMutex.h"

/// The box's self test, shared by all who ask for it at a time. One test is at work at a time: it
/// works on the hardware, and its result is a file. Who has waited for one takes the result of any
/// that began after he came, so that callers do not queue up. Thread-safe.
class SharedSelfTest {
public:
    /// What a caller waits for a test at work.
    static constexpr std::chrono::seconds kTimeout{10};

    /// The lines of a result, each ended by ";"; none when the wait was in vain.
    std::string Run();

private:
    HeldMutex mutex_;
    std::atomic<unsigned> begun_ = 0;
    unsigned done_ = 0;  // the latest test that has come to its end
};
