#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <numeric>
#include <vector>

/// How long it takes to save the settings.
namespace SaveTime {

/// Calls `save`, which returns whether it could, `count` times and prints the times in microseconds
/// as one JSON object. False when it could not, or not even once.
template <typename Save>
bool Print(int count, const Save& save) {
    std::vector<double> times;
    for (int done = 0; done < count; ++done) {
        const auto begin = std::chrono::steady_clock::now();
        if (!save()) {
            return false;
        }
        times.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin)
                .count());
    }
    if (times.empty()) {
        return false;
    }
    std::sort(times.begin(), times.end());
    // A disc may take its time in steps, of which a median would see one alone.
    const double sum = std::accumulate(times.begin(), times.end(), 0.0);
    std::printf(
        "{\"saves\": %zu, \"mean\": %.1f, \"median\": %.1f, \"min\": %.1f, \"max\": %.1f}\n",
        times.size(), sum / static_cast<double>(times.size()), times[times.size() / 2],
        times.front(), times.back());
    return true;
}

}  // namespace SaveTime
