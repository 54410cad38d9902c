// Conductors' beat intervals (ms between beats) for scripted conducting, shared by the conducted
// clock's tests and its benchmark.
#pragma once

#include <cstddef>
#include <vector>

namespace beat_intervals {

/// `count` beats `interval` apart.
inline std::vector<double> Steady(int count, double interval) {
    return std::vector<double>(static_cast<std::size_t>(count), interval);
}

/// `count` intervals from `interval` on, each `factor` times the one before (below 1: an
/// accelerando; above: a ritardando).
inline std::vector<double> Changing(int count, double interval, double factor) {
    std::vector<double> intervals;
    for (int i = 0; i < count; ++i) {
        intervals.push_back(interval);
        interval *= factor;
    }
    return intervals;
}

/// `first`, then `second`.
inline std::vector<double> Then(std::vector<double> first, const std::vector<double>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

}  // namespace beat_intervals
