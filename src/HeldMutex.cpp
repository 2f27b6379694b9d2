#include "HeldMutex.h"

#include <algorithm>

namespace {
thread_local HeldMutex* latestHeld = nullptr;
}

/// Who holds it has mostly done with it before anybody could have gone to sleep.
bool HeldMutex::TryTakeSoon() {
    constexpr int kLooks = 200;
    for (int i = 0; i < kLooks; ++i) {
        if (!isHeld_.load(std::memory_order_relaxed) && TryTake()) {
            return true;
        }
    }
    return false;
}

/// `wait` waits, with `mutex_` locked, until TryTake() has done it, and returns whether it has.
template <typename Wait>
bool HeldMutex::TakeAfter(Wait wait) {
    bool isTaken = TryTakeSoon();
    if (!isTaken) {
        std::unique_lock lock(mutex_);
        // Told before the next try: who releases the mutex after that sees it.
        ++sleeping_;
        isTaken = wait(lock);
        --sleeping_;
    }
    if (isTaken) {
        Taken();
    }
    return isTaken;
}

void HeldMutex::lock() {
    TakeAfter([this](auto& lock) {
        released_.wait(lock, [this] { return TryTake(); });
        return true;
    });
}

bool HeldMutex::try_lock() {
    return try_lock_for(std::chrono::milliseconds::zero());
}

bool HeldMutex::try_lock_for(std::chrono::milliseconds timeout) {
    return TakeAfter([&](auto& lock) {
        return released_.wait_for(lock, timeout, [this] { return TryTake(); });
    });
}

std::unique_lock<HeldMutex> HeldMutex::LockInTurn(std::chrono::milliseconds timeout) {
    const bool isOneTooMany = ++waiting_ > kMaxWaiting;
    std::unique_lock lock(*this, isOneTooMany ? std::min(timeout, kShortTimeout) : timeout);
    --waiting_;
    return lock;
}

void HeldMutex::Taken() {
    previous_ = latestHeld;
    latestHeld = this;
}

void HeldMutex::unlock() {
    latestHeld = previous_;
    isHeld_ = false;
    if (sleeping_ > 0) {
        const std::lock_guard lock(mutex_);
        released_.notify_one();
    }
}

void HeldMutex::ReleaseAll() {
    while (latestHeld != nullptr) {
        latestHeld->unlock();
    }
}
