// The conductor model: turns beats given by a person (a key, a pedal, a learned MIDI command) into
// the times at which a MIDI clock sends its clocks. Pure arithmetic on times handed in, with no
// thread or clock of its own, so that scripted beat sequences can drive it on any time line.
// docs/conducting.md describes the model and the reasons for its constants.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>

/// What the conductor model made of one beat.
enum class ConductedBeat {
    first,    // the first beat since Reset: the music starts here
    counted,  // the next click
    missed,   // came about two clicks after the last one: a beat was skipped, two clicks counted
    held,     // came long after the last one (a fermata, a pause): the held click goes on
    extra,    // came far too soon after the last one (a bounce, a double tap): ignored
};

/// Follows a conductor beat by beat. Each beat stands for the start of a click. The model keeps
/// the position of the next clock to send (which click, which clock in it), the last beat it took
/// and the click that beat started (the anchor), and an estimate of the conductor's tempo in
/// seconds per clock.
///
/// - Estimator: each beat's interval, divided by the clocks it spans, is one sample; the estimate
///   is the mean of the last `historyBeats` samples weighted 1, 2, … towards the newest. Until
///   the conductor has given one interval the written clock time is used.
/// - Lookahead: no clock is due at or past `floor(anchor) + lookaheadClicks` clicks; with the
///   default of one click the clock plays the click the last beat started and waits at the start
///   of the next one until its beat comes.
/// - Catch-up: after each clock the lag (where the conductor's beat and tempo say the music
///   should be, less where it is, in clicks) sets the next period to clock time / speed, speed =
///   1 + lag / kCatchUpClicks limited to [kMinSpeed, kMaxSpeed]: the lag shrinks by a constant
///   factor per clock (to about an eighth over a click) without a jump in tempo. A beat that
///   finds the clock waiting at its limit releases it at once (the click starts on the beat),
///   but no sooner after the last clock than the fastest catch-up would.
/// - Beat classes: a sample below kExtraBelow times the estimate is an extra beat (ignored);
///   from kMissedFrom to kHeldFrom times the estimate a beat was missed (the beat counts for two
///   clicks, the sample is the interval over both); from kHeldFrom on the conductor held (the beat
///   starts the next click and its interval is not a sample). The classes need an estimate from
///   the conductor: before it, every beat counts one click.
///
/// Times are nanoseconds of any one monotonic clock. Not thread-safe: its owner guards it.
class Conductor {
  public:
    static constexpr double kDefaultLookaheadClicks = 1.0;
    static constexpr int kDefaultHistoryBeats = 3;
    static constexpr double kCatchUpClicks = 0.5;  // a lag is played off over about this long
    static constexpr double kMaxSpeed = 2.0;       // catching up: at most twice the tempo
    static constexpr double kMinSpeed = 0.5;       // running ahead: at least half the tempo
    static constexpr double kExtraBelow = 0.55;    // of the estimated interval
    static constexpr double kMissedFrom = 1.6;     // of the estimated interval
    static constexpr double kHeldFrom = 2.5;       // of the estimated interval

    /// Throws std::invalid_argument for a lookahead outside (0, 4] clicks or a history outside
    /// 1..16 beats.
    explicit Conductor(double lookaheadClicks = kDefaultLookaheadClicks,
                       int historyBeats = kDefaultHistoryBeats);

    /// Forgets every beat and the tempo estimate: the next clock is clock `clockNumber` of a click
    /// of `clocksPerClick` clocks, the written tempo `writtenClockTime` seconds per clock, and
    /// nothing is due until the first beat.
    void Reset(int clockNumber, int clocksPerClick, double writtenClockTime);
    /// A beat at `time`.
    ConductedBeat Beat(std::int64_t time);
    /// The clock due has been sent at `time`; the next one is clock `nextClockNumber` of a click
    /// of `clocksPerClick` clocks (a clock number 0 starts a new click), and the written tempo is
    /// now `writtenClockTime`.
    void ClockSent(std::int64_t time, int nextClockNumber, int clocksPerClick,
                   double writtenClockTime);
    /// When the next clock is due; none while the model waits for a beat (before the first one,
    /// or at the lookahead limit). May lie in the past: the clock is then due at once.
    std::optional<std::int64_t> NextClockDue() const;

    /// The conductor's tempo in seconds per clock; none until the conductor has given an
    /// interval.
    std::optional<double> GetFollowedClockTime() const { return estimate_; }
    /// Where the next clock stands, in clicks since Reset (click index + clock number / clocks per
    /// click; the first click is 0).
    double GetPosition() const;
    /// The click the last beat started (fractional for a first beat in mid-click).
    double GetAnchor() const { return anchorClick_; }
    double GetLookaheadClicks() const { return lookaheadClicks_; }

  private:
    double ClockTime_() const;
    double Wall_() const;
    int ClocksPerClickAt_(std::int64_t click) const;
    void TakeSample_(double secondsPerClock);

    const double lookaheadClicks_;
    const std::size_t historyBeats_;

    // Where the next clock stands.
    std::int64_t clickIndex_ = 0;
    int clockNumber_ = 0;
    int clocksPerClick_ = 24;
    std::map<std::int64_t, int> clickLengths_;  // clocks per click of the recent clicks entered
    double writtenClockTime_ = 0.02;

    // The beats.
    bool started_ = false;
    double anchorClick_ = 0;
    std::int64_t anchorTime_ = 0;
    bool anchorInMidClick_ = false;  // the first beat came in mid-click: its interval is no sample
    std::deque<double> samples_;     // seconds per clock, the newest last
    std::optional<double> estimate_;

    // The clock.
    std::optional<std::int64_t> lastClockTime_;  // since Reset
    bool waiting_ = true;  // the next clock is at or past the lookahead limit, or no beat yet
    std::int64_t nextDue_ = 0;
};
