// The software MIDI clock: its parameters (ClockState), the clock's state machine with immediate,
// scheduled and deferred changes (StandardMidiClock), and the measurement of timer lateness that
// corrects the clock's periods (MidiClockChrono). The timers that drive the clock are supplied by
// subclasses of StandardMidiClock (midi/win32/).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "midi/midi_clock.h"

// ---------------------------------------------------------------------------------------------
// ClockState

/// The parameters of a clock, each with a flag saying whether it holds a value. A scheduled
/// change carries only the fields that change; assignment merges only the fields set in the
/// source.
///
/// Threads: any. Locks: its own recursive mutex around every read and write; assignment takes
/// both records' mutexes together (deadlock-free whatever the order of the two records).
class ClockState {
  public:
    /// No field set.
    ClockState() = default;
    /// All five fields set.
    ClockState(unsigned int tickIndex, int clockNumber, unsigned int ticksPerClock,
               int clocksPerClick, double clockTime);
    /// A full copy, set-flags included.
    ClockState(const ClockState& other);
    /// Merge: copies the fields set in `other` (and sets their flags here); the others keep their
    /// values.
    ClockState& operator=(const ClockState& other);

    unsigned int GetTickIndex() const;
    int GetClockNumber() const;
    unsigned int GetTicksPerClock() const;
    int GetClocksPerClick() const;
    /// Seconds per clock.
    double GetClockTime() const;

    void SetTickIndex(unsigned int tickIndex);
    void SetClockNumber(int clockNumber);
    void SetTicksPerClock(unsigned int ticksPerClock);
    void SetClocksPerClick(int clocksPerClick);
    void SetClockTime(double clockTime);

    bool HasTickIndex() const;
    bool HasClockNumber() const;
    bool HasTicksPerClock() const;
    bool HasClocksPerClick() const;
    bool HasClockTime() const;

    /// Tempo in clicks per minute: 60 / (clocks per click × clock time).
    double GetBeatsPerMinute() const;

    /// One clock on: the clock number counts up and wraps to 0 when it reaches clocks per click;
    /// the tick index grows by ticks per clock.
    void AdvanceClock();

  private:
    mutable std::recursive_mutex mutex_;
    unsigned int tickIndex_ = 0;
    int clockNumber_ = 0;
    unsigned int ticksPerClock_ = 0;
    int clocksPerClick_ = 0;
    double clockTime_ = 0.0;
    bool tickIndexSet_ = false;
    bool clockNumberSet_ = false;
    bool ticksPerClockSet_ = false;
    bool clocksPerClickSet_ = false;
    bool clockTimeSet_ = false;
};

// ---------------------------------------------------------------------------------------------
// StandardMidiClock

/// A software MIDI clock advanced one clock at a time by a timer that a subclass supplies
/// (SetClockTimer, StartClock). Changes of its parameters apply at once (valid-at tick 0), when a
/// clock lands exactly on their tick (scheduled), or, while playback is disarmed, are kept and
/// replayed by the next ArmPlayback (deferred).
///
/// Threads: the setters come from the playback side (host thread, queue thread); AdvanceClock
/// runs on the subclass's timer thread. Locks: the clock mutex (`clockMutex_`, recursive, of
/// MidiClock) guards the armed flag, the scheduled states, the caesura and the deferred lists;
/// the live ClockState's own mutex guards its fields. The clock mutex is always taken first.
/// Neither is held while the clock callback runs.
class StandardMidiClock : public MidiClock {
  public:
    StandardMidiClock() = default;
    ~StandardMidiClock() override = default;

