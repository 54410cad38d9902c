// A StandardMidiClock that keeps an absolute deadline for every clock and waits for it with the
// platform's high-resolution absolute wait, so that no error accumulates from clock to clock.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <thread>

#include "midi/clock_start_gate.h"
#include "midi/clocks.h"

/// Same state machine, AdvanceClock and callback as StandardMidiClockImpl; different timing.
/// The clocks fall on a grid: each clock is due one interval after the previous clock's due time,
/// the interval being the clock time of the period that clock sent, so that a change of tempo
/// takes effect with the period at its tick, not one clock before. A late wake-up delays that one
/// clock but not the ones after it, and a clock that comes due while the thread is held up (a
/// slow send, a stall of the system) fires at once, the next ones too until the clock is back on
/// its grid: the tempo is exact over any length of run and a stall shifts nothing after it. Only
/// a clock more than kMaxLag behind its grid starts the grid again from itself, with a warning
/// line. The grid is anchored at the start of each run on the first clock (which comes 1 ms after
/// the start), and again on the first clock after each ArmPlayback.
///
/// The system timer resolution is raised to 1 ms for each run, as StandardMidiClockImpl does.
///
/// Threads: one clock thread runs every clock of a run (asking the system for time-critical
/// priority; a refusal is logged once and the clock runs at normal priority); control threads
/// call the setters and StartClock; the owner destroys it. Locks: the clock mutex (AdvanceClock
/// calls SetClockTimer and tells the gate that a run is ending with it held), then the gate's
/// mutex. The deadlines are touched by the clock thread only; the re-arm mark is atomic.
class PrecisionMidiClockImpl : public StandardMidiClock {
  public:
    /// How long before each deadline the clock thread stops sleeping and spins on the clock, to
    /// take the sleep's wake-up latency out of the clock's timing. Costs that much processor time
    /// per clock: about 1% of one core at 120 clicks per minute, 24 clocks per click.
    static constexpr std::chrono::nanoseconds kDefaultSpin{200'000};
    /// How far behind its grid a clock may fall and still be caught up with. A clock later than
    /// this starts a new grid where it fires: firing every missed clock at once would rush
    /// through a longer gap audibly.
    static constexpr std::chrono::milliseconds kMaxLag{250};

    /// Where the clock reads the time and how it waits for the last stretch before a deadline:
    /// nanoseconds of one monotonic clock. The wait need not be interruptible: the clock sleeps
    /// interruptibly until shortly before each deadline and only then calls it. Both are called
    /// on the clock thread only. Tests pass a clock of their own whose wait moves it on to the
    /// deadline.
    struct Timing {
        std::function<std::int64_t()> now;
        std::function<void(std::int64_t deadline)> waitUntil;
    };
    /// The platform's high-resolution clock and absolute wait, the last `spin` of each wait spent
    /// polling the clock (see kDefaultSpin).
    static Timing PreciseTiming(std::chrono::nanoseconds spin);

    /// Starts the clock thread, idle until StartClock. `spin`: see kDefaultSpin (0 for none).
    explicit PrecisionMidiClockImpl(std::chrono::nanoseconds spin = kDefaultSpin);
    /// The same, on the clock and wait given.
    explicit PrecisionMidiClockImpl(Timing timing);
    /// Ends a live run and the clock thread; returns within a few milliseconds (no clock fires
    /// once the destructor has begun).
    ~PrecisionMidiClockImpl() override;

    /// Blocks until the clock has stopped (no run live or requested), or for at most `timeout`.
    /// Returns whether it has stopped. For a host that must know the clock is quiet.
    bool WaitUntilStopped(std::chrono::milliseconds timeout) {
        return gate_.WaitUntilIdle(timeout);
    }

    /// As StandardMidiClock::ArmPlayback; the next clock, in a run live now or the next one,
    /// starts a new grid: the armed position owes nothing to the earlier clocks' timing.
    void ArmPlayback(unsigned int ticksPerClock, int clocksPerClick, double clockTime,
                     unsigned int tickIndex, int clockNumber) override;

  protected:
    /// Sets the next clock's deadline `seconds` after this clock's due time. Called on the clock
    /// thread (from AdvanceClock); does not wait.
    void SetClockTimer(double seconds) override;
    /// Starts a run; ignored while a run is live and not yet decided over.
    void StartClock() override;
    /// Marks the live run as ending, so that a start from now on starts the next one.
    void RunEnding() override { gate_.RunEnding(); }
    /// Each period lasts as its own tempo says.
    bool TimesEachPeriodAtItsOwnTempo() const override { return true; }

  private:
    void RunLoop();
    /// One run: clocks until AdvanceClock says stop or the clock is destroyed.
    void Run_();
    /// Waits until the deadline (nanoseconds of the timing's clock). Returns false when the
    /// clock is being destroyed.
    bool WaitForDeadline_(std::int64_t deadline);

    const Timing timing_;
    ClockStartGate gate_;
    std::atomic<bool> armed_{false};  // ArmPlayback since the last anchor of the grid
    std::int64_t deadline_ = 0;       // this clock's due time on the grid
    std::int64_t nextDeadline_ = 0;   // the next clock's, set by SetClockTimer
    std::thread clockThread_;         // last: starts once every field above exists
};
