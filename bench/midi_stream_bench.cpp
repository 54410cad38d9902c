// Event streams on a large song: building a stream (time, and heap taken by the chase
// checkpoints), a jump (Seek then EnqueueEventsWithPersistence) to a random bar, and events per
// second through EnqueueEvents period by period.
//
// The synthetic song: `tracks` tracks on three ports over `bars` bars of 4/4 at 480 ticks per
// quarter, about 10.4 events per track and bar (200,000 events for 48 tracks and 400 bars):
// notes inside the range, keyswitches, six controllers, pitch bend and program changes.
#include <benchmark/benchmark.h>

#include <malloc.h>
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <random>
#include <vector>

#include "midi/midi_stream.h"
#include "velt_core/song_builder.h"

// Heap in use, from the C library's allocator (glibc): the bytes of allocated chunks.
namespace {
long long HeapInUse() {
    return static_cast<long long>(mallinfo2().uordblks);
}
}  // namespace

namespace {
constexpr unsigned int kTicksPerQuarter = 480;
constexpr unsigned int kBar = 4 * kTicksPerQuarter;
constexpr unsigned int kTicksPerClock = kTicksPerQuarter / 24;  // one output period

/// Collects one period's events per port and forgets them when the next period starts, as a
/// sent buffer would be emptied.
class PeriodBuffer : public MidiBuffer {
  public:
    explicit PeriodBuffer(unsigned char portCount)
        : MidiBuffer(portCount, "Bench"), ports_(portCount) {
        for (auto& port : ports_)
            port.reserve(4096);
    }
    bool AddEventToBuffer(unsigned char port, const velt_midi::VoiceEvent& event) override {
        FilterProgramChange(port, event);
        ports_[port].push_back(event);
        ++events_;
        return true;
    }
    void DoneAddingEventsToBuffer() override {}
    bool GetBufferIsFull(unsigned char) override { return false; }
    void* GetPacketDataAtPortIndex(unsigned char port) override { return &ports_[port]; }
    void Clear() {
        for (auto& port : ports_)
            port.clear();
    }
    long long Events() const { return events_; }

