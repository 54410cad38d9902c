// Cost of moving the playback position through a large song: nanoseconds per forward step (the
// queue thread advances once per buffer) and microseconds per seek.
//
// The synthetic song has one beat record and one tempo record per beat (a tempo change on every
// beat is the worst case for the forward step), a meter change every 16 bars, a key every 8
// bars, a page every 4 bars, a marker every bar, and tempo scales, transpositions and click
// events every few bars. The argument is the number of beats, so the timeline holds twice that
// many records plus the rarer ones: 50,000 beats make 100,000+ records. Steady figures across
// the two sizes mean the step does not grow with the song.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "midi/how_to_play.h"
#include "velt_core/song_builder.h"

namespace {

constexpr unsigned int kTicksPerQuarter = 480;
constexpr unsigned int kTicksPerClock = kTicksPerQuarter / 24;

std::shared_ptr<velt_midi::SongData> LargeSong(std::uint32_t beats) {
    velt_core::SongBuilder builder("Large", kTicksPerQuarter);
    const std::uint32_t bars = beats / 4;
    for (std::uint32_t bar = 0; bar < bars; bar += 16) {
        builder.Meter(bar * 1920, 4, 4, bar % 32 == 0 ? 24 : 12);
    }
    builder.Bars(bars);
    for (std::uint32_t beat = 0; beat < beats; ++beat) {
        builder.Tempo(beat * kTicksPerQuarter, 100.0 + beat % 40);
    }
    for (std::uint32_t bar = 0; bar < bars; ++bar) {
        const std::uint32_t tick = bar * 1920;
        builder.Marker(tick, "m");
        if (bar % 4 == 0)
            builder.Page(tick, static_cast<std::int32_t>(bar / 4 + 1));
        if (bar % 8 == 0)
            builder.Key(tick, static_cast<std::int16_t>(bar / 8 % 7));
        if (bar % 3 == 0)
            builder.TempoScale(tick + 480, tick + 1440, 0.9f);
        if (bar % 5 == 0)
            builder.Transpose(tick, tick + 1920, 1);
        if (bar % 7 == 0)
            builder.Click(tick + 960, tick + 1920, 12);
    }
    return builder.Build();
}

const velt_midi::SongData& SongOf(std::uint32_t beats) {
    static std::map<std::uint32_t, std::shared_ptr<velt_midi::SongData>> songs;
    auto& song = songs[beats];
    if (!song) {
        song = LargeSong(beats);
    }
    return *song;
}

/// A clock that accepts every change and counts them, so that the position's scheduling is
/// measured without any clock behind it.
class CountingClock : public MidiClock {
  public:
    std::uint64_t changes = 0;
    void SetTicksPerClock(unsigned int) override {}
    void SetClocksPerClick(int, unsigned int) override { ++changes; }
    void SetClockTime(double, unsigned int) override { ++changes; }
    void SetTickIndex(unsigned int, int, unsigned int, int, double, unsigned int) override {}
    void SetCaesura(unsigned int, double, int) override {}
    void ArmPlayback(unsigned int, int, double, unsigned int, int) override {}
    void DisarmPlayback() override {}
    void ContinuousMode() override {}
    void ConductBeat() override {}
    void SetConductorClickTimerCallback(std::function<void(void*)>, void*) override {}
    void SetDownbeatTimerCallback(std::function<void(void*)>, void*) override {}
    bool GetPlaybackIsArmed() override { return true; }
};

/// One AdvanceToTickIndex per clock through the whole song, starting over at the end.
template <typename Position>
void AdvanceClockByClock(benchmark::State& state, Position& position) {
    const velt_midi::SongData& song = SongOf(static_cast<std::uint32_t>(state.range(0)));
    position.SetData(song.GetSongLog(), song.GetTimeline(), kTicksPerQuarter);
    const unsigned int last = position.GetLastTickIndex();
    unsigned int tick = 0;
    for (auto _ : state) {
        tick += kTicksPerClock;
        if (tick > last) {
            tick = 0;
            position.Seek(0);
        }
        position.AdvanceToTickIndex(tick);
        benchmark::DoNotOptimize(position.GetTickIndex());
    }
    state.counters["timeline_records"] = static_cast<double>(
        song.GetTimeline().GetBarsBeats().size() + song.GetTimeline().GetTempos().size());
}

void BM_AdvanceToTickIndex(benchmark::State& state) {
    UserControls controls;
    HowToPlay position(controls);
    AdvanceClockByClock(state, position);
}

void BM_AdvanceToTickIndexWithMidiClock(benchmark::State& state) {
    UserControls controls;
    CountingClock clock;
    HowToPlayWithMidiClock position(controls, clock);
    AdvanceClockByClock(state, position);
    benchmark::DoNotOptimize(clock.changes);
}

/// Seeks to pseudo-random ticks anywhere in the song.
void BM_Seek(benchmark::State& state) {
    const velt_midi::SongData& song = SongOf(static_cast<std::uint32_t>(state.range(0)));
    UserControls controls;
    HowToPlay position(controls);
    position.SetData(song.GetSongLog(), song.GetTimeline(), kTicksPerQuarter);
    std::mt19937 random(12345);
    std::uniform_int_distribution<unsigned int> anyTick(0, position.GetLastTickIndex());
    std::vector<unsigned int> targets(4096);
    for (auto& target : targets) {
        target = anyTick(random);
    }
    std::size_t next = 0;
    for (auto _ : state) {
        position.Seek(targets[next]);
        next = (next + 1) % targets.size();
        benchmark::DoNotOptimize(position.GetTickIndex());
    }
}

}  // namespace

BENCHMARK(BM_AdvanceToTickIndex)->Arg(5000)->Arg(50000)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_AdvanceToTickIndexWithMidiClock)->Arg(5000)->Arg(50000)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_Seek)->Arg(5000)->Arg(50000)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
