#include <malloc.h>

#include <cstdlib>
#include <memory>
#include <new>

#include "Console.h"
#include "CrashGuard.h"
#include "Zel.h"

namespace {

// Memory of large requests goes back to the system as soon as it is freed, and threads share
// pools: a box has little of it.
constexpr int kLargeBlock = 64 * 1024;
constexpr int kMaxPools = 2;

}  // namespace

int main() try {
    mallopt(M_MMAP_THRESHOLD, kLargeBlock);
    mallopt(M_TRIM_THRESHOLD, kLargeBlock);
    mallopt(M_ARENA_MAX, kMaxPools);

    auto zel = std::make_unique<Zel>();
    int status = EXIT_SUCCESS;
    if (!CrashGuard::Run([&zel, &status] { status = zel->Main(); })) {
        while (!CrashGuard::Run([&zel] { zel->GoOnAfterFault(); })) {
        }
    }
    return status;
} catch (const std::bad_alloc&) {
    // There is nothing to serve with; what has been started is stopped in an orderly way.
    Console::PrintError("Out of memory at the start\n");
    return EXIT_FAILURE;
}
