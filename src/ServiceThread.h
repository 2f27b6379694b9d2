#pragma once

#include <pthread.h>

#include <chrono>
#include <cstddef>
#include <functional>

/// Threads of the agent's services: named, with a small fixed stack, and guarded against
/// segmentation faults (CrashGuard) and against exceptions, which end the thread with a log line.
/// They inherit the signal mask of the thread that starts them.
class ServiceThread {
public:
    /// Stack of every service thread in bytes.
    static constexpr std::size_t kStackSize = std::size_t{256} * 1024;

    ServiceThread() = default;
    /// Joins.
    ~ServiceThread();
    ServiceThread(const ServiceThread&) = delete;
    ServiceThread& operator=(const ServiceThread&) = delete;

    /// How long after a lack of memory the work of a joinable thread is begun again.
    static constexpr std::chrono::milliseconds kMemoryPause{100};

    /// Starts a joinable thread named `name` (at most 15 characters reach the system). Returns
    /// false when no thread can be made. Where `work` runs out of memory it is called again, and so
    /// returns at once when it is to stop.
    [[nodiscard]] bool Start(const char* name, std::function<void()> work);
    /// Whether there is a thread to wait for.
    bool IsStarted() const { return running_; }
    /// Waits for the thread's end; nothing to wait for is no error. Returns false when it cannot be
    /// waited for.
    [[nodiscard]] bool Join();
    /// The same for at most `timeout`; false also when the thread is still at work then. It is
    /// nobody's to join after that.
    [[nodiscard]] bool JoinWithin(std::chrono::milliseconds timeout);

    /// Starts a thread that is nobody's to join. Returns false when no thread can be made.
    /// `work` and what it owns are destroyed on the thread, also when it faults.
    [[nodiscard]] static bool StartDetached(const char* name, std::function<void()> work);

private:
    pthread_t thread_{};
    bool running_ = false;
};
