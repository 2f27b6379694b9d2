#include "LargeText.h"

#include <malloc.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <span>
#include <thread>

namespace {

constexpr std::chrono::milliseconds kPause{10};

struct Places {
    std::span<HeldMutex> all;
    std::atomic<int> waiting = 0;
};

Places& PlacesFor(std::size_t size) {
    static std::array<HeldMutex, LargeText::kPlaces> large;
    static std::array<HeldMutex, LargeText::kMediumPlaces> medium;
    static Places ofLarge{large};
    static Places ofMedium{medium};
    return size > LargeText::kSize ? ofLarge : ofMedium;
}

HeldMutex* TakeFree(const Places& places) {
    const auto free = std::find_if(places.all.begin(), places.all.end(),
                                   [](HeldMutex& place) { return place.try_lock(); });
    return free == places.all.end() ? nullptr : &*free;
}

}  // namespace

LargeText::LargeText(std::size_t size) : needsPlace_(size > kMediumSize) {
    if (!needsPlace_) {
        return;
    }
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + kTimeout;
    Places& places = PlacesFor(size);
    place_ = TakeFree(places);
    if (place_ != nullptr) {
        return;
    }
    if (++places.waiting <= kMaxWaiting) {
        while (place_ == nullptr && Clock::now() < end) {
            std::this_thread::sleep_for(kPause);
            place_ = TakeFree(places);
        }
    }
    --places.waiting;
}

LargeText::~LargeText() {
    if (place_ != nullptr) {
        malloc_trim(0);
        place_->unlock();
    }
}
