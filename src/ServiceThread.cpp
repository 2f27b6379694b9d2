#include "ServiceThread.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <exception>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "CrashGuard.h"
#include "ZelLog.h"

namespace {

constexpr timespec kJoinPause{0, 10'000'000};

// Below a stack; a multiple of every page size.
constexpr std::size_t kGuardSize = std::size_t{64} * 1024;
#ifdef __SANITIZE_THREAD__
// The sanitizer has something of each thread on its stack, and adds to the size of others' alone.
constexpr std::size_t kStackSize = ServiceThread::kStackSize + std::size_t{1024} * 1024;
#else
constexpr std::size_t kStackSize = ServiceThread::kStackSize;
#endif

struct Unmapping {
    void operator()(std::byte* memory) const { munmap(memory, kGuardSize + kStackSize); }
};

/// The stack of a thread that is nobody's to join. The C library would keep those of many ended
/// threads, with the pages that they have touched.
using Stack = std::unique_ptr<std::byte, Unmapping>;

Stack MakeStack() {
    void* const memory = mmap(nullptr, kGuardSize + kStackSize, PROT_NONE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    Stack stack(memory == MAP_FAILED ? nullptr : static_cast<std::byte*>(memory));
    if (!stack || mprotect(stack.get() + kGuardSize, kStackSize, PROT_READ | PROT_WRITE) != 0) {
        throw std::bad_alloc();
    }
    return stack;
}

struct Ended {
    pid_t thread = 0;
    Stack stack;
};

bool IsGone(const Ended& ended) {
    return syscall(SYS_tgkill, getpid(), ended.thread, 0) != 0 && errno == ESRCH;
}

/// Frees the stacks of the threads that came here before and are gone; that of the caller, the only
/// entry of `own`, is freed by a later one.
void EndOn(std::list<Ended> own) {
    // Threads may outlive what the process destroys at its end.
    static auto& mutex = *new std::mutex;
    static auto& all = *new std::list<Ended>;
    own.front().thread = static_cast<pid_t>(syscall(SYS_gettid));
    const std::lock_guard lock(mutex);
    all.remove_if(IsGone);
    all.splice(all.end(), own);
}

struct Beginning {
    std::string name;
    std::function<void()> work;
    std::list<Ended> stack;  // none in a thread that somebody joins
};

/// True when the work is to be begun again.
bool RanOutOfMemory(const Beginning& start) {
    try {
        start.work();
    } catch (const std::bad_alloc&) {
        ZEL_ERROR("Out of memory in thread %s", start.name.c_str());
        return start.stack.empty();
    } catch (const std::exception& error) {
        ZEL_ERROR("Thread %s has ended: %s", start.name.c_str(), error.what());
    }
    return false;
}

void* Main(void* argument) {
    auto* const start = static_cast<Beginning*>(argument);
    prctl(PR_SET_NAME, start->name.c_str());
    const bool completed = CrashGuard::Run([start] {
        while (RanOutOfMemory(*start)) {
            std::this_thread::sleep_for(ServiceThread::kMemoryPause);
        }
    });
    std::list<Ended> stack = std::move(start->stack);
    // After a fault, what the work owns may be in a state that cannot be destroyed.
    const bool destroyed = CrashGuard::Run([start] { delete start; });
    if (!stack.empty()) {
        EndOn(std::move(stack));
    }
    return completed && destroyed ? nullptr : reinterpret_cast<void*>(-1);
}

class ThreadAttributes {
public:
    explicit ThreadAttributes(const std::list<Ended>& stack) {
        pthread_attr_init(&attributes_);
        if (stack.empty()) {
            pthread_attr_setstacksize(&attributes_, ServiceThread::kStackSize);
        } else {
            std::byte* const lowest = stack.front().stack.get() + kGuardSize;
            pthread_attr_setstack(&attributes_, lowest, kStackSize);
            pthread_attr_setdetachstate(&attributes_, PTHREAD_CREATE_DETACHED);
        }
    }
    ~ThreadAttributes() { pthread_attr_destroy(&attributes_); }
    ThreadAttributes(const ThreadAttributes&) = delete;
    ThreadAttributes& operator=(const ThreadAttributes&) = delete;
    const pthread_attr_t* Get() const { return &attributes_; }

private:
    pthread_attr_t attributes_{};
};

bool Create(pthread_t& thread, std::unique_ptr<Beginning> start) {
    const ThreadAttributes attributes(start->stack);
    if (pthread_create(&thread, attributes.Get(), Main, start.get()) != 0) {
        return false;
    }
    static_cast<void>(start.release());  // the thread owns it now
    return true;
}

}  // namespace

ServiceThread::~ServiceThread() {
    static_cast<void>(Join());  // it has ended either way
}

bool ServiceThread::Start(const char* name, std::function<void()> work) try {
    static_cast<void>(Join());  // the former one has ended either way
    running_ = Create(thread_, std::make_unique<Beginning>(Beginning{name, std::move(work), {}}));
    return running_;
} catch (const std::bad_alloc&) {
    return false;
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

bool ServiceThread::StartDetached(const char* name, std::function<void()> work) try {
    auto start = std::make_unique<Beginning>(Beginning{name, std::move(work), {}});
    start->stack.push_back({0, MakeStack()});
    pthread_t thread{};
    return Create(thread, std::move(start));
} catch (const std::bad_alloc&) {
    return false;
}
