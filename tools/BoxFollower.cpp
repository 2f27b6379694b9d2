#include "BoxFollower.h"

#include <algorithm>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "BoxFinder.h"
#include "Numbers.h"

namespace {

using Clock = BoxFollower::Clock;
using std::chrono::milliseconds;

constexpr int kNoInterruption = -1;
constexpr milliseconds kPause{500};
constexpr milliseconds kAnswerTime{1000};
constexpr milliseconds kInformationTime{3000};
/// Answers get lost: one that is missing means nothing.
constexpr int kMissedWhenAway = 3;

milliseconds Left(Clock::time_point end, milliseconds most) {
    const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
    return std::clamp(left, milliseconds(1), most);
}

/// Of the answers that the box has given since it started: it begins with the most negative number.
std::optional<std::int32_t> CounterOf(const Box& box) {
    return Numbers::Parse<std::int32_t>(box.Attribute("Counter"));
}

}  // namespace

BoxFollower::BoxFollower(const Session& session, milliseconds wait)
    : deviceId_(session.DeviceId()),
      name_(session.Name()),
      former_(session.Address()),
      formerOwn_(session.OwnAddress()),
      wait_(wait),
      lastHost_(former_.host) {
    for (const Box& box : BoxFinder::Find(wait)) {
        if (box.DeviceId() == deviceId_ && box.address != former_.host) {
            twins_.insert(box.address);
        }
    }
    const std::optional<Box> itself = BoxFinder::Ask(former_.host, kAnswerTime);
    answersSearches_ = itself && IsIt(*itself);
    counter_ = answersSearches_ ? CounterOf(*itself) : std::nullopt;
}

bool BoxFollower::IsIt(const Box& box) const {
    return box.DeviceId() == deviceId_ && !twins_.contains(box.address);
}

std::vector<Box> BoxFollower::Find(Clock::time_point end) const {
    const auto isIt = [this](const Box& box) { return IsIt(box); };
    std::vector<Box> boxes = BoxFinder::Find(Left(end, wait_), isIt, kNoInterruption, false);
    std::erase_if(boxes, std::not_fn(isIt));
    return boxes;
}

std::optional<Box> BoxFollower::AskFormer(Clock::time_point end) const {
    if (answersSearches_) {
        std::optional<Box> box = BoxFinder::Ask(former_.host, Left(end, kAnswerTime));
        return box && IsIt(*box) ? std::move(box) : std::nullopt;
    }
    Session session;
    const bool isThere = !session.Ask(former_, Left(end, kInformationTime)).Failed() &&
                         session.DeviceId() == deviceId_;
    return isThere ? std::optional(Box{former_.host, {}}) : std::nullopt;
}

void BoxFollower::Note(const std::string& host) {
    lastHost_ = host;
    lastSeen_ = Clock::now();
}

bool BoxFollower::IsAway() const {
    return missed_ >= kMissedWhenAway;
}

std::string BoxFollower::LastSeen() const {
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - lastSeen_).count();
    return "last seen at " + lastHost_ + ", " + std::to_string(seconds) + " s ago";
}

bool BoxFollower::AwaitRestart(Clock::time_point end, Progress& progress) {
    bool wasAway = false;
    progress.Say(name_ + ": told to restart; waiting until it does");
    while (Clock::now() < end) {
        std::optional<Box> box = AskFormer(end);
        if (!box && IsAway()) {
            const std::vector<Box> boxes = Find(end);
            box = boxes.empty() ? std::nullopt : std::optional(boxes.front());
        }
        if (!box) {
            ++missed_;
            wasAway |= IsAway();
            if (wasAway) {
                progress.Say(name_ + ": it is away; waiting until it is back");
            }
        } else {
            missed_ = 0;
            Note(box->address);
            const std::optional<std::int32_t> counter = CounterOf(*box);
            const bool isAnew = counter && counter_ ? *counter <= *counter_ : wasAway;
            if (isAnew) {
                return true;
            }
            counter_ = counter;
        }
        std::this_thread::sleep_for(Left(end, kPause));
    }
    return false;
}

std::optional<BoxAddress> BoxFollower::AwaitAddress(
    Clock::time_point end, const std::function<bool(const std::string&)>& isWanted,
    Progress& progress) {
    progress.Say(name_ + ": looking for it");
    while (Clock::now() < end) {
        std::vector<Box> boxes = Find(end);
        if (boxes.empty()) {
            boxes.push_back({former_.host, {}});  // searches may not get to it
        }
        for (const Box& box : boxes) {
            const BoxAddress address{box.address, former_.port};
            Session session;
            if (session.Ask(address, Left(end, kInformationTime)).Failed() ||
                session.DeviceId() != deviceId_) {
                continue;
            }
            Note(address.host);
            const std::string own = session.OwnAddress();
            const bool isItsOwn =
                own == address.host || (address.host == former_.host && own == formerOwn_);
            if (isItsOwn && isWanted(address.host)) {
                return address;
            }
        }
        std::this_thread::sleep_for(Left(end, kPause));
    }
    return std::nullopt;
}
