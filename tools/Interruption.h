#pragma once

#include <chrono>

#include "SocketGuard.h"

/// Turns SIGINT and SIGTERM, from its making on, into something that can be waited for.
class Interruption {
public:
    Interruption();

    /// Can be read once there was a signal.
    int Descriptor() const { return descriptor_.Get(); }
    /// Whether there was a signal, or comes one in that time.
    bool WithinTime(std::chrono::milliseconds time) const;

private:
    SocketGuard descriptor_;
};
