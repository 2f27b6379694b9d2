#include "LogFollower.h"

std::string LogFollower::Next(const std::string& current,
                              const std::function<std::string()>& older) {
    const std::string whole = current.substr(0, current.rfind('\n') + 1);
    std::string fresh;
    if (whole.starts_with(seen_)) {
        fresh = whole.substr(seen_.size());
    } else {
        const std::string renamed = older();
        fresh = (renamed.starts_with(seen_) ? renamed.substr(seen_.size()) : "") + whole;
    }
    seen_ = whole;
    return fresh;
}
