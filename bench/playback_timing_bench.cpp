// Playback timing: the whole assembly (clock, position, stream, output, stream device) plays a
// song of known tempo map into a virtual output; each note-on's arrival time is compared with its
// ideal time from the tempo map, measured from the first note's arrival. Prints mean, p50, p99
// and max absolute deviation and the drift at the song's end, for the precision clock (the one
// programs use), the standard clock, and the precision clock whose thread is held up once for
// 100 ms in the first half (as a send that waits for the device may hold it up), with the same
// figures for the notes after the stall.
//
//   playback_timing_bench [bars per tempo]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "midi/win32/precision_midi_clock_impl.h"
#include "midi/win32/standard_midi_clock_impl.h"
#include "platform/virtual_midi.h"
#include "tests/support/song_player.h"
#include "velt_core/song_builder.h"

namespace {

constexpr std::uint32_t ticksPerQuarter = 480;

// Quarter notes at 240 quarter notes per minute, then the same number of bars at 180.
velt_midi::SongData KnownTempoSong(std::uint32_t barsPerTempo) {
    const std::uint32_t half = barsPerTempo * 4 * ticksPerQuarter;
    velt_core::SongBuilder builder("Timing", ticksPerQuarter);
    builder.Tempo(0, 240).Tempo(half, 180).Meter(0, 4, 4).Bars(2 * barsPerTempo);
    for (std::uint32_t tick = 0; tick < 2 * half; tick += ticksPerQuarter) {
        builder.Note(0x00, tick, static_cast<std::uint8_t>(60 + (tick / ticksPerQuarter) % 12), 90,
                     ticksPerQuarter / 2);
    }
    return *builder.Build();
}

// Seconds from tick 0 to `tick` along the tempo map.
double IdealSeconds(const velt_midi::SongData& song, std::uint32_t tick) {
    const auto& tempos = song.GetTimeline().GetTempos();
    double seconds = 0;
    for (std::size_t i = 0; i < tempos.size() && tempos[i].tick_index < tick; ++i) {
        std::uint32_t end = i + 1 < tempos.size() ? std::min(tempos[i + 1].tick_index, tick) : tick;
        seconds += (end - tempos[i].tick_index) * tempos[i].tick_time(ticksPerQuarter);
    }
    return seconds;
}

// The clock thread is held up this long once, right after its wait for clock kStallClock of the
// run: that clock and the ones that come due meanwhile fire late.
constexpr std::chrono::milliseconds kStall{100};
// Eight seconds into the song at 240 quarter notes per minute, four clocks before a note.
constexpr int kStallClock = 788;

class StalledPrecisionClock : public PrecisionMidiClockImpl {
  public:
    StalledPrecisionClock() : PrecisionMidiClockImpl(StallingTiming()) {}

  private:
    static Timing StallingTiming() {
        Timing timing = PreciseTiming(kDefaultSpin);
        auto waits = std::make_shared<std::atomic<int>>(0);
        timing.waitUntil = [wait = timing.waitUntil, waits](std::int64_t deadline) {
            wait(deadline);
            if ((*waits)++ == kStallClock) {
                std::this_thread::sleep_for(kStall);
            }
        };
        return timing;
    }
};

// Mean, percentiles of the absolute value and last of `deviations` (milliseconds, signed).
void PrintFigures(const char* name, const std::vector<double>& deviations) {
    std::vector<double> absolute(deviations.size());
    std::transform(deviations.begin(), deviations.end(), absolute.begin(),
                   [](double d) { return std::fabs(d); });
    std::sort(absolute.begin(), absolute.end());
    double mean = 0;
    for (double d : deviations)
        mean += d;
    mean /= static_cast<double>(deviations.size());
    auto at = [&](double fraction) {
        return absolute[static_cast<std::size_t>(fraction *
                                                 static_cast<double>(absolute.size() - 1))];
    };
    std::printf(
        "%-26s %5zu notes  mean %+7.3f ms  |dev| p50 %6.3f  p99 %6.3f  max %6.3f ms"
        "  end drift %+7.3f ms\n",
        name, deviations.size(), mean, at(0.5), at(0.99), absolute.back(), deviations.back());
}

// `stall`: for a clock held up once, from and to where in the song (seconds); the notes due in it
// and those after it are shown on their own too.
template <typename Clock>
void Measure(const char* name, const velt_midi::SongData& song,
             std::pair<double, double> stall = {-1, -1}) {
    velt_platform::VirtualMidiOutput device("Timing Bench Out");
    {
        playback::SongPlayer<Clock> host(song);
        host.Play(0);
        if (!host.WaitForStops(1)) {
            std::printf("%s: the song did not end\n", name);
            return;
        }
    }
    // The song's note-ons in tick order are the recorded note-ons in arrival order.
    std::vector<std::uint32_t> ticks;
    for (const auto& event : song.GetVoiceData().at(0x00).events) {
        if ((event.status & 0xF0) == 0x90 && event.data2 > 0)
            ticks.push_back(event.time);
    }
    std::vector<std::int64_t> arrivals;
    for (const auto& message : device.Messages()) {
        if (message.bytes.size() == 3 && (message.bytes[0] & 0xF0) == 0x90 &&
            message.bytes[2] > 0) {
            arrivals.push_back(message.timestampNs);
        }
    }
    if (arrivals.size() != ticks.size() || arrivals.empty()) {
        std::printf("%s: %zu note-ons arrived, %zu expected\n", name, arrivals.size(),
                    ticks.size());
        return;
    }
    std::vector<double> deviations;  // milliseconds, signed
    std::vector<double> inStall;
    std::vector<double> afterStall;
    for (std::size_t i = 0; i < ticks.size(); ++i) {
        const double ideal = IdealSeconds(song, ticks[i]);
        const double actual = static_cast<double>(arrivals[i] - arrivals[0]) / 1e6;
        deviations.push_back(actual - 1000.0 * ideal);
        if (ideal >= stall.second && stall.second >= 0) {
            afterStall.push_back(deviations.back());
        } else if (ideal >= stall.first && stall.first >= 0) {
            inStall.push_back(deviations.back());
        }
    }
    PrintFigures(name, deviations);
    if (!inStall.empty()) {
        PrintFigures("  due in the stall", inStall);
    }
    if (!afterStall.empty()) {
        PrintFigures("  due after the stall", afterStall);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::uint32_t bars = argc > 1 ? static_cast<std::uint32_t>(std::atoi(argv[1])) : 16;
    const velt_midi::SongData song = KnownTempoSong(bars);
    std::printf("song: %u bars at 240 then %u at 180 quarter notes per minute, %.1f s\n", bars,
                bars, IdealSeconds(song, song.GetTimeline().lastTickIndex));
    Measure<PrecisionMidiClockImpl>("PrecisionMidiClockImpl", song);
    Measure<StandardMidiClockImpl>("StandardMidiClockImpl", song);
    // At 240 quarter notes per minute a clock lasts 1/96 s; the stall follows clock kStallClock.
    const double stallAt = kStallClock / 96.0;
    if (stallAt < IdealSeconds(song, song.GetTimeline().lastTickIndex)) {
        std::printf("the clock thread held up once for %lld ms at %.3f s:\n",
                    static_cast<long long>(kStall.count()), stallAt);
        Measure<StalledPrecisionClock>(
            "PrecisionMidiClockImpl", song,
            {stallAt, stallAt + std::chrono::duration<double>(kStall).count()});
    }
    return 0;
}
