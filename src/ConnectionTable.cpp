#include "ConnectionTable.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <tuple>

#include "Descriptors.h"

namespace {

using Clock = std::chrono::steady_clock;

// Who gives way first.
constexpr int kIdleRank = 0;
constexpr int kHungUpRank = 1;
constexpr int kReceivingRank = 2;
constexpr int kSendingRank = 3;
constexpr int kJustSendingRank = 4;
constexpr int kStays = 5;

}  // namespace

bool ConnectionTable::Place::SetPhase(Phase phase) {
    if (phase == Phase::kReceiving) {
        phase_ = phase;  // without the lock, whose owner may be looking for one who is idle
    }
    const Clock::time_point now = Clock::now();
    const std::lock_guard lock(table_->mutex_);
    phase_ = phase;
    since_ = now;
    return counts_;
}

bool ConnectionTable::Close(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    closed_ = true;
    for (const Place* place : places_) {
        shutdown(place->socket_, SHUT_RD);
    }
    return changed_.wait_for(lock, timeout, [this] { return places_.empty(); });
}

int ConnectionTable::YieldRank(const Place& place, Clock::time_point now) {
    if (place.counts_) {
        switch (place.phase_) {
            case Phase::kIdle:
                // Where bytes have come in, its thread only has not seen them yet, or just has.
                return Descriptors::IsReady(place.socket_, POLLIN) || place.phase_ != Phase::kIdle
                           ? kStays
                           : kIdleRank;
            case Phase::kServing:
                return Descriptors::IsReady(place.socket_, POLLRDHUP) ? kHungUpRank : kStays;
            case Phase::kReceiving:
                return kReceivingRank;
            case Phase::kSending:
                return now - place.since_ > kSendGrace ? kSendingRank : kJustSendingRank;
        }
    }
    return kStays;
}

/// Of the places that the filter lets through, whether one of `places` is free, or becomes free
/// because somebody gives way to `comer`.
template <typename Filter>
bool ConnectionTable::HasRoom(const Place& comer, std::size_t places, Filter filter) {
    if (places_.size() < places) {
        return true;  // whoever they are
    }
    const auto count = [this](auto isCounted) {
        return std::count_if(places_.begin(), places_.end(), [&](const Place* place) {
            return place->counts_ && isCounted(*place);
        });
    };
    if (static_cast<std::size_t>(count(filter)) < places) {
        return true;
    }
    const auto countOf = [&count](in_addr_t peer) {
        return count([peer](const Place& place) { return place.peer_ == peer; });
    };
    const std::ptrdiff_t ofComer = countOf(comer.peer_) + 1;
    const Clock::time_point now = Clock::now();
    std::tuple<int, std::ptrdiff_t, Clock::time_point, Place*> first{kStays, 0, now, nullptr};
    for (Place* place : places_) {
        const int rank = filter(*place) ? YieldRank(*place, now) : kStays;
        if (rank == kStays) {
            continue;
        }
        // Between requests nobody loses one. Else peers that come in great number would end the
        // requests of those who have a single connection.
        const std::ptrdiff_t held = rank == kIdleRank ? 0 : countOf(place->peer_);
        if (rank == kJustSendingRank && held <= ofComer) {
            continue;
        }
        first = std::min(first, {rank, -held, place->since_, place});
    }
    const auto [rank, held, since, place] = first;
    if (rank == kStays) {
        return false;
    }
    place->counts_ = false;
    // Its thread reads the end now, or cannot go on sending. What has been received before is
    // still read and answered, and so is a request that is being served.
    if (rank != kHungUpRank) {
        shutdown(place->socket_, rank >= kSendingRank ? SHUT_RDWR : SHUT_RD);
    }
    return true;
}

bool ConnectionTable::Enter(Place& place) {
    const std::lock_guard lock(mutex_);
    const auto isOfPeer = [&place](const Place& other) { return other.peer_ == place.peer_; };
    const auto threads = std::count_if(places_.begin(), places_.end(),
                                       [&](const Place* other) { return isOfPeer(*other); });
    if (closed_ || places_.size() >= kMaxThreads ||
        static_cast<std::size_t>(threads) >= kMaxThreads / 2 ||
        !HasRoom(place, kMaxOfAddress, isOfPeer) ||
        !HasRoom(place, kMaxConnections, [](const Place&) { return true; })) {
        return false;
    }
    places_.push_back(&place);
    return true;
}

void ConnectionTable::Leave(const Place& place) {
    const std::lock_guard lock(mutex_);
    std::erase(places_, &place);
    changed_.notify_all();
}
