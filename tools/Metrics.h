#pragma once

#include <map>
#include <string>
#include <vector>

#include "Box.h"
#include "BoxMemory.h"
#include "BoxTemperature.h"

/// Boxes as metrics for a monitoring system.
namespace Metrics {

struct Detail {
    bool ownerLabel = false;
    /// By the boxes' addresses; null when no box was asked.
    const std::map<std::string, BoxTemperature>* temperatures = nullptr;
};

/// The text is that of OpenMetrics 1.0 and, since it uses gauges alone, of Prometheus's text format
/// 0.0.4 as well. `boxes` are those of the search that ended at `now` (seconds since 1970), and the
/// memory knows them already. What is no number where one is due has no sample.
std::string Render(const std::vector<Box>& boxes, const BoxMemory& memory, BoxMemory::Seconds now,
                   const Detail& detail);

}  // namespace Metrics
