#pragma once

#include <chrono>

#include "SocketGuard.h"

/// Turns SIGINT and SIGTERM, from its making on, into something that can be waited for. That nobody
/// reads standard output any more counts as well.
class Interruption {
public:
    Interruption();

    /// Can be read once there was a signal (not the rest).
    int Descriptor() const { return descriptor_.Get(); }
    /// Whether it was, or is in that time.
    bool WithinTime(std::chrono::milliseconds time) const;
    /// Waits until standard output takes a line: who reads it may pause. False when there was a
    /// signal.
    bool AwaitOutput() const;
    /// Lets the signals through to the calling thread again: one that came does what it always
    /// does, mostly end the process.
    static void Deliver();

private:
    SocketGuard descriptor_;
};
