// Clock accuracy: runs PrecisionMidiClockImpl and StandardMidiClockImpl one after the other for a
// fixed number of clocks at 120 clicks per minute (24 clocks per click) and at tempo scale 2.0,
// stamps every clock callback with the performance counter's clock, and prints for each run:
//   - mean period error: mean of (interval between clocks − clock time);
//   - p50 / p99 / max of |clock time stamp − ideal time|, the ideal time of clock k being the
//     first clock's stamp + k × clock time (measured against the start, not clock to clock);
//   - drift: the median deviation of the last 25 clocks (where the clock stands after N clocks,
//     unaffected by the lateness of a single final clock).
//
//   clock_accuracy [--clocks N] [--spin-us S] [--only standard|precision]
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "midi/win32/precision_midi_clock_impl.h"
#include "midi/win32/standard_midi_clock_impl.h"
#include "platform/mmsystem.h"

namespace {

constexpr unsigned int kTicksPerClock = 20;
constexpr int kClocksPerClick = 24;
constexpr double kClockTimeAt120 = 60.0 / 120.0 / kClocksPerClick;  // seconds
constexpr std::size_t kDriftClocks = 25;                            // one click and a clock

struct Figures {
    double meanPeriodErrorMs;
    double p50Ms;
    double p99Ms;
    double maxMs;
    double driftMs;
    std::size_t clocks;
    std::size_t over500us;  // clocks more than 0.5 ms from their ideal time
};

Figures Analyse(const std::vector<LONGLONG>& stamps, double clockTime) {
    const double period = clockTime * 1e9;
    std::vector<double> deviations;
    deviations.reserve(stamps.size());
    for (std::size_t k = 0; k < stamps.size(); ++k) {
        const double ideal = static_cast<double>(stamps[0]) + static_cast<double>(k) * period;
        deviations.push_back(static_cast<double>(stamps[k]) - ideal);
    }
    // Where the clock stands at the end: the median of the last clocks' deviations, so that the
    // figure shows accumulated error rather than the lateness of one final clock.
    const std::size_t tail = std::min<std::size_t>(kDriftClocks, deviations.size());
    std::vector<double> last(deviations.end() - static_cast<std::ptrdiff_t>(tail),
                             deviations.end());
    std::nth_element(last.begin(), last.begin() + static_cast<std::ptrdiff_t>(tail / 2),
                     last.end());
    const double drift = last[tail / 2];
    const double meanPeriodError = static_cast<double>(stamps.back() - stamps.front()) /
                                       static_cast<double>(stamps.size() - 1) -
                                   period;
    std::vector<double> absolute(deviations.size());
    std::transform(deviations.begin(), deviations.end(), absolute.begin(),
                   [](double d) { return std::fabs(d); });
    std::sort(absolute.begin(), absolute.end());
    auto percentile = [&](double p) {
        const auto index = static_cast<std::size_t>(std::ceil(p * absolute.size())) - 1;
        return absolute[std::min(index, absolute.size() - 1)];
    };
    const auto over = static_cast<std::size_t>(
        absolute.end() - std::upper_bound(absolute.begin(), absolute.end(), 500'000.0));
    return Figures{meanPeriodError / 1e6,
                   percentile(0.50) / 1e6,
                   percentile(0.99) / 1e6,
                   absolute.back() / 1e6,
                   drift / 1e6,
                   stamps.size(),
                   over};
}

// Runs one clock for `clocks` clocks and returns the callback stamps (nanoseconds).
template <typename Impl>
std::vector<LONGLONG> Run(Impl& clock, std::size_t clocks, double clockTime) {
    // Written in place into memory touched beforehand: no allocation or page fault in a clock.
    std::vector<LONGLONG> stamps(clocks + 1, 0);
    std::size_t count = 0;
    clock.SetMidiClockCallback([&stamps, &count](double) {
        if (count < stamps.size()) {
            stamps[count++] = VeltPreciseTimeNow();
        }
    });
    clock.ArmPlayback(kTicksPerClock, kClocksPerClick, clockTime, 0, 0);
    // The clock that reaches the caesura is the last one called back.
    clock.SetCaesura(static_cast<unsigned int>(clocks * kTicksPerClock), clockTime,
                     kClocksPerClick);
    clock.ContinuousMode();
    const auto limit =
        std::chrono::milliseconds(static_cast<long long>(clocks * clockTime * 2000.0) + 10'000);
    if (!clock.WaitUntilStopped(limit)) {
        std::fprintf(stderr, "clock did not stop in time\n");
        std::exit(1);
    }
    clock.DisarmPlayback();
    stamps.resize(count);
    return stamps;
}

std::string LoadAverage() {
    std::ifstream file("/proc/loadavg");
    std::string one, five, fifteen;
    file >> one >> five >> fifteen;
    return one.empty() ? "n/a" : one + " " + five + " " + fifteen;
}

void PrintRow(const char* name, double scale, const Figures& f) {
    std::printf("%-24s %5.1f %6zu %12.4f %9.4f %9.4f %9.4f %10.4f %8zu\n", name, scale, f.clocks,
                f.meanPeriodErrorMs, f.p50Ms, f.p99Ms, f.maxMs, f.driftMs, f.over500us);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t clocks = 3000;
    long spinMicroseconds = PrecisionMidiClockImpl::kDefaultSpin.count() / 1000;
    std::string only;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--clocks") == 0) {
            clocks = std::strtoul(argv[i + 1], nullptr, 10);
        } else if (std::strcmp(argv[i], "--spin-us") == 0) {
            spinMicroseconds = std::strtol(argv[i + 1], nullptr, 10);
        } else if (std::strcmp(argv[i], "--only") == 0) {
            only = argv[i + 1];
        }
    }
    if (clocks < 2) {
        std::fprintf(
            stderr,
            "usage: clock_accuracy [--clocks N>=2] [--spin-us S] [--only standard|precision]\n");
        return 2;
    }

    std::printf("clock accuracy: %zu clocks per run, precision spin %ld us, load before %s\n",
                clocks, spinMicroseconds, LoadAverage().c_str());
    std::printf("%-24s %5s %6s %12s %9s %9s %9s %10s %8s\n", "clock", "scale", "clocks",
                "meanPerErrMs", "p50Ms", "p99Ms", "maxMs", "driftMs", ">0.5ms");
    for (const double scale : {1.0, 2.0}) {
        const double clockTime = kClockTimeAt120 / scale;
        if (only != "standard") {
            PrecisionMidiClockImpl clock{std::chrono::microseconds(spinMicroseconds)};
            PrintRow("PrecisionMidiClockImpl", scale,
                     Analyse(Run(clock, clocks, clockTime), clockTime));
        }
        if (only != "precision") {
            StandardMidiClockImpl clock;
            PrintRow("StandardMidiClockImpl", scale,
                     Analyse(Run(clock, clocks, clockTime), clockTime));
        }
    }
    std::printf("load after %s\n", LoadAverage().c_str());
    return 0;
}
