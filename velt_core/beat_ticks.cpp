// The click map of a song: where every conducted beat falls.
#include <algorithm>
#include <iterator>
#include <set>
#include <vector>

#include "interfaces/song_data.h"

namespace {

// The click event in force at `tick`: the last event starting at or before it, if that one
// covers it by the half-open rule start <= tick < end (the playback position uses the same rule,
// so the clicks placed here and the clock's click length agree).
const CL::Click* ClickInForce(const CL::ChangeLogSequence<CL::Click>& clicks, std::uint32_t tick) {
    const auto& events = clicks.GetVector();
    auto after =
        std::upper_bound(events.begin(), events.end(), tick,
                         [](std::uint32_t t, const CL::Click& c) { return t < c.start(); });
    if (after == events.begin()) {
        return nullptr;
    }
    const CL::Click& last = *std::prev(after);
    return tick < last.end() ? &last : nullptr;
}

}  // namespace

// The rule is stated with the declaration.
std::list<unsigned int> CreateBeatTicks(const TL::TimelineSequence<TL::BarsBeats>& barsBeats,
                                        const CL::ChangeLogSequence<CL::Click>& clicks,
                                        const TL::TimelineSequence<TL::Meter>& meters,
                                        std::uint32_t lastTickIndex,
                                        std::uint32_t ticksPerQuarter) {
    const std::uint32_t ticksPerClock = ticksPerQuarter / 24;

    std::set<std::uint32_t> boundaries{0};
    for (const auto& record : barsBeats) {
        if (record.beat == 1) {
            boundaries.insert(record.tick_index);
        }
    }
    for (const auto& meter : meters) {
        boundaries.insert(meter.tick_index);
    }
    for (const auto& click : clicks) {
        boundaries.insert(click.start());
        boundaries.insert(click.end());
    }

    std::set<std::uint32_t> ticks;
    for (auto it = boundaries.begin(); it != boundaries.end() && *it <= lastTickIndex; ++it) {
        const std::uint32_t segmentStart = *it;
        auto next = std::next(it);
        // Clicks run up to and including the last tick, even where a boundary (the end of a
        // click event) lies beyond it.
        const std::uint64_t songEnd = std::uint64_t{lastTickIndex} + 1;
        const std::uint64_t segmentEnd =
            next == boundaries.end() ? songEnd : std::min(songEnd, std::uint64_t{*next});

        std::uint32_t clocksPerClick = 24;
        unsigned char notated32nds = 8;
        if (!meters.empty()) {
            const TL::Meter& meter = meters[meters.IndexAt(segmentStart)];
            clocksPerClick = meter.clocks_per_click;
            notated32nds = meter.notated_32_per_click();
        }
        if (const CL::Click* click = ClickInForce(clicks, segmentStart)) {
            std::uint32_t clickClocks = click->ClocksPerClick(notated32nds);
            if (clickClocks > 0) {
                clocksPerClick = clickClocks;
            }
        }

        const std::uint64_t clickTicks = std::uint64_t{clocksPerClick} * ticksPerClock;
        if (clickTicks == 0) {
            ticks.insert(segmentStart);  // a degenerate meter still has its downbeat
            continue;
        }
        for (std::uint64_t tick = segmentStart; tick < segmentEnd; tick += clickTicks) {
            ticks.insert(static_cast<std::uint32_t>(tick));
        }
    }
    return std::list<unsigned int>(ticks.begin(), ticks.end());
}
