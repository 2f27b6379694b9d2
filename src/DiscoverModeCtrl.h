#pragma once

#include <atomic>
#include <string>

#include "HeldMutex.h"
#include "ZelConfig.h"

/// Watches how the box came by its address and whether it was then found, and rewrites the address
/// mode of the next start ("network.config.discover.mode") accordingly. Thread-safe; an event that
/// rewrites the mode returns once the configuration is saved.
class DiscoverModeCtrl {
public:
    // Address modes, as events report them and as the store holds them.
    static constexpr unsigned kStatic = 1;
    static constexpr unsigned kLinkLocal = 2;
    static constexpr unsigned kDhcp = 3;

    enum class Trigger {
        kAssigning = 0,  ///< an address assignment begins; the value is its mode
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

    /// Feeds the state machine. `value` is an address mode for kAssigning and kFellBack and unused
    /// otherwise.
    void Event(Trigger trigger, unsigned value = 0);

    /// The box has got an address of that mode. Changes nothing but the current mode, and that only
    /// after Follow().
    void Assigned(unsigned mode);

    /// From now on the current mode is that of every address that the box gets, whatever the state,
    /// enabled or not: a client moves the box from one mode to another, of which no event tells.
    void Follow() { follows_ = true; }

    /// The mode reported last, 0 before the first report. Never waits.
    unsigned CurrentMode() const { return currentMode_; }

    /// False when the box has a link-local address (RFC 3927) and `peer`, a dotted address, is
    /// none: they do not share a network.
    bool SharesNetworkWith(const std::string& peer) const;

private:
    enum class State { kIdle, kAssigning, kFellBack, kSearched, kFinished };

    State AfterAssigning(Trigger trigger, unsigned value);
    void WriteMode(unsigned mode);

    ZelConfig& config_;
    HeldMutex mutex_;
    State state_ = State::kIdle;
    std::atomic<unsigned> currentMode_ = 0;
    std::atomic<bool> follows_ = false;
    unsigned firstMode_ = 0;
    bool rewrittenOnSearch_ = false;
    bool enabled_ = false;
};
