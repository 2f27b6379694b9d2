#pragma once

#include <chrono>

#include "NetDevice.h"

/// The wired interface, "eth0".
class LanDevice : public NetDevice {
public:
    /// Longest time that a real interface takes for a link after it was set up.
    static constexpr std::chrono::seconds kSetUpTime{3};

    explicit LanDevice(const Context& context);

    /// Whether the cable is in and the other end alive (ETHTOOL_GLINK).
    bool HasLink() override;

    /// Asks until there is a link, or `timeout` is over, or it is asked to stop; at least once.
    /// Returns whether there is one, with one line in the log. An interface that cannot be asked
    /// has none.
    [[nodiscard]] bool AwaitLink(std::chrono::milliseconds timeout,
                                 const StopRequested& stopRequested);

    /// Does so for kSetUpTime when EnableInterface has really set the interface up, else asks once.
    [[nodiscard]] bool AwaitLinkAfterSetUp(const StopRequested& stopRequested);
};
