#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Progress.h"
#include "Session.h"

/// Keeps sight of one box, by its device id, while it restarts or gets another address.
class BoxFollower {
public:
    using Clock = std::chrono::steady_clock;

    /// Looks around for `wait` before anything happens to the box: whoever else has its device id
    /// is not taken for it afterwards.
    BoxFollower(const Session& session, std::chrono::milliseconds wait);

    /// Waits until the box has restarted: the counter of its answers has begun anew, or, where it
    /// counts none, it was away and is back. False when that was not seen by `end`.
    [[nodiscard]] bool AwaitRestart(Clock::time_point end, Progress& progress);

    /// Waits until the box can be used at an address that `isWanted`. It is known by saying itself
    /// that it has this address: one that it leaves may still answer for a moment. Nothing when
    /// there is none by `end`.
    std::optional<BoxAddress> AwaitAddress(
        Clock::time_point end, const std::function<bool(const std::string& host)>& isWanted,
        Progress& progress);

    /// What was seen of the box last, for people: where, and how long ago.
    std::string LastSeen() const;
    /// Whether it has not answered for a while.
    bool IsAway() const;

private:
    bool IsIt(const Box& box) const;
    /// The box, wherever it is now; while it moves it may answer from two addresses.
    std::vector<Box> Find(Clock::time_point end) const;
    std::optional<Box> AskFormer(Clock::time_point end) const;
    void Note(const std::string& host);

    const std::string deviceId_;
    const std::string name_;
    const BoxAddress former_;
    /// What it has said of its address there.
    const std::string formerOwn_;
    const std::chrono::milliseconds wait_;
    /// Addresses of other boxes with its device id.
    std::set<std::string> twins_;
    bool answersSearches_ = false;
    std::optional<std::int32_t> counter_;
    int missed_ = 0;
    std::string lastHost_;
    Clock::time_point lastSeen_ = Clock::now();
};
