#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "CrashGuard.h"
#include "HeldMutex.h"
#include "ServiceThread.h"
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

std::vector<std::string> LogLines() {
    std::ifstream file(ZelLogging::kLogFile);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        // Time, level and thread stand before the message.
        const std::size_t message = line.find("==");
        if (message != std::string::npos) {
            lines.push_back(line.substr(message));
        }
    }
    return lines;
}

class CrashGuardTest : public testing::Test {
protected:
    CrashGuardTest() { CrashGuard::Install(); }
    ZelLogging logging_;
};

TEST_F(CrashGuardTest, ReportsTheFaultAndEndsOnlyItsThread) {
    ServiceThread thread;
    ASSERT_TRUE(thread.Start("faulty", Fault));
    thread.Join();

    const std::vector<std::string> lines = LogLines();
    const std::string rule(56, '=');
    const std::string expected[] = {rule,
                                    "== FATAL: Segmentation fault detected!",
                                    rule,
                                    "==    Address : 0x00000010",
                                    "==    Cause   : SEGV_MAPERR",
                                    "==    PID     : " + std::to_string(getpid()) + " (faulty)",
                                    rule,
                                    "== Backtrace:"};
    ASSERT_GT(lines.size(), std::size(expected) + 2);
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_EQ(lines[i], expected[i]);
    }
    for (std::size_t i = std::size(expected); i + 1 < lines.size(); ++i) {
        EXPECT_TRUE(std::regex_match(lines[i], std::regex("==    .*\\[0x[0-9a-f]+\\]")))
            << lines[i];
    }
    EXPECT_LE(lines.size(), std::size(expected) + 10 + 1) << "at most ten frames";
    EXPECT_EQ(lines.back(), rule);
}

TEST_F(CrashGuardTest, SurvivesRepeatedStackOverflow) {
    for (int i = 0; i < 3; ++i) {
        ServiceThread thread;
        ASSERT_TRUE(thread.Start("deep", [] { Overflow(0); }));
        thread.Join();
    }
    int reports = 0;
    for (const std::string& line : LogLines()) {
        reports += line.find("== FATAL") == 0 ? 1 : 0;
    }
    EXPECT_EQ(reports, 3);
}

TEST_F(CrashGuardTest, ReleasesTheLocksOfTheFaultingThread) {
    HeldMutex outer;
    HeldMutex inner;
    ServiceThread thread;
    ASSERT_TRUE(thread.Start("locker", [&] {
        const std::lock_guard first(outer);
        const std::lock_guard second(inner);
        std::thread([&outer] { EXPECT_FALSE(outer.try_lock_for(20ms)); }).join();
        Fault();
    }));
    thread.Join();
    const std::lock_guard first(outer);
    const std::lock_guard second(inner);
}

TEST_F(CrashGuardTest, DestroysWhatTheThreadWasGivenToOwn) {
    std::promise<void> destroyed;
    const auto own = [&destroyed] {
        return std::shared_ptr<int>(new int(0), [&destroyed](const int* p) {
            delete p;
            destroyed.set_value();
        });
    };
    ASSERT_TRUE(ServiceThread::StartDetached("owner", [owned = own()] { Fault(); }));
    EXPECT_EQ(destroyed.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
}

TEST_F(CrashGuardTest, WorkThatComesToItsEndIsNoFault) {
    bool ran = false;
    EXPECT_TRUE(CrashGuard::Run([&ran] { ran = true; }));
    EXPECT_TRUE(ran);
    EXPECT_FALSE(CrashGuard::Run(Fault)) << "on the thread that tests";
    EXPECT_TRUE(CrashGuard::Run([] {})) << "and goes on afterwards";
}

}  // namespace
