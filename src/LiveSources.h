#pragma once

#include <optional>

#include "KvadVin.h"

/// What several values of the store have in common, read when the first of them is asked for: what
/// one answer is made of reads nothing twice, and its values belong together. Lives for one answer.
class LiveSources {
public:
    /// What is known of the vehicle; null when that is nothing.
    const KvadVin* Vehicle();
    /// Whether the interface to the optical bus is there.
    bool HasOpticalBus();

private:
    std::optional<KvadVin> vehicle_;
    bool isVehicleRead_ = false;
    std::optional<bool> hasOpticalBus_;
};
