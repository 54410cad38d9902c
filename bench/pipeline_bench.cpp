// Periods per second the output ring sustains: the queue thread fills buffers through the fill
// callback while this program plays the clock, calling the send step back to back. Shows the
// pipeline's own cost per MIDI clock, with an empty fill callback and with a realistic one (a
// position advance and a dense song's stream writing into the platform's stream packets).
//
//   pipeline_bench [periods]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <vector>

#include "manual_send_step.h"
#include "midi/how_to_play.h"
#include "midi/midi_output.h"
#include "midi/midi_stream.h"
#include "midi/user_controls.h"
#include "velt_core/song_builder.h"

namespace {

using Clock = std::chrono::steady_clock;

// Ports that only count what they are handed, so the figures are the pipeline's own.
class CountingPorts : public MidiOutputPorts {
  public:
    void SendMidiBuffer(MidiBuffer& buffer) override {
        for (unsigned char port = 0; port < buffer.GetPortCount(); ++port) {
            events += buffer.GetPortEventCount(port);
        }
    }
    void RegisterMidiBuffer(std::shared_ptr<MidiBuffer>) override {}
    std::uint64_t events = 0;
};

class BenchOutput : public MidiOutput {
  public:
    using MidiOutput::MidiOutput;
    ~BenchOutput() override { ExitThreads(); }
    void CreateSynthOutput() override {}
    void CreateAudioUnitOutput(const velt_midi::VoiceData&) override {}
    void CreateKeysOutput() override {}
    MidiOutputPorts& GetPorts() override { return ports; }
    CountingPorts ports;
};

struct Result {
    std::uint64_t periods = 0;
    double seconds = 0;
    std::uint64_t events = 0;
    std::vector<double> stepMicroseconds;
};

Result Run(std::function<void(MidiBuffer&)> fill, unsigned char portCount,
           std::uint64_t maximumPeriods) {
    ManualClock clock;
    std::recursive_mutex clientMutex;
    BenchOutput output(
        std::move(fill), [](unsigned int) {}, [] {}, [] {}, [](unsigned int) { return false; },
        clock, &clientMutex);
    output.Initialize(portCount);
    {
        std::unique_lock lock(output.GetMutex());
        output.PrimeBuffers(lock);
    }
    output.ArmPlayback();

    Result result;
    result.stepMicroseconds.reserve(maximumPeriods);
    const auto start = Clock::now();
    while (result.periods < maximumPeriods) {
        const auto stepStart = Clock::now();
        ManualSendResult sent = SendOnePeriod(output);
        result.stepMicroseconds.push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - stepStart).count());
        if (sent != ManualSendResult::buffer) {
            break;
        }
        ++result.periods;
    }
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    result.events = output.ports.events;
    return result;
}

double Percentile(std::vector<double> values, double fraction) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1))];
}

void Print(const char* name, const Result& result) {
    std::printf(
        "%-34s %9llu periods %10.0f periods/s %8.2f us/period  send step p50 %6.2f us"
        "  p99 %7.2f us  max %8.1f us  %10.0f events/s\n",
        name, static_cast<unsigned long long>(result.periods),
        static_cast<double>(result.periods) / result.seconds,
        1e6 * result.seconds / static_cast<double>(result.periods),
        Percentile(result.stepMicroseconds, 0.5), Percentile(result.stepMicroseconds, 0.99),
        Percentile(result.stepMicroseconds, 1.0),
        static_cast<double>(result.events) / result.seconds);
}

// A dense song: 32 tracks on two ports, sixteenth notes in every track, a controller sweep
// every eighth and a pitch bend every quarter, 400 bars of 4/4 at 480 ticks per quarter.
std::shared_ptr<velt_midi::SongData> DenseSong() {
    constexpr std::uint32_t ticksPerQuarter = 480;
    velt_core::SongBuilder builder("Dense", ticksPerQuarter);
    builder.Tempo(0, 120).Meter(0, 4, 4).Bars(400);
    const std::uint32_t end = 400 * 4 * ticksPerQuarter;
    for (std::uint16_t track = 0; track < 32; ++track) {
        const std::uint16_t id = static_cast<std::uint16_t>(((track / 16) << 4) | (track % 16));
        builder.Track(id, "Track", static_cast<std::uint8_t>(track), {24, 108});
        for (std::uint32_t tick = 0; tick + 120 <= end; tick += 120) {
            builder.Note(id, tick, static_cast<std::uint8_t>(48 + (tick / 120 + track) % 24), 90,
                         100);
            if (tick % 240 == 0) {
                builder.ControlChange(id, tick, 11, static_cast<std::uint8_t>((tick / 240) % 128));
            }
            if (tick % 480 == 0) {
                builder.PitchBend(id, tick, static_cast<std::uint16_t>(8192 + (tick / 480) % 512));
            }
        }
    }
    return builder.Build();
}

}  // namespace

int main(int argc, char** argv) {
    const std::uint64_t periods = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 200'000;

    std::uint32_t emptyTick = 0;
    Print("empty fill callback", Run(
                                     [&emptyTick](MidiBuffer& buffer) {
                                         buffer.SetTickIndex(emptyTick++);
                                         buffer.SetHasData(true);
                                     },
                                     1, periods));

    auto song = DenseSong();
    UserControls controls;
    HowToPlay position(controls);
    position.SetData(song->GetSongLog(), song->GetTimeline(), song->GetTicksPerQuarter());
    TamberMidiStream stream(*song);
    stream.Seek(0);
    const std::uint32_t ticksPerClock = song->GetTicksPerQuarter() / 24;
    const std::uint32_t lastTick = song->GetTimeline().lastTickIndex;
    std::uint32_t tick = 0;
    bool first = true;
    auto realistic = [&](MidiBuffer& buffer) {
        tick += ticksPerClock;
        position.AdvanceToTickIndex(tick);
        buffer.SetTickIndex(tick);
        if (tick > lastTick) {
            buffer.SetIsLastBuffer(true);
            return;
        }
        auto transposition = static_cast<signed char>(position.GetTranspositionValue());
        if (first) {
            stream.EnqueueInitialEvents(tick, transposition, buffer);
            first = false;
        } else {
            stream.EnqueueEvents(tick, transposition, buffer, false);
        }
        buffer.SetHasData(true);
    };
    std::printf("dense song: 32 tracks, %u ticks, %u clocks\n", lastTick, lastTick / ticksPerClock);
    Print("realistic fill (position + stream)", Run(realistic, 2, periods));
    return 0;
}
