#pragma once

#include <atomic>
#include <string>

#include "AddressMode.h"
#include "HeldMutex.h"
#include "ZelConfig.h"

/// Watches how the box came by its address and whether it was then found, and rewrites the address
/// mode of the next start ("network.config.discover.mode") accordingly. Thread-safe; an event that
/// rewrites the mode returns once the configuration is saved.
class DiscoverModeCtrl {
public:
    using enum AddressMode;

    enum class Trigger {
        kAssigning = 0,  ///< an address assignment begins; of that mode
        kFellBack = 1,   ///< kLinkLocal: DHCP fell back to it; kDhcp: the static values are invalid
        kNotFound = 2,   ///< the search for the manager has failed
        kCommunicated = 3  ///< a client or the manager has talked to the box
    };

    explicit DiscoverModeCtrl(ZelConfig& config) : config_(config) {}
    virtual ~DiscoverModeCtrl() = default;
    DiscoverModeCtrl(const DiscoverModeCtrl&) = delete;
    DiscoverModeCtrl& operator=(const DiscoverModeCtrl&) = delete;

    /// Events count from now on; before, all are ignored.
    void Enable();

    /// Feeds the state machine. `mode` counts for kAssigning and kFellBack only.
    void Event(Trigger trigger, AddressMode mode = kConfigured);

    /// The box has got an address of that mode. Changes nothing but the current mode, and that only
    /// after Follow().
    void Assigned(AddressMode mode);

    /// From now on the current mode is that of every address that the box gets, whatever the state,
    /// enabled or not: a client moves the box from one mode to another, of which no event tells.
    void Follow() { follows_ = true; }

    /// The mode reported last, kConfigured before the first report. Never waits.
    AddressMode CurrentMode() const { return currentMode_; }

    /// False when the box has a link-local address (RFC 3927) and `peer`, a dotted address, is
    /// none: they do not share a network.
    bool SharesNetworkWith(const std::string& peer) const;

private:
    enum class State { kIdle, kAssigning, kFellBack, kSearched, kFinished };

    State AfterAssigning(Trigger trigger, AddressMode mode);
    void WriteMode(AddressMode mode);

    ZelConfig& config_;
    HeldMutex mutex_;
    State state_ = State::kIdle;
    std::atomic<AddressMode> currentMode_ = kConfigured;
    std::atomic<bool> follows_ = false;
    AddressMode firstMode_ = kConfigured;
    bool rewrittenOnSearch_ = false;
    bool enabled_ = false;
};
