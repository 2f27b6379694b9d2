#include "CrashGuard.h"

#include <execinfo.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>

#include "HeldMutex.h"
#include "ZelLog.h"

namespace CrashGuard {
namespace {

constexpr std::size_t kSignalStackSize = 64 * 1024;
constexpr int kMaxFrames = 10;
constexpr std::size_t kThreadNameSize = 16;
constexpr char kRule[] = "========================================================";

/// What the signal handler notes down of a fault.
struct Fault {
    void* address;
    int cause;
    std::array<void*, kMaxFrames> frames;
    int frameCount;
};

thread_local sigjmp_buf* returnPoint = nullptr;
thread_local Fault fault;
thread_local bool reporting = false;

void Report() {
    char** symbols = backtrace_symbols(fault.frames.data(), fault.frameCount);
    std::array<char, kThreadNameSize> threadName{};
    prctl(PR_GET_NAME, threadName.data());

    ZEL_ERROR("%s", kRule);
    ZEL_ERROR("== FATAL: Segmentation fault detected!");
    ZEL_ERROR("%s", kRule);
    ZEL_ERROR("==    Address : 0x%.8lX", reinterpret_cast<unsigned long>(fault.address));
    ZEL_ERROR("==    Cause   : %s", fault.cause == SEGV_MAPERR ? "SEGV_MAPERR" : "SEGV_ACCERR");
    ZEL_ERROR("==    PID     : %i (%s)", static_cast<int>(getpid()), threadName.data());
    ZEL_ERROR("%s", kRule);
    ZEL_ERROR("== Backtrace:");
    for (int i = 0; symbols != nullptr && i < fault.frameCount; ++i) {
        ZEL_ERROR("==    %s", symbols[i]);
    }
    ZEL_ERROR("%s", kRule);
    std::free(symbols);
}

/// A fault inside the report ends the thread without another one.
void ReportOnce() {
    if (!reporting) {
        reporting = true;
        Report();
    }
    reporting = false;
}

void HandleFault(int /*signal*/, siginfo_t* info, void* /*context*/) {
    if (!reporting) {
        fault.address = info->si_addr;
        fault.cause = info->si_code;
        fault.frameCount = backtrace(fault.frames.data(), kMaxFrames);
    }
    if (returnPoint != nullptr) {
        // The report is written there, where it may lock and allocate.
        siglongjmp(*returnPoint, 1);
    }
    ReportOnce();
    // Not pthread_exit(): it unwinds the stack, and where a destructor stands on it that ends the
    // process.
    syscall(SYS_exit, -1);
}

void UseSignalStack(void* memory, std::size_t size) {
    stack_t stack{};
    stack.ss_sp = memory;
    stack.ss_size = size;
    stack.ss_flags = memory == nullptr ? SS_DISABLE : 0;
    sigaltstack(&stack, nullptr);
}

}  // namespace

void Install() {
    // The first backtrace of a process loads a library; that must not happen in the handler.
    std::array<void*, 1> address{};
    backtrace(address.data(), 1);

    struct sigaction action {};
    action.sa_sigaction = HandleFault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    sigaction(SIGSEGV, &action, nullptr);
}

bool Run(const std::function<void()>& work) {
    // The signal stack lies at the base of the thread's own stack: out of reach of an overflow,
    // and without pages of its own until a fault needs them.
    alignas(std::max_align_t) std::byte signalStack[kSignalStackSize];
    sigjmp_buf here;
    UseSignalStack(signalStack, sizeof signalStack);
    const bool completed = sigsetjmp(here, 1) == 0;
    if (completed) {
        returnPoint = &here;
        work();
    } else {
        HeldMutex::ReleaseAll();
        ReportOnce();
    }
    returnPoint = nullptr;
    UseSignalStack(nullptr, 0);
    return completed;
}

}  // namespace CrashGuard
