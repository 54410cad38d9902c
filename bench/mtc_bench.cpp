// Time-code generator figures (plain harness, prints, never fails).
//
// 1. Quarter-frame spacing against the ideal interval (a quarter of a frame), at 25 and 29.97
//    fps, with the generator on the platform's clock writing to a virtual output device (the
//    device stamps each message as it arrives). Two ways of driving it:
//      - "2-frame stretches": the caller hands over stretches of eight quarter frames at the
//        real time each one starts (a caller on its own absolute deadlines, at time-critical
//        priority as the player's clock thread is);
//      - "clock periods": one stretch per MIDI clock at 120 beats a minute (20.833 ms); a
//        period is not a whole number of quarter frames, so the spacing within each stretch is
//        the stretch's own (duration / its quarter frames);
//      - "velt-play pacing": velt-play's own path, a show session playing a song whose tempo
//        changes every bar, its sync outputs handing the generator one quarter frame at a time
//        at the real time the clock's periods put it.
//    p50 / p99 / max of |spacing - ideal| in milliseconds.
// 2. Where the decoded time code stands after 10 minutes of a song with a tempo change every
//    bar (80 to 160 beats a minute), driven clock period by clock period through the show's
//    tick-to-seconds references as the player does. Simulated: the generator runs on a clock
//    that jumps to each deadline, so ten minutes take about a second; the figure is the
//    decoded position (full frame + quarter frames received, by the independent receiver of
//    the tests) less the song position's time code, in quarter frames.
//
//   cmake --build build --target mtc_bench && ./build/bin/mtc_bench [seconds per spacing run]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "apps/show_session.h"
#include "apps/sync_outputs.h"
#include "midi/time_code_converter.h"
#include "midi/win32/midi_time_code_thread_win32.h"
#include "platform/virtual_midi.h"
#include "support/mtc_receiver.h"
#include "velt_core/song_builder.h"

