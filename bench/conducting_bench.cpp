// conducting_bench: how closely a conducted clock follows scripted conductors. For each script
// (steady, accelerando, ritardando, fermata, a missed beat, extra beats, a late start, a steady
// beat with human jitter) it prints the tempo error of the followed tempo against the tempo the
// script means, and the lag of each click's first clock behind the beat that means it. The
// conductor model runs on the script's own time line (exact, no machine in it); with --real, the
// steady and the accelerando scripts also run through ConductedMidiClock on the machine's clock,
// a thread beating at the scripted times, which adds the thread's wake-up latency.
//
//   conducting_bench [--real]
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "beat_intervals.h"
#include "midi/conductor.h"
#include "midi/win32/conducted_midi_clock.h"
#include "platform/precise_wait.h"

namespace {

using beat_intervals::Changing;
using beat_intervals::Steady;
using beat_intervals::Then;
constexpr std::int64_t kMs = 1'000'000;  // nanoseconds
constexpr int kClocksPerClick = 24;
constexpr double kWrittenClockTime = 0.025;  // 100 clicks per minute
constexpr unsigned int kTicksPerClock = 20;

// One beat of a script: when (ms from the start) and which click it means (-1: a beat that means
// nothing, a bounce).
struct ScriptedBeat {
    double at;
    int click;
};

struct Script {
    std::string name;
    std::vector<ScriptedBeat> beats;
    std::vector<double> meant;  // per click: the interval (ms) the conductor means to end it
};

// Clicks of the given intervals, each beaten; the first beat at `start`.
Script Beaten(std::string name, double start, const std::vector<double>& intervals) {
    Script script{std::move(name), {{start, 0}}, {0}};
    double at = start;
    for (const double interval : intervals) {
        at += interval;
        script.beats.push_back({at, static_cast<int>(script.meant.size())});
        script.meant.push_back(interval);
    }
    return script;
}

std::vector<Script> Scripts() {
    std::vector<Script> scripts;
    scripts.push_back(Beaten("steady 120", 0, Steady(23, 500)));
    scripts.push_back(
        Beaten("accelerando 120-200", 0, Then(Changing(18, 500, 0.97), Steady(8, 300))));
    scripts.push_back(
        Beaten("ritardando 120-72", 0, Then(Changing(14, 500, 1.04), Steady(8, 830))));
    {
        Script fermata =
            Beaten("fermata 3 s", 0, Then(Then(Steady(8, 500), {3000}), Steady(8, 500)));
        fermata.meant[9] = 0;  // the hold is no tempo
        scripts.push_back(fermata);
    }
    {
        Script missed = Beaten("missed beat", 0, Steady(20, 500));
        missed.beats.erase(missed.beats.begin() + 9);
        scripts.push_back(missed);
    }
    {
        Script extra = Beaten("extra beats", 0, Steady(20, 500));
        extra.beats.insert(extra.beats.begin() + 7, {extra.beats[6].at + 120, -1});
        extra.beats.insert(extra.beats.begin() + 16, {extra.beats[15].at + 90, -1});
        scripts.push_back(extra);
    }
    scripts.push_back(Beaten("late start (4 s)", 4000, Steady(15, 500)));
    {
        Script jitter = Beaten("steady 120 +-20 ms jitter", 0, Steady(31, 500));
        std::mt19937 random(7);
        std::uniform_real_distribution<double> spread(-20.0, 20.0);
        for (std::size_t i = 1; i < jitter.beats.size(); ++i) {
            jitter.beats[i].at += spread(random);
        }
        scripts.push_back(jitter);
    }
    return scripts;
}

// What a run produced: the first clock of each click and the followed tempo after each beat.
struct Run {
    std::vector<std::int64_t> clickStarts;                  // by click
    std::vector<std::pair<int, double>> followedAfterBeat;  // (click meant, ms per click)
    int clocks = 0;
};

// The conductor model alone, on the script's time line.
Run Simulate(const Script& script) {
    Conductor conductor;
    conductor.Reset(0, kClocksPerClick, kWrittenClockTime);
    Run run;
    int clockNumber = 0;
    std::size_t next = 0;
    for (;;) {
        const auto due = conductor.NextClockDue();
        const bool beatLeft = next < script.beats.size();
        const std::int64_t beatAt = beatLeft ? std::llround(script.beats[next].at * kMs) : 0;
        if (due && (!beatLeft || *due <= beatAt)) {
            if (clockNumber == 0) {
                run.clickStarts.push_back(*due);
            }
            ++run.clocks;
            clockNumber = (clockNumber + 1) % kClocksPerClick;
            conductor.ClockSent(*due, clockNumber, kClocksPerClick, kWrittenClockTime);
        } else if (beatLeft) {
            conductor.Beat(beatAt);
            if (const auto followed = conductor.GetFollowedClockTime()) {
                run.followedAfterBeat.emplace_back(script.beats[next].click,
                                                   *followed * kClocksPerClick * 1000);
            }
            ++next;
        } else {
            return run;
        }
    }
}

// The whole clock on the machine's clock: a thread beats at the scripted times.
Run RunForReal(const Script& script) {
    ConductedMidiClock clock;
    Run run;
    std::mutex mutex;
    clock.SetMidiClockCallback([&](double) {
        const std::int64_t now = VeltPreciseTimeNow();
        const int number = clock.GetClockState().GetClockNumber();
        std::scoped_lock lock(mutex);
        if (number == 0) {
            run.clickStarts.push_back(now);
        }
        ++run.clocks;
    });
    clock.ArmPlayback(kTicksPerClock, kClocksPerClick, kWrittenClockTime, 0, 0);
    clock.ContinuousMode();
    const std::int64_t start = VeltPreciseTimeNow() + 100 * kMs;
    for (const ScriptedBeat& beat : script.beats) {
        VeltPreciseWaitUntil(start + std::llround(beat.at * kMs), 0);
        clock.ConductBeat();
        if (const auto followed = clock.GetFollowedClockTime()) {
            std::scoped_lock lock(mutex);
            run.followedAfterBeat.emplace_back(beat.click, *followed * kClocksPerClick * 1000);
        }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    clock.DisarmPlayback();
    clock.WaitUntilStopped(std::chrono::seconds(5));
    std::scoped_lock lock(mutex);
    for (auto& time : run.clickStarts) {
        time -= start;
    }
    return run;
}

double Percentile(std::vector<double> values, double p) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(std::lround(p * (values.size() - 1)))];
}

