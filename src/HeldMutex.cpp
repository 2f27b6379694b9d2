#include "HeldMutex.h"

namespace {
thread_local HeldMutex* latestHeld = nullptr;
}

void HeldMutex::lock() {
    mutex_.lock();
    previous_ = latestHeld;
    latestHeld = this;
}

bool HeldMutex::try_lock() {
    if (!mutex_.try_lock()) {
        return false;
    }
    previous_ = latestHeld;
    latestHeld = this;
    return true;
}

void HeldMutex::unlock() {
    latestHeld = previous_;
    mutex_.unlock();
}

void HeldMutex::ReleaseAll() {
    while (latestHeld != nullptr) {
        latestHeld->unlock();
    }
}