namespace {

using velt_platform::VirtualMidiOutput;
using namespace std::chrono_literals;

std::string LoadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

double Percentile(std::vector<double> values, double p) {
    if (values.empty()) {
        return 0.0;
    }
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(std::ceil(p * static_cast<double>(values.size())));
    return values[std::min(values.size() - 1, index == 0 ? 0 : index - 1)];
}

double SecondsPerFrame(FrameRate rate) {
    return rate == FrameRate::Fps25 ? 0.04 : 1 / 29.97;
}

// |interval - ideal| of the quarter frames the device received, in milliseconds.
std::vector<double> SpacingErrors(const VirtualMidiOutput& port, double quarter) {
    std::vector<double> errors;
    std::int64_t previous = 0;
    for (const auto& message : port.Messages()) {
        if (message.bytes.size() != 2) {
            continue;  // a full frame
        }
        if (previous != 0) {
            errors.push_back(std::abs((message.timestampNs - previous) * 1e-9 - quarter) * 1e3);
        }
        previous = message.timestampNs;
    }
    return errors;
}

void PrintSpacing(FrameRate rate, const char* how, const std::vector<double>& errors) {
    std::printf("  %-15s %-17s %7zu intervals  p50 %.4f ms  p99 %.4f ms  max %.4f ms\n",
                ConvertFrameRateToString(rate).c_str(), how, errors.size(), Percentile(errors, 0.5),
                Percentile(errors, 0.99), Percentile(errors, 1.0));
}

// velt-play's own path: a show session playing a song whose tempo changes every bar, its sync
// outputs pacing the time code from the clock's periods.
void PlayerRun(FrameRate rate, double seconds) {
    VirtualMidiOutput music("MTC Bench Music");
    VirtualMidiOutput port("MTC Bench Player");
    velt_core::SongBuilder builder("Paced", 480);
    std::mt19937 random(11);
    std::uniform_real_distribution<double> tempo(80.0, 160.0);
    double songSeconds = 0.0;
    std::uint32_t tick = 0;
    while (songSeconds < seconds) {
        const double bpm = tempo(random);
        builder.Tempo(tick, bpm);
        tick += 1920;
        songSeconds += 4 * 60.0 / bpm;
    }
    builder.LastTick(tick).Track(0x00, "Pulse", 0, {0, 127}).Note(0x00, 0, 60, 90, 240);
    const auto song = builder.Build();
    auto show = std::make_shared<pv::ParvelShowData>();
    show->AddSong(song);
    velt_play::SyncCommandLine line;
    line.timeCodePort = "MTC Bench Player";
    line.frameRate = rate == FrameRate::Fps25 ? "25" : "29.97";
    velt_play::SyncOutputs sync(*show, velt_play::ResolveSyncOptions(line));
    {
        velt_play::ShowSession session({{song->GetSongName(), song, ""}}, show,
                                       {velt_play::ClockKind::precision, "MTC Bench Music", {}});
        session.SetTransportHooks(sync.Hooks());
        session.Play();
        session.WaitUntilNotPlaying(
            std::chrono::milliseconds(static_cast<int>(seconds * 1000 * 2 + 5000)));
    }
    PrintSpacing(rate, "velt-play pacing", SpacingErrors(port, SecondsPerFrame(rate) / 4));
}

void SpacingRun(FrameRate rate, bool perClock, double seconds) {
    VirtualMidiOutput port("MTC Bench");
    MidiTimeCodeThreadWin32 generator;
    generator.SetOutputPortIndex(*port.DeviceId());
    generator.SetFrameRate(rate);
    const double quarter = SecondsPerFrame(rate) / 4;
    const double stretch = perClock ? 0.5 / 24 : 8 * quarter;
    const std::int64_t start = VeltPreciseTimeNow() + 50'000'000;
    const auto count = static_cast<int>(seconds / stretch);
    for (int i = 0; i < count; ++i) {
        const double from = 60.0 + i * stretch;  // time code from one minute
        VeltPreciseWaitUntil(start + std::llround(i * stretch * 1e9), 200'000);
        generator.SetMidiTimeCodeInterval(from, from + stretch, stretch);
    }
    generator.WaitUntilStretchSent(1s);
    PrintSpacing(rate, perClock ? "clock periods" : "2-frame stretches",
                 SpacingErrors(port, quarter));
}

// A clock that only moves when the generator waits (to the deadline) or the driver sets it.
struct JumpingClock {
    std::atomic<std::int64_t> now{0};
    MidiTimeCodeThreadWin32::Timing Timing() {
        return {[this] { return now.load(); },
                [this](std::int64_t deadline) {
                    if (deadline > now) {
                        now = deadline;
                    }
                },
                std::chrono::hours(1)};
    }
};

void OffsetRun(FrameRate rate) {
    // Ten minutes and a little of 4/4 bars, each at its own tempo.
    std::mt19937 random(7);
    std::uniform_real_distribution<double> tempo(80.0, 160.0);
    velt_core::SongBuilder builder("Long", 480);
    std::uint32_t tick = 0;
    double songSeconds = 0.0;
    while (songSeconds < 605.0) {
        const double bpm = tempo(random);
        builder.Tempo(tick, bpm);
        tick += 1920;
        songSeconds += 4 * 60.0 / bpm;
    }
    builder.LastTick(tick);
    velt_midi::ShowData show;
    show.AddSong(builder.Build());
    TimeCodeConverter converter(show);
    converter.UpdateToNewSong("Long", 480);

    VirtualMidiOutput port("MTC Offset Bench");
    JumpingClock clock;
    MidiTimeCodeThreadWin32 generator(clock.Timing());
    generator.SetOutputPortIndex(*port.DeviceId());
    generator.SetFrameRate(rate);
    std::uint32_t position = 0;
    const auto started = std::chrono::steady_clock::now();
    while (converter.ConvertTickIndexToSeconds(position) < 600.0) {
        const auto [from, to] = converter.GetTimeCodeSecondsPair(position);
        clock.now = std::llround(from * 1e9);  // the period starts now
        generator.SetMidiTimeCodeInterval(from, to, to - from);
        generator.WaitUntilStretchSent(5s);
        position += 20;
    }
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    mtc_receiver::Receiver receiver;
    for (const auto& message : port.Messages()) {
        receiver.Hear(message.bytes);
    }
    const auto& located = receiver.fullFrames.front();
    const std::int64_t decodedQuarters =
        mtc_receiver::FrameNumber(located) * 4 + receiver.quarterFrames;
    const MidiTimeCode expected(converter.ConvertTickIndexToSeconds(position), rate);
    const std::int64_t expectedQuarters = static_cast<std::int64_t>(
        expected.GetDifferenceAsQuarterFrameCount(MidiTimeCode(0.0, rate)));
    std::printf(
        "  %-15s song position %s (%.3f s), decoded %lld quarter frames, expected %lld: offset "
        "%lld quarter frames; %zu full frames, %zu receiver faults; simulated in %.2f s\n",
        ConvertFrameRateToString(rate).c_str(), expected.GetAsString().c_str(),
        converter.ConvertTickIndexToSeconds(position), static_cast<long long>(decodedQuarters),
        static_cast<long long>(expectedQuarters),
        static_cast<long long>(decodedQuarters - expectedQuarters), receiver.fullFrames.size(),
        receiver.faults.size(), elapsed);
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 10.0;
    // The caller hands over stretches at time-critical priority, as the player's clock does.
    if (!SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL)) {
        std::printf("the driving thread runs at normal priority\n");
    }
    std::printf("load average before: %s\n", LoadAverage().c_str());
    std::printf("Quarter-frame spacing error (|interval - ideal|), %.0f s per run:\n", seconds);
    for (const FrameRate rate : {FrameRate::Fps25, FrameRate::Fps2997Drop}) {
        for (const bool perClock : {false, true}) {
            SpacingRun(rate, perClock, seconds);
        }
        PlayerRun(rate, seconds);
    }
    std::printf(
        "Decoded time code against the song position after 10 minutes, tempo changing "
        "every bar:\n");
    for (const FrameRate rate : {FrameRate::Fps25, FrameRate::Fps2997Drop}) {
        OffsetRun(rate);
    }
    std::printf("load average after: %s\n", LoadAverage().c_str());
    return 0;
}