void Report(const Script& script, const Run& run, const char* how) {
    // Tempo error: the followed tempo after each beat against the tempo meant for the next click
    // (what the clock plays next), from the third beat on (the first has no interval).
    std::vector<double> tempoErrors;
    for (const auto& [click, followed] : run.followedAfterBeat) {
        if (click < 2 || click + 1 >= static_cast<int>(script.meant.size()) ||
            script.meant[static_cast<std::size_t>(click + 1)] <= 0) {
            continue;
        }
        const double meant = script.meant[static_cast<std::size_t>(click + 1)];
        tempoErrors.push_back(std::abs(followed - meant) / meant * 100);
    }
    // Lag: each click's first clock against the beat meant for it. The second click is apart:
    // the first plays at the written tempo, as the conductor has given no interval yet.
    std::vector<double> lags;
    double secondClickLag = 0;
    int ahead = 0;
    for (const ScriptedBeat& beat : script.beats) {
        if (beat.click < 1 || beat.click >= static_cast<int>(run.clickStarts.size())) {
            continue;
        }
        const double lag =
            static_cast<double>(run.clickStarts[static_cast<std::size_t>(beat.click)]) / kMs -
            beat.at;
        ahead += lag < -0.001 ? 1 : 0;
        if (beat.click == 1) {
            secondClickLag = lag;
        } else {
            lags.push_back(lag);
        }
    }
    std::vector<double> absLags;
    for (const double lag : lags) {
        absLags.push_back(std::abs(lag));
    }
    double meanTempo = 0;
    for (const double e : tempoErrors) {
        meanTempo += e / static_cast<double>(tempoErrors.size());
    }
    std::printf("%-27s %-5s %6zu %6d %9.2f %9.2f %9.2f %9.2f %9.2f %9.2f %6d\n",
                script.name.c_str(), how, script.beats.size(), run.clocks, meanTempo,
                Percentile(tempoErrors, 1.0), secondClickLag, Percentile(absLags, 0.5),
                Percentile(absLags, 0.95), Percentile(absLags, 1.0), ahead);
}

void PrintLoad(const char* when) {
    double load[3] = {0, 0, 0};
    if (getloadavg(load, 3) == 3) {
        std::printf("load average %s: %.2f %.2f %.2f\n", when, load[0], load[1], load[2]);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const bool real = argc > 1 && std::string(argv[1]) == "--real";
    PrintLoad("before");
    std::printf(
        "lookahead %.2f click, history %d beats, %d clocks a click, written %.0f "
        "clicks/min\n",
        Conductor::kDefaultLookaheadClicks, Conductor::kDefaultHistoryBeats, kClocksPerClick,
        60 / (kWrittenClockTime * kClocksPerClick));
    std::printf("%-27s %-5s %6s %6s %9s %9s %9s %9s %9s %9s %6s\n", "script", "run", "beats",
                "clocks", "tempo%avg", "tempo%max", "lag2nd", "lag|p50|", "lag|p95|", "lag|max|",
                "ahead");
    const auto scripts = Scripts();
    for (const Script& script : scripts) {
        Report(script, Simulate(script), "model");
    }
    if (real) {
        for (std::size_t i = 0; i < 2; ++i) {
            Report(scripts[i], RunForReal(scripts[i]), "real");
        }
    }
    PrintLoad("after");
    return 0;
}
