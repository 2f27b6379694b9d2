#include "ZelLog.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;

/// One line more is a kLimitedRate-th of a second more until the whole burst is there again.
struct Allowance {
    bool isLimited = false;
    unsigned long dropped = 0;
    Clock::time_point restored{};
};
thread_local Allowance allowance;

}  // namespace

namespace ZelLog {

LogHandler& Handler() {
    static LogHandler& handler = LogHandler::GetLogHandler("zelloghandler");
    return handler;
}

Limit::Limit() {
    allowance.isLimited = true;
}

Limit::~Limit() {
    allowance.isLimited = false;
}

bool Admit(int level) {
    if (!allowance.isLimited || level != kDebug) {
        return true;
    }
    constexpr std::chrono::nanoseconds kCost =
        std::chrono::nanoseconds(std::chrono::seconds(1)) / kLimitedRate;
    const Clock::time_point now = Clock::now();
    const Clock::time_point restored = std::max(allowance.restored, now) + kCost;
    if (restored - now > kLimitedBurst * kCost) {
        ++allowance.dropped;
        return false;
    }
    allowance.restored = restored;
    if (const unsigned long dropped = std::exchange(allowance.dropped, 0); dropped > 0) {
        ZEL_INFO("Too much to log: %lu lines dropped", dropped);
    }
    return true;
}

}  // namespace ZelLog
