#pragma once

#include <chrono>
#include <functional>
#include <vector>

#include "Box.h"

/// The search for boxes by SLP (RFC 2608): one AttrRqst for "service:zel.connector" to the
/// multicast group, from every address of every interface that can multicast.
namespace BoxFinder {

/// Most boxes that are kept: whoever forges addresses may answer as many.
inline constexpr std::size_t kMaxBoxes = 1024;

/// Asks twice, for datagrams get lost, and collects the answers for `wait`, or until `isEnough` is
/// true of one, or until the descriptor `interruption`, if there is one, can be read. The boxes are
/// in the order of their addresses; of a box that answers twice the later answer counts.
std::vector<Box> Find(std::chrono::milliseconds wait,
                      const std::function<bool(const Box&)>& isEnough = {}, int interruption = -1);

}  // namespace BoxFinder
