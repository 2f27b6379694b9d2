#include <future>
#include <regex>

#include "CrashGuard.h"
#include "HeldMutex.h"
#include "ServiceThread.h"
#include "Support.h"
#include "ZelLogging.h"

namespace {

using namespace std::chrono_literals;

// Nothing is mapped there, which the compiler must not know.
volatile std::uintptr_t nowhere = 0x10;

void Fault() {
    *reinterpret_cast<volatile int*>(nowhere) = 1;
}

// How deep the stack is filled; far more than any thread has.
volatile int depthLimit = 1000000;

int Overflow(int depth) {
    volatile char frame[4096];
    frame[0] = static_cast<char>(depth);
    return depth < depthLimit ? Overflow(depth + 1) + frame[0] : 0;
}

class CrashGuardTest : public testing::Test {
protected:
    CrashGuardTest() { CrashGuard::Install(); }

    static void RunThread(const std::function<void()>& work) {
        ServiceThread thread;
        ASSERT_TRUE(thread.Start("faulty", work));
        thread.Join();
    }

    ZelLogging logging_;
};

TEST_F(CrashGuardTest, ReportsTheFaultAndEndsOnlyItsThread) {
    RunThread(Fault);
    const std::string begin = ".*";  // time, level and thread
    const std::string rule = begin + "={56}\n";
    EXPECT_TRUE(std::regex_match(
        ReadFile(ZelLogging::kLogFile),
        std::regex(
            "(?:.*\n)*" + rule + begin + "== FATAL: Segmentation fault detected!\n" + rule + begin +
            "==    Address : 0x00000010\n" + begin + "==    Cause   : SEGV_MAPERR\n" + begin +
            "==    PID     : " + std::to_string(getpid()) + " \\(faulty\\)\n" + rule + begin +
            "== Backtrace:\n(?:" + begin + "==    .*\\[0x[0-9a-f]+\\]\n){2,10}" + rule)))
        << ReadFile(ZelLogging::kLogFile);
}

TEST_F(CrashGuardTest, SurvivesRepeatedStackOverflow) {
    for (int i = 0; i < 3; ++i) {
        RunThread([] { Overflow(0); });
    }
    EXPECT_EQ(OutputOf(std::string("grep -c '== FATAL' ") + ZelLogging::kLogFile), "3\n");
}

TEST_F(CrashGuardTest, ReleasesTheLocksOfTheFaultingThread) {
    HeldMutex outer;
    HeldMutex inner;
    std::promise<void> waits;
    std::future<void> waiting;
    RunThread([&] {
        const std::lock_guard first(outer);
        const std::lock_guard second(inner);
        waiting = std::async(std::launch::async, [&outer, &waits] {
            EXPECT_FALSE(outer.try_lock_for(20ms));
            waits.set_value();
            outer.lock();
            outer.unlock();
        });
        waits.get_future().wait();
        std::this_thread::sleep_for(50ms);  // it sleeps by then, and has to be woken
        Fault();
    });
    ASSERT_EQ(waiting.wait_for(30s), std::future_status::ready);
    ASSERT_TRUE(inner.try_lock_for(30s));
    inner.unlock();
}

TEST_F(CrashGuardTest, DestroysWhatTheThreadWasGivenToOwn) {
    std::promise<void> destroyed;
    const auto own = [&destroyed] {
        return std::shared_ptr<void>(nullptr, [&destroyed](void*) { destroyed.set_value(); });
    };
    ASSERT_TRUE(ServiceThread::StartDetached("owner", [owned = own()] { Fault(); }));
    EXPECT_EQ(destroyed.get_future().wait_for(30s), std::future_status::ready);
}

}  // namespace
