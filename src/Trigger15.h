#pragma once

#include "SocketGuard.h"

/// The edge flag of terminal 15, kept by the measurement device.
class Trigger15 {
public:
    static constexpr char kDevice[] = "/dev/measure/0";

    /// Opens the device. Until then, and without one, queries and resets fail.
    void Open();

    /// Whether an edge was seen since the last reset. Returns false when the device does not
    /// answer.
    [[nodiscard]] bool Query(bool& triggered) const;

    /// Forgets the edge. Returns false when the device does not answer.
    [[nodiscard]] bool Reset() const;

private:
    SocketGuard descriptor_;
};
