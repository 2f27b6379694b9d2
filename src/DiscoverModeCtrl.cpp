#include "DiscoverModeCtrl.h"

#include "Ipv4.h"
#include "ZelLog.h"

namespace {
constexpr char kModeKey[] = "network.config.discover.mode";
}  // namespace

void DiscoverModeCtrl::Enable() {
    const std::lock_guard lock(mutex_);
    enabled_ = true;
}

bool DiscoverModeCtrl::SharesNetworkWith(const std::string& peer) const {
    return CurrentMode() != kLinkLocal || Ipv4::IsLinkLocal(peer);
}

void DiscoverModeCtrl::Assigned(unsigned mode) {
    const std::lock_guard lock(mutex_);
    if (follows_) {
        currentMode_ = mode;
    }
}

void DiscoverModeCtrl::Event(Trigger trigger, unsigned value) {
    const std::lock_guard lock(mutex_);
    if (!enabled_) {
        return;
    }
    switch (state_) {
        case State::kIdle:
            if (trigger == Trigger::kAssigning) {
                firstMode_ = value;
                currentMode_ = value;
                state_ = State::kAssigning;
            }
            break;
        case State::kAssigning:
            state_ = AfterAssigning(trigger, value);
            break;
        case State::kFellBack:
            if (trigger == Trigger::kNotFound) {
                state_ = State::kSearched;
            } else if (trigger == Trigger::kCommunicated) {
                if (currentMode_ == kLinkLocal) {
                    WriteMode(kLinkLocal);
                }
                state_ = State::kFinished;
            }
            break;
        case State::kSearched:
            if (trigger == Trigger::kCommunicated) {
                if (rewrittenOnSearch_) {
                    WriteMode(kLinkLocal);
                }
                state_ = State::kFinished;
            }
            break;
        case State::kFinished:
            break;
    }
}

DiscoverModeCtrl::State DiscoverModeCtrl::AfterAssigning(Trigger trigger, unsigned value) {
    switch (trigger) {
        case Trigger::kAssigning:
            currentMode_ = value;
            break;
        case Trigger::kFellBack:
            currentMode_ = value;
            if (firstMode_ == kStatic && value == kDhcp) {
                firstMode_ = kDhcp;
                WriteMode(kDhcp);
            }
            return State::kFellBack;
        case Trigger::kNotFound:
            if (currentMode_ == kLinkLocal) {
                WriteMode(kDhcp);
                rewrittenOnSearch_ = true;
            }
            return State::kSearched;
        case Trigger::kCommunicated:
            return State::kFinished;
    }
    return State::kAssigning;
}

void DiscoverModeCtrl::WriteMode(unsigned mode) {
    config_.Set(kModeKey, std::to_string(mode), ZelConfig::Kind::kPersistent);
    if (!config_.Save()) {
        ZEL_ERROR("Can't save address mode %u", mode);
    }
}
