#include "ServiceThread.h"

#include <sys/prctl.h>

#include <ctime>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "CrashGuard.h"
#include "ZelLog.h"

namespace {

constexpr timespec kJoinPause{0, 10'000'000};

struct Start {
    std::string name;
    std::function<void()> work;
    bool isRepeated;
};

/// True when the work is to be begun again.
bool RanOutOfMemory(const Start& start) {
    try {
        start.work();
    } catch (const std::bad_alloc&) {
        ZEL_ERROR("Out of memory in thread %s", start.name.c_str());
        return start.isRepeated;
    } catch (const std::exception& error) {
        ZEL_ERROR("Thread %s has ended: %s", start.name.c_str(), error.what());
    }
    return false;
}

void* Main(void* argument) {
    auto* const start = static_cast<Start*>(argument);
    prctl(PR_SET_NAME, start->name.c_str());
    const bool completed = CrashGuard::Run([start] {
        while (RanOutOfMemory(*start)) {
            std::this_thread::sleep_for(ServiceThread::kMemoryPause);
        }
    });
    // After a fault, what the work owns may be in a state that cannot be destroyed.
    const bool destroyed = CrashGuard::Run([start] { delete start; });
    return completed && destroyed ? nullptr : reinterpret_cast<void*>(-1);
}

class ThreadAttributes {
public:
    explicit ThreadAttributes(int detachState) {
        pthread_attr_init(&attributes_);
        pthread_attr_setstacksize(&attributes_, ServiceThread::kStackSize);
        pthread_attr_setdetachstate(&attributes_, detachState);
    }
    ~ThreadAttributes() { pthread_attr_destroy(&attributes_); }
    ThreadAttributes(const ThreadAttributes&) = delete;
    ThreadAttributes& operator=(const ThreadAttributes&) = delete;
    const pthread_attr_t* Get() const { return &attributes_; }

private:
    pthread_attr_t attributes_{};
};

bool Create(pthread_t& thread, int detachState, const char* name, std::function<void()> work) try {
    auto start = std::make_unique<Start>(
        Start{name, std::move(work), detachState == PTHREAD_CREATE_JOINABLE});
    const ThreadAttributes attributes(detachState);
    const int result = pthread_create(&thread, attributes.Get(), Main, start.get());
    if (result != 0) {
        return false;
    }
    static_cast<void>(start.release());  // the thread owns it now
    return true;
} catch (const std::bad_alloc&) {
    return false;
}

}  // namespace

ServiceThread::~ServiceThread() {
    static_cast<void>(Join());  // it has ended either way
}

bool ServiceThread::Start(const char* name, std::function<void()> work) {
    static_cast<void>(Join());  // the former one has ended either way
    running_ = Create(thread_, PTHREAD_CREATE_JOINABLE, name, std::move(work));
    return running_;
}

bool ServiceThread::Join() {
    const bool joined = !running_ || pthread_join(thread_, nullptr) == 0;
    running_ = false;
    return joined;
}

// pthread_timedjoin_np waits by the wall clock, which the box sets while it runs.
bool ServiceThread::JoinWithin(std::chrono::milliseconds timeout) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + timeout;
    bool joined = !running_;
    while (!joined) {
        joined = pthread_tryjoin_np(thread_, nullptr) == 0;
        if (joined || Clock::now() >= end) {
            break;
        }
        nanosleep(&kJoinPause, nullptr);
    }
    if (!joined) {
        pthread_detach(thread_);
    }
    running_ = false;
    return joined;
}

bool ServiceThread::StartDetached(const char* name, std::function<void()> work) {
    pthread_t thread{};
    return Create(thread, PTHREAD_CREATE_DETACHED, name, std::move(work));
}
