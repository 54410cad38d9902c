#include "midi/win32/precision_midi_clock_impl.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <utility>

#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "midi/Sources/logged_exceptions.h"
#include "midi/Sources/win32/clock_timing.h"
#include "platform/mmsystem.h"

namespace {

constexpr const char* kSourceName = "midi/Sources/win32/precision_midi_clock_impl";

// The bulk of each wait is an interruptible sleep that ends this long before the deadline; the
// rest is the precise wait. It must exceed the sleep's worst wake-up latency under load.
constexpr std::int64_t kPreciseWaitNanoseconds = 2'000'000;

// The first clock of a run is due this long after the start, so that it is waited for like every
// other clock and the grid starts on a clock that is as punctual as the rest.
constexpr std::int64_t kStartLeadNanoseconds = 1'000'000;

}  // namespace

PrecisionMidiClockImpl::Timing PrecisionMidiClockImpl::PreciseTiming(
    std::chrono::nanoseconds spin) {
    return Timing{[] { return static_cast<std::int64_t>(VeltPreciseTimeNow()); },
                  [spinNanoseconds = spin.count()](std::int64_t deadline) {
                      PreciseWaitUntil(deadline, spinNanoseconds);
                  }};
}

PrecisionMidiClockImpl::PrecisionMidiClockImpl(std::chrono::nanoseconds spin)
    : PrecisionMidiClockImpl(PreciseTiming(spin)) {}

PrecisionMidiClockImpl::PrecisionMidiClockImpl(Timing timing)
    : timing_(std::move(timing)),
      clockThread_([this] { RunLoggingExceptions(kSourceName, __LINE__, [this] { RunLoop(); }); }) {
}

PrecisionMidiClockImpl::~PrecisionMidiClockImpl() {
    gate_.Shut();
    clockThread_.join();
}

void PrecisionMidiClockImpl::StartClock() {
    gate_.RequestStart();
}

void PrecisionMidiClockImpl::ArmPlayback(unsigned int ticksPerClock, int clocksPerClick,
                                         double clockTime, unsigned int tickIndex,
                                         int clockNumber) {
    StandardMidiClock::ArmPlayback(ticksPerClock, clocksPerClick, clockTime, tickIndex,
                                   clockNumber);
    armed_ = true;
}

void PrecisionMidiClockImpl::SetClockTimer(double seconds) {
    // From this clock's due time, not from when it fired: a late clock takes nothing from the
    // ones after it, and a next clock already due fires at once.
    nextDeadline_ = deadline_ + static_cast<std::int64_t>(std::llround(seconds * 1e9));
}

void PrecisionMidiClockImpl::RunLoop() {
    if (!SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL)) {
        kit::CoutBuffer() << "WARNING: PrecisionMidiClockImpl runs at normal priority, "
                          << "SetThreadPriority error " << GetLastError() << kit::endl;
    }
    VeltPreciseWaitUntil(0, 0);  // whatever a thread's first wait sets up, done before any clock
    while (gate_.WaitForStart()) {
        // A failing run is logged and ends; the thread stays ready for the next start.
        RunLoggingExceptions(kSourceName, __LINE__, [this] {
            const OneMillisecondTimerResolution resolution;
            Run_();
        });
        gate_.EndRun();
    }
}

void PrecisionMidiClockImpl::Run_() {
    constexpr std::int64_t maxLag = std::chrono::nanoseconds(kMaxLag).count();
    nextDeadline_ = timing_.now() + kStartLeadNanoseconds;
    for (bool first = true;; first = false) {
        deadline_ = nextDeadline_;
        if (!WaitForDeadline_(deadline_)) {
            return;
        }
        const std::int64_t now = timing_.now();
        // Read (and cleared) on every clock, so that an arm before the run does not linger.
        const bool armed = armed_.exchange(false);
        if (first || armed) {
            // The grid starts where the first clock of a run or of an armed position really
            // fell, so that a late wake-up there does not shift every clock after it.
            deadline_ = now;
        } else if (now - deadline_ > maxLag) {
            kit::CoutBuffer() << "WARNING: PrecisionMidiClockImpl fell " << std::fixed
                              << std::setprecision(1) << static_cast<double>(now - deadline_) / 1e6
                              << " ms behind its grid; a new grid starts here." << kit::endl;
            deadline_ = now;
        }
        if (!AdvanceClock()) {
            return;
        }
    }
}

bool PrecisionMidiClockImpl::WaitForDeadline_(std::int64_t deadline) {
    const std::int64_t sleepFor =
        std::max<std::int64_t>(0, deadline - kPreciseWaitNanoseconds - timing_.now());
    if (!gate_.SleepUntil(std::chrono::steady_clock::now() + std::chrono::nanoseconds(sleepFor))) {
        return false;
    }
    timing_.waitUntil(deadline);
    return true;
}
