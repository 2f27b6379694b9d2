#include "ConnectionWorkers.h"

#include <semaphore.h>

#include <cerrno>
#include <cstddef>
#include <deque>
#include <mutex>
#include <utility>

#include "ServiceThread.h"

namespace ConnectionWorkers {
namespace {

/// Connections on their way to a thread that waits.
struct Queue {
    Queue() { sem_init(&added, 0, 0); }

    std::mutex mutex;
    /// Not a condition variable: whoever calls one would wait for a thread that has ended at it.
    sem_t added{};
    std::size_t idle = 0;
    /// At most one for each idle thread.
    std::deque<std::unique_ptr<HttpConnection>> connections;
};

Queue& TheQueue() {
    // Threads may outlive what the process destroys at its end.
    static auto& queue = *new Queue;
    return queue;
}

void WaitUntilAdded(Queue& queue) {
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    constexpr std::chrono::nanoseconds kSecond = std::chrono::seconds{1};
    const std::chrono::nanoseconds part = std::chrono::nanoseconds(end.tv_nsec) + kIdleTime;
    end.tv_sec += part / kSecond;
    end.tv_nsec = static_cast<long>((part % kSecond).count());
    while (sem_clockwait(&queue.added, CLOCK_MONOTONIC, &end) != 0 && errno == EINTR) {
    }
}

/// What a thread owns: a fault abandons its frames, but not this.
class Worker {
public:
    explicit Worker(std::unique_ptr<HttpConnection> connection)
        : connection_(std::move(connection)) {}
    ~Worker() {
        if (isIdle_) {  // it was waiting when the fault came
            static_cast<void>(EndWait());
        }
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    void Run() {
        for (; connection_; connection_ = EndWait()) {
            connection_->Serve();
            connection_.reset();
            BeginWait();
            WaitUntilAdded(TheQueue());
        }
    }

private:
    void BeginWait() {
        const std::lock_guard lock(TheQueue().mutex);
        ++TheQueue().idle;
        isIdle_ = true;
    }

    /// The next connection, if one has come.
    std::unique_ptr<HttpConnection> EndWait() {
        Queue& queue = TheQueue();
        const std::lock_guard lock(queue.mutex);
        --queue.idle;
        isIdle_ = false;
        if (queue.connections.empty()) {
            return nullptr;
        }
        std::unique_ptr<HttpConnection> next = std::move(queue.connections.front());
        queue.connections.pop_front();
        return next;
    }

    bool isIdle_ = false;
    std::unique_ptr<HttpConnection> connection_;
};

/// False when no thread waits for it; it stays the caller's then.
bool GiveToIdle(std::unique_ptr<HttpConnection>& connection) {
    Queue& queue = TheQueue();
    {
        const std::lock_guard lock(queue.mutex);
        if (queue.connections.size() >= queue.idle) {
            return false;
        }
        queue.connections.push_back(std::move(connection));
    }
    sem_post(&queue.added);
    return true;
}

}  // namespace

bool Serve(std::unique_ptr<HttpConnection> connection) {
    if (GiveToIdle(connection)) {
        return true;
    }
    const auto worker = std::make_shared<Worker>(std::move(connection));
    return ServiceThread::StartDetached("WebServer:Proto", [worker] { worker->Run(); });
}

}  // namespace ConnectionWorkers
