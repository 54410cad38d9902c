#include "midi/win32/conducted_midi_clock.h"

#include <utility>

#include "interfaces/kit.h"
#include "midi/Sources/logged_exceptions.h"
#include "midi/Sources/win32/clock_timing.h"
#include "platform/mmsystem.h"

namespace {

constexpr const char* kSourceName = "midi/Sources/win32/conducted_midi_clock";

// The bulk of each wait is an interruptible sleep (a beat may shorten it) that ends this long
// before the deadline; the rest is the precise wait. It must exceed the sleep's worst wake-up
// latency under load.
constexpr std::int64_t kPreciseWaitNanoseconds = 2'000'000;

// How long before each deadline the clock stops sleeping and spins, as the precision clock does.
constexpr std::chrono::nanoseconds kDefaultSpin{200'000};

// Threads: the clock thread waits; any thread wakes or shuts. Locks: its own mutex, held only
// while looking at the wake and shut flags, never during the precise wait.
class PreciseConductorTiming : public ConductedMidiClock::Timing {
  public:
    explicit PreciseConductorTiming(std::chrono::nanoseconds spin) : spin_(spin.count()) {}

    std::int64_t Now() override { return VeltPreciseTimeNow(); }

    bool WaitUntil(std::optional<std::int64_t> deadline) override {
        {
            std::unique_lock lock(mutex_);
            const auto interrupted = [this] { return woken_ || shut_; };
            if (!deadline) {
                condition_.wait(lock, interrupted);
            } else if (const std::int64_t sleep = *deadline - kPreciseWaitNanoseconds - Now();
                       sleep > 0) {
                condition_.wait_for(lock, std::chrono::nanoseconds(sleep), interrupted);
            }
            if (shut_) {
                return false;
            }
            if (std::exchange(woken_, false)) {
                return true;
            }
        }
        // The last stretch is not interruptible; a beat in it is seen by the next wait.
        PreciseWaitUntil(*deadline, spin_);
        return true;
    }

    void Wake() override {
        {
            std::scoped_lock lock(mutex_);
            woken_ = true;
        }
        condition_.notify_all();
    }

    void Shut() override {
        {
            std::scoped_lock lock(mutex_);
            shut_ = true;
        }
        condition_.notify_all();
    }

  private:
    const std::int64_t spin_;
    std::mutex mutex_;
    std::condition_variable condition_;
    bool woken_ = false;
    bool shut_ = false;
};

}  // namespace

std::unique_ptr<ConductedMidiClock::Timing> ConductedMidiClock::PreciseTiming(
    std::chrono::nanoseconds spin) {
    return std::make_unique<PreciseConductorTiming>(spin);
}

ConductedMidiClock::ConductedMidiClock(double lookaheadClicks)
    : ConductedMidiClock(lookaheadClicks, PreciseTiming(kDefaultSpin)) {}

ConductedMidiClock::ConductedMidiClock(double lookaheadClicks, std::unique_ptr<Timing> timing)
    : timing_(std::move(timing)),
      conductor_(lookaheadClicks),
      clockThread_([this] { RunLoggingExceptions(kSourceName, __LINE__, [this] { RunLoop(); }); }) {
}

ConductedMidiClock::~ConductedMidiClock() {
    gate_.Shut();
    timing_->Shut();
    clockThread_.join();
}

void ConductedMidiClock::ConductBeat() {
    if (!GetPlaybackIsArmed()) {
        return;
    }
    {
        std::scoped_lock lock(conductorMutex_);
        lastBeat_ = conductor_.Beat(timing_->Now());
    }
    timing_->Wake();
}

void ConductedMidiClock::ArmPlayback(unsigned int ticksPerClock, int clocksPerClick,
                                     double clockTime, unsigned int tickIndex, int clockNumber) {
    {
        std::scoped_lock lock(clockMutex_);
        StandardMidiClock::ArmPlayback(ticksPerClock, clocksPerClick, clockTime, tickIndex,
                                       clockNumber);
        // The live state after the deferred changes have been replayed over the armed one.
        const ClockState armed = GetClockState();
        std::scoped_lock conductor(conductorMutex_);
        conductor_.Reset(armed.GetClockNumber(), armed.GetClocksPerClick(), armed.GetClockTime());
        lastBeat_ = ConductedBeat::first;
    }
    timing_->Wake();
}

void ConductedMidiClock::DisarmPlayback() {
    StandardMidiClock::DisarmPlayback();
    timing_->Wake();
}

ConductedBeat ConductedMidiClock::GetLastBeat() {
    std::scoped_lock lock(conductorMutex_);
    return lastBeat_;
}

std::optional<double> ConductedMidiClock::GetFollowedClockTime() {
    std::scoped_lock lock(conductorMutex_);
    return conductor_.GetFollowedClockTime();
}

void ConductedMidiClock::SetClockTimer(double seconds) {
    const ClockState next = GetClockState();
    std::scoped_lock lock(conductorMutex_);
    conductor_.ClockSent(firedAt_, next.GetClockNumber(), next.GetClocksPerClick(), seconds);
}

void ConductedMidiClock::StartClock() {
    gate_.RequestStart();
}

void ConductedMidiClock::RunLoop() {
    if (!SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL)) {
        kit::CoutBuffer() << "WARNING: ConductedMidiClock runs at normal priority, "
                          << "SetThreadPriority error " << GetLastError() << kit::endl;
    }
    while (gate_.WaitForStart()) {
        // A failing run is logged and ends; the thread stays ready for the next start.
        RunLoggingExceptions(kSourceName, __LINE__, [this] {
            const OneMillisecondTimerResolution resolution;
            Run_();
        });
        gate_.EndRun();
    }
}

void ConductedMidiClock::Run_() {
    for (;;) {
        std::optional<std::int64_t> due;
        {
            // The stop and RunEnding under one hold of the clock mutex, as AdvanceClock does: a
            // control thread that arms and starts the clock again comes after both.
            std::scoped_lock lock(clockMutex_);
            if (!GetPlaybackIsArmed()) {
                RunEnding();
                return;
            }
            std::scoped_lock conductor(conductorMutex_);
            due = conductor_.NextClockDue();
        }
        if (!timing_->WaitUntil(due)) {
            return;
        }
        if (!due || timing_->Now() < *due) {
            continue;  // woken by a beat, an arm or a disarm: look again
        }
        firedAt_ = *due;
        if (!AdvanceClock()) {
            return;
        }
    }
}
