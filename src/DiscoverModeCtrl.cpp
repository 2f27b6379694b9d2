#include "DiscoverModeCtrl.h"

#include "Ipv4.h"
#include "ZelLog.h"

void DiscoverModeCtrl::Enable() {
    const std::lock_guard lock(mutex_);
    enabled_ = true;
}

bool DiscoverModeCtrl::SharesNetworkWith(const std::string& peer) const {
    return CurrentMode() != kLinkLocal || Ipv4::IsLinkLocal(peer);
}

void DiscoverModeCtrl::Assigned(AddressMode mode) {
    const std::lock_guard lock(mutex_);
    if (follows_) {
        currentMode_ = mode;
    }
}

void DiscoverModeCtrl::Event(Trigger trigger, AddressMode mode) {
    const std::lock_guard lock(mutex_);
    if (!enabled_) {
        return;
    }
    switch (state_) {
        case State::kIdle:
            if (trigger == Trigger::kAssigning) {
                firstMode_ = mode;
                currentMode_ = mode;
                state_ = State::kAssigning;
            }
            break;
        case State::kAssigning:
            state_ = AfterAssigning(trigger, mode);
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

DiscoverModeCtrl::State DiscoverModeCtrl::AfterAssigning(Trigger trigger, AddressMode mode) {
    switch (trigger) {
        case Trigger::kAssigning:
            currentMode_ = mode;
            break;
        case Trigger::kFellBack:
            currentMode_ = mode;
            if (firstMode_ == kStatic && mode == kDhcp) {
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

void DiscoverModeCtrl::WriteMode(AddressMode mode) {
    if (!AddressModes::Save(config_, mode)) {
        ZEL_ERROR("Can't save address mode %u", static_cast<unsigned>(mode));
    }
}
