// Searching a tick-sorted sequence for the record in force at a tick. Private to the position
// sources.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "interfaces/change_log.h"

namespace position_search {

/// The tick a record is sorted by: its start for a change-log event, its tick index otherwise.
template <typename Record>
std::uint32_t TickOf(const Record& record) {
    if constexpr (std::is_base_of_v<CL::PairedEvent, Record>) {
        return record.start();
    } else {
        return record.tick_index;
    }
}

/// Index of the last record whose tick is <= `tick`, looking only at records from `from` on (an
/// upper bound minus one over [from, end)). When none of them qualifies the answer is `from`:
/// a cursor on the first record stays there, and a cursor never moves backwards.
///
/// The search gallops: it probes from+1, from+2, from+4, ... until it passes `tick`, then
/// binary-searches the last gap. A step of d records costs O(log d), so advancing tick by tick
/// through a song is amortised constant per step, and a search from 0 is O(log n).
template <typename Record>
std::size_t LastAtOrBefore(const std::vector<Record>& records, std::size_t from,
                           std::uint32_t tick) {
    const std::size_t size = records.size();
    if (from + 1 >= size) {
        return from;
    }
    std::size_t known = from;  // records[known] qualifies, or known == from
    std::size_t probe = from + 1;
    std::size_t step = 1;
    while (probe < size && TickOf(records[probe]) <= tick) {
        known = probe;
        step *= 2;
        probe = known + step;
    }
    const auto first = records.begin() + static_cast<std::ptrdiff_t>(known + 1);
    const auto last = records.begin() + static_cast<std::ptrdiff_t>(std::min(probe, size));
    const auto upper = std::upper_bound(
        first, last, tick, [](std::uint32_t t, const Record& r) { return t < TickOf(r); });
    return static_cast<std::size_t>(upper - records.begin()) - 1;
}

}  // namespace position_search