  private:
    std::vector<std::vector<velt_midi::VoiceEvent>> ports_;
    long long events_ = 0;
};

std::shared_ptr<velt_midi::SongData> MakeSong(int tracks, int bars) {
    std::mt19937 random(20240611u);
    auto between = [&](unsigned low, unsigned high) { return low + random() % (high - low + 1); };
    const unsigned int end = bars * kBar;
    velt_core::SongBuilder builder("Bench", kTicksPerQuarter);
    builder.Bars(bars);
    for (int t = 0; t < tracks; ++t) {
        // Three ports of 16 channels; the percussion channel is used like any other here.
        const auto id = static_cast<std::uint16_t>(((t / 16) << 4) | (t % 16));
        builder.Track(id, "track", 0, {36, 96});
        for (int bar = 0; bar < bars; ++bar) {
            const unsigned int start = bar * kBar;
            for (int n = 0; n < 4; ++n) {  // 8 note events
                builder.Note(id, start + n * 480 + between(0, 40),
                             static_cast<std::uint8_t>(between(36, 96)),
                             static_cast<std::uint8_t>(between(1, 127)), between(120, 900));
            }
            builder.ControlChange(
                id, start + between(0, kBar - 1),
                static_cast<std::uint8_t>(std::vector<int>{1, 7, 10, 11, 64, 74}[between(0, 5)]),
                static_cast<std::uint8_t>(between(0, 127)));
            builder.PitchBend(id, start + between(0, kBar - 1),
                              static_cast<std::uint16_t>(between(0, 16383)));
            if (bar % 5 == 0) {  // a keyswitch held for a bar
                builder.Note(id, start, static_cast<std::uint8_t>(between(0, 11)), 100, kBar - 1);
            }
            if (bar % 10 == 0)
                builder.ProgramChange(id, start, static_cast<std::uint8_t>(between(0, 127)));
        }
    }
    builder.LastTick(end);
    return builder.Build();
}

long long CountEvents(const velt_midi::SongData& song) {
    long long count = 0;
    for (const auto& [id, track] : song.GetVoiceData())
        count += static_cast<long long>(track->events.size());
    return count;
}

void BM_BuildStream(benchmark::State& state) {
    const auto song = MakeSong(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    long long checkpointBytes = 0;
    std::size_t checkpointCount = 0;
    std::size_t entries = 0;
    for (auto _ : state) {
        TamberMidiStream stream(*song);
        benchmark::DoNotOptimize(&stream);
        state.PauseTiming();
        // The checkpoints' heap: what a copy of the table takes.
        const long long before = HeapInUse();
        {
            auto copy = std::make_unique<std::map<unsigned int, MidiStream::TrackStates>>(
                stream.GetCheckpoints());
            checkpointBytes = HeapInUse() - before;
        }
        checkpointCount = stream.GetCheckpoints().size();
        entries = 0;
        for (const auto& [tick, states] : stream.GetCheckpoints())
            entries += states.size();
        state.ResumeTiming();
    }
    state.counters["events"] = static_cast<double>(CountEvents(*song));
    state.counters["checkpoints"] = static_cast<double>(checkpointCount);
    state.counters["entries"] = static_cast<double>(entries);
    state.counters["checkpoint_MiB"] = static_cast<double>(checkpointBytes) / (1024.0 * 1024.0);
    state.counters["bytes_per_entry"] =
        static_cast<double>(checkpointBytes) / static_cast<double>(entries);
    state.counters["event_data_MiB"] =
        static_cast<double>(CountEvents(*song) * sizeof(velt_midi::VoiceEvent)) / (1024.0 * 1024.0);
}

void BM_SeekAndEnqueueWithPersistence(benchmark::State& state) {
    const int bars = 400;
    const auto song = MakeSong(48, bars);
    TamberMidiStream stream(*song);
    PeriodBuffer buffer(3);
    std::mt19937 random(7u);
    std::vector<double> micros;
    for (auto _ : state) {
        const unsigned int tick = (random() % bars) * kBar + random() % kBar;
        const auto start = std::chrono::steady_clock::now();
        stream.Seek(tick);
        stream.EnqueueEventsWithPersistence(tick + kTicksPerClock, 0, 0, buffer, false);
        micros.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                .count());
        buffer.Clear();
    }
    std::sort(micros.begin(), micros.end());
    state.counters["p50_us"] = micros[micros.size() / 2];
    state.counters["p99_us"] = micros[micros.size() * 99 / 100];
    state.counters["max_us"] = micros.back();
    state.counters["events_per_jump"] =
        static_cast<double>(buffer.Events()) / static_cast<double>(micros.size());
}

void BM_EnqueueEvents(benchmark::State& state) {
    const auto song = MakeSong(48, 400);
    TamberMidiStream stream(*song);
    PeriodBuffer buffer(3);
    const unsigned int end = song->GetTimeline().lastTickIndex;
    unsigned int tick = 0;
    long long periods = 0;
    for (auto _ : state) {
        tick += kTicksPerClock;
        if (tick > end) {
            state.PauseTiming();
            stream.Seek(0);
            tick = kTicksPerClock;
            state.ResumeTiming();
        }
        stream.EnqueueEvents(tick, 2, buffer, false);
        buffer.Clear();
        ++periods;
    }
    state.SetItemsProcessed(buffer.Events());
    state.counters["events_per_period"] =
        static_cast<double>(buffer.Events()) / static_cast<double>(periods);
}
}  // namespace

BENCHMARK(BM_BuildStream)
    ->Args({12, 100})
    ->Args({24, 200})
    ->Args({48, 200})
    ->Args({48, 400})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK(BM_SeekAndEnqueueWithPersistence)->Unit(benchmark::kMicrosecond)->Iterations(2000);
BENCHMARK(BM_EnqueueEvents)->Unit(benchmark::kNanosecond);

BENCHMARK_MAIN();
