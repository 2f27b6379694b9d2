#include "HeldMutex.h"

#include <algorithm>

namespace {
thread_local HeldMutex* latestHeld = nullptr;
}

void HeldMutex::lock() {
    std::unique_lock lock(mutex_);
    released_.wait(lock, [this] { return !isHeld_; });
    Take();
}

bool HeldMutex::try_lock() {
    return try_lock_for(std::chrono::milliseconds::zero());
}

bool HeldMutex::try_lock_for(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    if (!released_.wait_for(lock, timeout, [this] { return !isHeld_; })) {
        return false;
    }
    Take();
    return true;
}

std::unique_lock<HeldMutex> HeldMutex::LockInTurn(std::chrono::milliseconds timeout) {
    const bool isOneTooMany = ++waiting_ > kMaxWaiting;
    std::unique_lock lock(*this, isOneTooMany ? std::min(timeout, kShortTimeout) : timeout);
    --waiting_;
    return lock;
}

void HeldMutex::Take() {
    isHeld_ = true;
    previous_ = latestHeld;
    latestHeld = this;
}

void HeldMutex::unlock() {
    latestHeld = previous_;
    {
        const std::lock_guard lock(mutex_);
        isHeld_ = false;
    }
    released_.notify_one();
}

void HeldMutex::ReleaseAll() {
    while (latestHeld != nullptr) {
        latestHeld->unlock();
    }
}