    /// Sets the live ticks per clock at once, armed or not.
    void SetTicksPerClock(unsigned int ticksPerClock) override;
    /// Disarmed: deferred until ArmPlayback. Armed: at once for validAt 0, scheduled for a
    /// validAt at or after the live tick index, else refused with a warning line.
    void SetClocksPerClick(int clocksPerClick, unsigned int validAt) override;
    /// As SetClocksPerClick, for the seconds per clock.
    void SetClockTime(double clockTime, unsigned int validAt) override;
    /// Armed: replaces all five fields, at once (validAt 0) or scheduled at validAt; a validAt
    /// before the live tick index is refused with a warning line. Disarmed: only drops the
    /// deferred changes.
    void SetTickIndex(unsigned int tickIndex, int clockNumber, unsigned int ticksPerClock,
                      int clocksPerClick, double clockTime, unsigned int validAt) override;
    /// Schedules a stop at a tick after the live one (else refused with a warning line). The next
    /// ArmPlayback or DisarmPlayback cancels it.
    void SetCaesura(unsigned int caesuraTickIndex, double clockTime, int clocksPerClick) override;
    /// Takes the given state, drops the scheduled changes and the caesura, and replays the
    /// deferred changes in the order they came (through the virtual setters).
    void ArmPlayback(unsigned int ticksPerClock, int clocksPerClick, double clockTime,
                     unsigned int tickIndex, int clockNumber) override;
    /// Disarms and drops every pending change and the caesura. The clock stops at its next
    /// expiry.
    void DisarmPlayback() override;
    /// Starts the clock running (StartClock).
    void ContinuousMode() override;
    /// Throws std::logic_error "Not implemented".
    void ConductBeat() override;
    /// Both throw std::logic_error "Not implemented.".
    void SetConductorClickTimerCallback(std::function<void(void*)> callback, void* data) override;
    void SetDownbeatTimerCallback(std::function<void(void*)> callback, void* data) override;
    bool GetPlaybackIsArmed() override;

    /// One clock: calls the clock callback with the tempo, advances the live state, applies the
    /// change scheduled exactly at the new tick, and re-arms the timer (SetClockTimer) unless
    /// playback is disarmed or the caesura tick was reached. Returns whether the timer goes on.
    /// The timer gets the clock time applied last, the change at the new tick included (so a
    /// change of tempo times the clock before its tick), unless TimesEachPeriodAtItsOwnTempo.
    /// Called on the timer thread; the callback runs without the clock's locks.
    bool AdvanceClock();

    /// A copy of the live parameters.
    ClockState GetClockState() const;
    /// Whether a caesura is pending.
    bool GetCaesuraIsPending();

  protected:
    /// Arms the timer to fire AdvanceClock once more after `seconds`. Called with the clock mutex
    /// held, from AdvanceClock: must not wait for the timer.
    virtual void SetClockTimer(double seconds) = 0;
    /// Starts a run of the timer, whose first expiry comes at once.
    virtual void StartClock() = 0;
    /// Called by AdvanceClock, with the clock mutex held, at the moment it decides that the timer
    /// stops (playback disarmed, or the caesura reached). Whatever a control thread does under the
    /// clock mutex after the stop (arming again, reading the caesura) comes after this call, so a
    /// subclass that marks its run as ending here can tell a start requested after the stop from
    /// one requested while the run was still going. Must not wait for the timer.
    virtual void RunEnding() {}
    /// Whether the timer after a clock gets the clock time of the period that clock has just sent
    /// (changes applied at once up to the timer's arming included, the one scheduled at the next
    /// period's tick not), so that each period lasts as long as its own tempo says. False here:
    /// the timer gets the clock time in force once the next period's change has landed. Constant
    /// for the life of the object.
    virtual bool TimesEachPeriodAtItsOwnTempo() const { return false; }

  private:
    /// The change of one field (SetClocksPerClick, SetClockTime): deferred, at once, refused with
    /// the warning naming `operation`, or scheduled.
    template <typename Value>
    void ChangeField_(const char* operation, Value value, unsigned int validAt,
                      std::vector<std::pair<Value, unsigned int>>& deferred,
                      void (ClockState::*set)(Value));

    std::map<unsigned int, ClockState> scheduledStates_;
    bool playbackArmed_ = false;
    ClockState clockState_;
    bool caesuraPending_ = false;
    unsigned int caesuraTickIndex_ = 0;
    double caesuraClockTime_ = 0.0;
    int caesuraClocksPerClick_ = 0;
    std::vector<std::pair<int, unsigned int>> deferredClocksPerClick_;
    std::vector<std::pair<double, unsigned int>> deferredClockTimes_;
};

// ---------------------------------------------------------------------------------------------
// MidiClockChrono

