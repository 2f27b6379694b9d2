#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Box.h"

/// The search for boxes by SLP (RFC 2608): AttrRqsts for "service:zel.connector" to the multicast
/// group, from every address of every interface that can multicast.
namespace BoxFinder {

/// Most boxes that are kept: whoever forges addresses may answer as many.
inline constexpr std::size_t kMaxBoxes = 4096;

/// How long others may answer after a box for which `isEnough` is true.
inline constexpr std::chrono::milliseconds kMoment{500};

/// Asks twice, for datagrams get lost, and collects the answers for `wait`. When there are so many
/// that some get lost on the way into this program, or the later question brings boxes that the
/// first has not, it asks again every quarter of `wait` until that is over; if `mayTakeLonger`, for
/// as long again. Boxes do not look at a list of who has answered already, so none is sent.
///
/// A box for which `isEnough` is true ends the search after kMoment, in which it asks once more, so
/// that there may be several of them. That the descriptor `interruption`, if there is one, can be
/// read ends it at once.
///
/// The boxes are in the order of their addresses; of one that answers twice the later answer
/// counts.
std::vector<Box> Find(std::chrono::milliseconds wait,
                      const std::function<bool(const Box&)>& isEnough = {}, int interruption = -1,
                      bool mayTakeLonger = true);

/// Asks the box at `address`, dotted, and nobody else, once. Nothing when it does not answer within
/// `wait`.
std::optional<Box> Ask(const std::string& address, std::chrono::milliseconds wait);

}  // namespace BoxFinder
