// The click map of a song: where every conducted beat falls.
#include <algorithm>
#include <set>
#include <vector>

#include "interfaces/song_data.h"

namespace {

// The click in force at `tick` covers it by the plain half-open rule start <= tick < end.
const CL::Click* ClickCovering(const CL::ChangeLogSequence<CL::Click>& clicks, std::uint32_t tick) {
    const CL::Click* covering = nullptr;
    for (const auto& click : clicks) {
        if (click.start() > tick) {
            break;
        }
        if (tick < click.end()) {
            covering = &click;
        }
    }
    return covering;
}

}  // namespace

// Rule: the song is cut into segments at tick 0, at every bar start, at every meter change and
// at the start and end of every click event. Within a segment clicks fall every click length from
// the segment's start, the click length being the covering click event's length
// (CL::Click::ClocksPerClick of the meter's notated 32nds) or else the meter's clocks per click,
// times ticks per clock. So a bar always begins on a click, and a click event's first click is at
// its start. Clicks run up to and including the last tick.
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
        // The last segment includes the last tick itself.
        const std::uint64_t segmentEnd =
            next == boundaries.end() ? std::uint64_t{lastTickIndex} + 1 : std::uint64_t{*next};

        std::uint32_t clocksPerClick = 24;
        unsigned char notated32nds = 8;
        if (!meters.empty()) {
            const TL::Meter& meter = meters[meters.IndexAt(segmentStart)];
            clocksPerClick = meter.clocks_per_click;
            notated32nds = meter.notated_32_per_click();
        }
        if (const CL::Click* click = ClickCovering(clicks, segmentStart)) {
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