/// Measures how late each clock period really ends and turns the measured error into a
/// correction of the next period, so that the tempo holds over the long run although single
/// timers are late. Also gathers timing statistics and reports them, from a thread of its own,
/// through notify::guiDispatcher.SendMidiClockDebugMessage.
///
/// Threads: Start, GetSecondsSinceStart and CorrectClockPeriodForAverageError come from the
/// clock's timer callbacks, one at a time; the statistics may come from any thread; the report
/// thread sends the reports (a report that fails is logged and the next is still sent). Locks: one
/// plain mutex around every field but the running flag (atomic); the report is sent without it.
class MidiClockChrono {
  public:
    /// The performance counter read as a std::chrono clock in nanoseconds.
    struct PerformanceClock {
        using rep = std::int64_t;
        using period = std::nano;
        using duration = std::chrono::nanoseconds;
        using time_point = std::chrono::time_point<PerformanceClock>;
        static constexpr bool is_steady = true;
        static time_point now();
    };
    using TimePoint = PerformanceClock::time_point;
    /// Where the chrono reads the time; tests pass a clock of their own.
    using TimeSource = std::function<TimePoint()>;

    /// Number of period errors averaged per refinement of the correction.
    static constexpr std::size_t kPeriodicErrorCount = 20;

    /// Starts the report thread. `reportInterval`: StopTotal samples per report. `timeSource`:
    /// empty for the performance counter (Now).
    explicit MidiClockChrono(unsigned int reportInterval, TimeSource timeSource = {});
    /// Stops and joins the report thread.
    ~MidiClockChrono();
    MidiClockChrono(const MidiClockChrono&) = delete;
    MidiClockChrono& operator=(const MidiClockChrono&) = delete;

    /// Begins a clock period that should last `expectedPeriod` seconds, and measures the error of
    /// the previous one (how much longer than announced it lasted).
    void Start(double expectedPeriod);
    /// Seconds since the last Start.
    double GetSecondsSinceStart();
    /// The period to program into the timer for a clock period of `period` seconds: the period
    /// less the correction learnt so far (unchanged before the first measured error, and
    /// unchanged, with all error state reset, when the correction would make it negative).
    double CorrectClockPeriodForAverageError(double period);
    /// Forgets all error state, the announced period included.
    void ResetErrorCorrection();
    /// Forgets the learnt correction and the periodic errors but keeps the announced period;
    /// done at the start of every run of the clock.
    void ResetErrorCorrectionForRun();

    /// Adds a clock time (seconds) to the statistics.
    void ReportClockTime(double seconds);
    /// Adds the time since Start to the overhead statistics.
    void StopOverhead();
    /// Adds the time since Start to the total statistics and counts a sample; every
    /// `reportInterval` samples the report thread sends a report.
    void StopTotal();

    /// The correction in seconds (for diagnostics and tests).
    double GetCorrection();
    /// Mean of the last kPeriodicErrorCount period errors, in seconds.
    double GetAverageError();

    static std::int64_t GetTimeDifferenceNanoSeconds(TimePoint from, TimePoint to);
    static double GetTimeDifferenceSeconds(TimePoint from, TimePoint to);
    /// The performance counter now.
    static TimePoint Now();
    /// A performance-counter count in nanoseconds: × 100 at exactly 10 MHz, else whole seconds
    /// and the remainder converted separately so that neither overflows nor loses precision.
    static std::int64_t CounterToNanoseconds(std::int64_t count, std::int64_t frequency);

  private:
    void RunLoop();
    void ResetPeriodicErrors_();
    double GetAverageError_() const;

    std::mutex mutex_;
    const unsigned int reportInterval_;
    const TimeSource timeSource_;
    unsigned int sampleCount_ = 0;
    std::uint64_t overheadSum_ = 0;  // nanoseconds
    std::uint64_t totalSum_ = 0;     // nanoseconds
    std::uint64_t clockTimeReportCount_ = 0;
    double clockTimeSum_ = 0.0;  // seconds
    TimePoint start_{};
    std::atomic<bool> running_{true};
    std::condition_variable reportCondition_;
    std::deque<double> periodicErrors_;  // seconds, always kPeriodicErrorCount entries
    unsigned int periodicErrorCount_ = 0;
    bool hasInitialError_ = false;
    double correction_ = 0.0;      // seconds
    double expectedPeriod_ = 0.0;  // seconds, 0 when none
    std::thread reportThread_;     // last: starts once every field above exists
};
