// The multimedia-timer back end of StandardMidiClock: a chain of one-shot timers, one per MIDI
// clock, whose periods a MidiClockChrono corrects for measured lateness.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include "midi/clock_start_gate.h"
#include "midi/clocks.h"
#include "platform/mmsystem.h"

/// A StandardMidiClock driven by one-shot multimedia timers. A clock thread waits for a start,
/// raises the system timer resolution to 1 ms for the run and fires the first clock itself; each
/// clock then arms a one-shot timer for the next, programmed in whole milliseconds for the
/// corrected period less the time already spent in the clock.
///
/// Threads: the clock thread (first clock of each run), the multimedia timer's thread (every
/// later clock), control threads (setters, StartClock), the owner (destructor). Timers are
/// one-shot, so at most one clock is pending and clocks never overlap.
/// Locks, in order: the clock mutex (AdvanceClock calls SetClockTimer with it held), then the
/// timer mutex (pending timer, stop flag, callbacks in flight), then the chrono's mutex or the
/// platform timer service's. The gate's mutex comes last: AdvanceClock tells the gate that a run
/// is ending with the clock mutex held; otherwise it is taken alone.
class StandardMidiClockImpl : public StandardMidiClock {
  public:
    /// The report interval of the chrono's statistics.
    static constexpr unsigned int kChronoReportInterval = 100;

    /// Starts the clock thread, idle until StartClock.
    StandardMidiClockImpl();
    /// Ends the run if one is live (no clock fires once the destructor has begun waiting for the
    /// timer), ends the clock thread and restores the timer resolution.
    ~StandardMidiClockImpl() override;

    /// Blocks until the clock has stopped (no run live or requested), or for at most `timeout`.
    /// Returns whether it has stopped. For a host that must know the clock is quiet.
    bool WaitUntilStopped(std::chrono::milliseconds timeout) {
        return gate_.WaitUntilIdle(timeout);
    }

  protected:
    /// Arms the one-shot timer for the next clock, `seconds` after the start of this one
    /// (corrected by the chrono). Throws VeltMidiError, after logging "[ERROR] ", when the timer
    /// cannot be set.
    void SetClockTimer(double seconds) override;
    /// Starts a run; ignored while a run is live and not yet decided over.
    void StartClock() override;
    /// Marks the live run as ending, so that a start from now on starts the next one.
    void RunEnding() override { gate_.RunEnding(); }

  private:
    static void CALLBACK DoTimerCallbackFromThread(UINT timerId, UINT message, DWORD_PTR user,
                                                   DWORD_PTR, DWORD_PTR);
    /// One clock: starts the chrono's measurement of the period and advances the clock; ends the
    /// run when the clock stops. Its callers log an exception and end the run.
    void DoTimerCallback();
    /// The clock thread's body: one run per start request; a run that fails is logged and ends,
    /// and the thread waits for the next start.
    void RunLoop();
    void EndRun_();

    ClockStartGate gate_;
    std::mutex timerMutex_;
    std::condition_variable callbacksDone_;
    UINT pendingTimer_ = 0;           // id of the last timer armed
    bool timersStopped_ = false;      // destruction has begun: arm no more timers
    int callbacksInFlight_ = 0;       // timer callbacks running now
    bool timerPeriodRaised_ = false;  // timeBeginPeriod(1) is in force for the live run
    MidiClockChrono chrono_{kChronoReportInterval};
    std::thread clockThread_;  // last: starts once every field above exists
};
