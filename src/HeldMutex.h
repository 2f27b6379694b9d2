#pragma once

#include <mutex>

/// A mutex that knows its holder: locks held by a thread that crashes can be released for it.
/// Works with the standard library's locks. Not recursive. Locks are released in the reverse order
/// of locking.
class HeldMutex {
public:
    HeldMutex() = default;
    HeldMutex(const HeldMutex&) = delete;
    HeldMutex& operator=(const HeldMutex&) = delete;

    void lock();
    bool try_lock();
    void unlock();

    /// Releases every HeldMutex that the calling thread holds.
    static void ReleaseAll();

private:
    std::mutex mutex_;
    HeldMutex* previous_ = nullptr;
};
