#include "LargeText.h"

#include <malloc.h>

#include <algorithm>
#include <array>
#include <span>
#include <thread>

namespace {

constexpr std::chrono::milliseconds kPause{10};

std::span<HeldMutex> PlacesFor(std::size_t size) {
    static std::array<HeldMutex, LargeText::kPlaces> large;
    static std::array<HeldMutex, LargeText::kMediumPlaces> medium;
    return size > LargeText::kSize ? std::span<HeldMutex>(large) : std::span<HeldMutex>(medium);
}

}  // namespace

LargeText::LargeText(std::size_t size) : needsPlace_(size > kMediumSize) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + kPatience;
    const std::span<HeldMutex> places = PlacesFor(size);
    while (needsPlace_ && place_ == nullptr) {
        const auto free = std::find_if(places.begin(), places.end(),
                                       [](HeldMutex& place) { return place.try_lock(); });
        if (free != places.end()) {
            place_ = &*free;
        } else if (Clock::now() >= end) {
            return;
        } else {
            std::this_thread::sleep_for(kPause);
        }
    }
}

LargeText::~LargeText() {
    if (place_ != nullptr) {
        malloc_trim(0);
        place_->unlock();
    }
}
