#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

/// A mutex that knows its holder: locks held by a thread that crashes can be released for it.
/// Works with the standard library's locks, those with a time limit included; the limit is kept
/// whatever the clock of the day does. Not recursive. Locks are released in the reverse order of
/// locking.
class HeldMutex {
public:
    HeldMutex() = default;
    HeldMutex(const HeldMutex&) = delete;
    HeldMutex& operator=(const HeldMutex&) = delete;

    void lock();
    bool try_lock();
    /// Waits for at most `timeout`. Returns false when the mutex is still held then.
    bool try_lock_for(std::chrono::milliseconds timeout);
    void unlock();

    /// Threads that LockInTurn() lets wait for one mutex at a time: each may hold a connection.
    static constexpr int kMaxWaiting = 32;
    /// What a further one waits, which is enough where no tool of the board is waited for.
    static constexpr std::chrono::milliseconds kShortTimeout{20};
    /// Locks the mutex within `timeout`, or within kShortTimeout when kMaxWaiting threads wait
    /// already. Holds nothing when it is still held then.
    std::unique_lock<HeldMutex> LockInTurn(std::chrono::milliseconds timeout);

    /// Releases every HeldMutex that the calling thread holds.
    static void ReleaseAll();

private:
    bool TryTake() { return !isHeld_.exchange(true); }
    bool TryTakeSoon();
    void Taken();
    template <typename Wait>
    bool TakeAfter(Wait wait);

    std::atomic<bool> isHeld_ = false;
    // For who finds it held. Not a timed mutex: the thread sanitizer does not see how that is
    // locked.
    std::mutex mutex_;
    std::condition_variable released_;
    std::atomic<int> sleeping_ = 0;
    std::atomic<int> waiting_ = 0;
    HeldMutex* previous_ = nullptr;
};
