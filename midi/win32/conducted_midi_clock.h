// A MIDI clock that follows a conductor: each ConductBeat is the start of a click, and the clocks
// between beats run at the tempo the conductor's recent beats set (midi/conductor.h has the
// model, docs/conducting.md the reasons).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "midi/clock_start_gate.h"
#include "midi/clocks.h"
#include "midi/conductor.h"

/// The same state machine, AdvanceClock and callback as the other clocks (arm, disarm, changes at
/// once, scheduled at ticks or deferred while disarmed, caesura, the callback with the written
/// tempo in clicks per minute), so the position and the output drive it unchanged. What differs
/// is when each clock is sent: a run (ContinuousMode) sends nothing until the first beat, then
/// each clock when the conductor model says it is due. At the lookahead limit, or before the
/// first beat, the clock thread waits for a beat; a disarm or the destructor wakes it, and the
/// run ends as at a caesura. The written clock time (tempo scale included) sets the pace only
/// until the conductor has given an interval.
///
/// Each clock's time is its due time, not when the thread woke, so that a late wake-up does not
/// shift the clocks after it. The system timer resolution is raised to 1 ms for each run.
///
/// Threads: one clock thread runs every clock; control threads call the setters, ArmPlayback,
/// DisarmPlayback and StartClock; any thread calls ConductBeat and the tempo queries; the owner
/// destroys it. Locks, in order: the clock mutex (AdvanceClock calls SetClockTimer with it held),
/// then the conductor mutex around the model; the timing's and the gate's own mutexes are taken
/// last and alone. ConductBeat reads the armed flag under the clock mutex and then takes the
/// conductor mutex, one after the other; neither is held while the clock callback runs, so a
/// beat never waits for a clock being sent.
class ConductedMidiClock : public StandardMidiClock {
  public:
    /// Where the clock reads the time (nanoseconds of one monotonic clock) and how its thread
    /// waits. Tests pass a time line of their own that moves only when they say.
    class Timing {
      public:
        virtual ~Timing() = default;
        virtual std::int64_t Now() = 0;
        /// Blocks until `deadline` has come (none: no deadline), Wake is called or Shut has
        /// been. A Wake that comes while no one waits makes the next wait return at once.
        /// Returns false once shut.
        virtual bool WaitUntil(std::optional<std::int64_t> deadline) = 0;
        virtual void Wake() = 0;
        /// Every wait from now on returns false at once.
        virtual void Shut() = 0;
    };
    /// The platform's high-resolution clock: an interruptible sleep until shortly before the
    /// deadline, then the platform's precise wait, its last `spin` spent polling.
    static std::unique_ptr<Timing> PreciseTiming(std::chrono::nanoseconds spin);

    /// Starts the clock thread, idle until StartClock. Throws std::invalid_argument for a
    /// lookahead the conductor model refuses.
    explicit ConductedMidiClock(double lookaheadClicks = Conductor::kDefaultLookaheadClicks);
    ConductedMidiClock(double lookaheadClicks, std::unique_ptr<Timing> timing);
    /// Ends a live run and the clock thread.
    ~ConductedMidiClock() override;

    /// A beat: the start of the next click. Ignored by a clock that is not armed.
    void ConductBeat() override;
    /// As StandardMidiClock::ArmPlayback; the conductor model starts afresh at the armed
    /// position and waits for a first beat.
    void ArmPlayback(unsigned int ticksPerClock, int clocksPerClick, double clockTime,
                     unsigned int tickIndex, int clockNumber) override;
    /// As StandardMidiClock::DisarmPlayback; a run waiting for a beat ends.
    void DisarmPlayback() override;

    /// What the model made of the last beat (ConductedBeat::first before any).
    ConductedBeat GetLastBeat();
    /// The conductor's tempo in seconds per clock; none until the conductor has given an
    /// interval since the last ArmPlayback.
    std::optional<double> GetFollowedClockTime();
    /// Blocks until the clock has stopped (no run live or requested), or for at most `timeout`.
    bool WaitUntilStopped(std::chrono::milliseconds timeout) {
        return gate_.WaitUntilIdle(timeout);
    }

  protected:
    /// Hands the sent clock to the conductor model (the clock thread, from AdvanceClock).
    void SetClockTimer(double seconds) override;
    void StartClock() override;
    void RunEnding() override { gate_.RunEnding(); }
    /// The written clock time handed to the model is the one of the period just sent.
    bool TimesEachPeriodAtItsOwnTempo() const override { return true; }

  private:
    void RunLoop();
    void Run_();

    const std::unique_ptr<Timing> timing_;
    std::mutex conductorMutex_;
    Conductor conductor_;                            // guarded by conductorMutex_
    ConductedBeat lastBeat_ = ConductedBeat::first;  // guarded by conductorMutex_
    ClockStartGate gate_;
    std::int64_t firedAt_ = 0;  // the due time of the clock being sent; clock thread only
    std::thread clockThread_;   // last: starts once every field above exists
};
