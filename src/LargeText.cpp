#include "LargeText.h"

#include <malloc.h>

#include <array>
#include <thread>

#include "HeldMutex.h"

namespace {

constexpr std::chrono::milliseconds kPause{10};

std::array<HeldMutex, LargeText::kPlaces>& Places() {
    static std::array<HeldMutex, LargeText::kPlaces> places;
    return places;
}

}  // namespace

LargeText::LargeText(std::size_t size) : isLarge_(size > kSize) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + kPatience;
    while (isLarge_ && place_ == kNone) {
        for (int i = 0; i < kPlaces && place_ == kNone; ++i) {
            place_ = Places()[static_cast<std::size_t>(i)].try_lock() ? i : kNone;
        }
        if (place_ == kNone) {
            if (Clock::now() >= end) {
                return;
            }
            std::this_thread::sleep_for(kPause);
        }
    }
}

LargeText::~LargeText() {
    if (place_ == kNone) {
        return;
    }
    malloc_trim(0);
    Places()[static_cast<std::size_t>(place_)].unlock();
}
