// The conducted clock against scripted conductors on a time line of the test's own: the clock's
// thread waits on that time line, and the test moves it on only once the thread has settled into
// a wait, straight to the next clock due or the next scripted beat. Every run is therefore the
// same run, whatever the machine's load, and no wall-clock time is asserted.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "beat_intervals.h"
#include "midi/conductor.h"
#include "midi/win32/conducted_midi_clock.h"

namespace {

using beat_intervals::Changing;
using beat_intervals::Steady;
using beat_intervals::Then;
using namespace std::chrono_literals;

constexpr std::int64_t kMs = 1'000'000;  // nanoseconds
constexpr unsigned int kTicksPerClock = 20;
constexpr double kWrittenClockTime = 0.025;  // 100 clicks per minute at 24 clocks per click

// The test's time line. The clock thread waits on it; the test thread moves it on.
class ScriptedTime : public ConductedMidiClock::Timing {
  public:
    std::int64_t Now() override {
        std::scoped_lock lock(mutex_);
        return now_;
    }

    bool WaitUntil(std::optional<std::int64_t> deadline) override {
        std::unique_lock lock(mutex_);
        waiting_ = true;
        deadline_ = deadline;
        changed_.notify_all();
        changed_.wait(lock, [&] { return shut_ || woken_ || (deadline && now_ >= *deadline); });
        waiting_ = false;
        woken_ = false;
        changed_.notify_all();
        return !shut_;
    }

    void Wake() override {
        std::scoped_lock lock(mutex_);
        woken_ = true;
        changed_.notify_all();
    }

    void Shut() override {
        std::scoped_lock lock(mutex_);
        shut_ = true;
        changed_.notify_all();
    }

    /// Test thread: waits until the clock thread waits with nothing that would end its wait, and
    /// returns that wait's deadline; or until `stopped` says the clock's run is over (nullopt).
    /// The polling interval only paces the check of `stopped`.
    std::optional<std::optional<std::int64_t>> Settle(const std::function<bool()>& stopped) {
        std::unique_lock lock(mutex_);
        for (;;) {
            if (changed_.wait_for(lock, 5ms, [&] {
                    return waiting_ && !woken_ && !(deadline_ && now_ >= *deadline_);
                })) {
                return deadline_;
            }
            lock.unlock();
            const bool over = stopped();
            lock.lock();
            if (over) {
                return std::nullopt;
            }
        }
    }

    void AdvanceTo(std::int64_t time) {
        std::scoped_lock lock(mutex_);
        now_ = std::max(now_, time);
        changed_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::int64_t now_ = 0;
    bool waiting_ = false;
    std::optional<std::int64_t> deadline_;
    bool woken_ = false;
    bool shut_ = false;
};

struct SentClock {
    std::int64_t time;
    unsigned int tick;
    int clockNumber;
};

// A conducted clock on the scripted time line, with every clock it sends recorded, started
// (armed and running) at clock `clockNumber` of clicks of `clocksPerClick`.
class ConductedRun {
  public:
    explicit ConductedRun(double lookaheadClicks = 1.0, int clocksPerClick = 24,
                          int clockNumber = 0)
        : time_(new ScriptedTime), clock_(lookaheadClicks, std::unique_ptr<ScriptedTime>(time_)) {
        clock_.SetMidiClockCallback([this](double) {
            const ClockState state = clock_.GetClockState();
            std::scoped_lock lock(mutex_);
            sent_.push_back({time_->Now(), state.GetTickIndex(), state.GetClockNumber()});
        });
        clock_.ArmPlayback(kTicksPerClock, clocksPerClick, kWrittenClockTime,
                           static_cast<unsigned int>(clockNumber) * kTicksPerClock, clockNumber);
        clock_.ContinuousMode();
    }

    ConductedMidiClock& Clock() { return clock_; }

    /// Runs the time line to `end`, beating at each scripted time (sorted). A clock due at the
    /// same moment as a beat is sent first. Returns what the clock made of each beat.
    std::vector<ConductedBeat> Conduct(const std::vector<std::int64_t>& beats, std::int64_t end) {
        std::vector<ConductedBeat> kinds;
        std::size_t next = 0;
        for (;;) {
            const auto settled = time_->Settle([this] { return clock_.WaitUntilStopped(0ms); });
            if (!settled) {
                return kinds;  // the run has ended
            }
            const std::int64_t due = settled->value_or(std::numeric_limits<std::int64_t>::max());
            const std::int64_t beat =
                next < beats.size() ? beats[next] : std::numeric_limits<std::int64_t>::max();
            if (std::min(due, beat) > end) {
                time_->AdvanceTo(end);
                return kinds;
            }
            if (due <= beat) {
                time_->AdvanceTo(due);
            } else {
                time_->AdvanceTo(beat);
                clock_.ConductBeat();
                kinds.push_back(clock_.GetLastBeat());
                ++next;
            }
        }
    }

    std::vector<SentClock> Sent() {
        std::scoped_lock lock(mutex_);
        return sent_;
    }

  private:
    ScriptedTime* time_;  // owned by the clock
    std::mutex mutex_;
    std::vector<SentClock> sent_;
    ConductedMidiClock clock_;  // last: its thread goes first
};

// Beats at the given intervals (ms), the first at `start` ms.
std::vector<std::int64_t> BeatsAt(double start, const std::vector<double>& intervals) {
    std::vector<std::int64_t> beats{std::llround(start * kMs)};
    double at = start;
    for (const double interval : intervals) {
        at += interval;
        beats.push_back(std::llround(at * kMs));
    }
    return beats;
}

// No clock lost or doubled: each clock one clock on from the one before, the clock numbers
// wrapping at the click length.
void ExpectConsecutive(const std::vector<SentClock>& sent, int clocksPerClick) {
    for (std::size_t i = 1; i < sent.size(); ++i) {
        ASSERT_EQ(sent[i].tick, sent[i - 1].tick + kTicksPerClock) << "clock " << i;
        ASSERT_EQ(sent[i].clockNumber, (sent[i - 1].clockNumber + 1) % clocksPerClick)
            << "clock " << i;
        ASSERT_GE(sent[i].time, sent[i - 1].time) << "clock " << i;
    }
}

// The clocks that start clicks, in order.
std::vector<SentClock> Downbeats(const std::vector<SentClock>& sent) {
    std::vector<SentClock> downbeats;
    std::copy_if(sent.begin(), sent.end(), std::back_inserter(downbeats),
                 [](const SentClock& clock) { return clock.clockNumber == 0; });
    return downbeats;
}

// With a lookahead of one click, click k starts no sooner than the k-th beat after the first
// (`owed` clicks more may have been counted for missed beats).
void ExpectWithinLookahead(const std::vector<SentClock>& sent,
                           const std::vector<std::int64_t>& beats, int owed = 0) {
    const auto downbeats = Downbeats(sent);
    for (std::size_t k = 0; k < downbeats.size(); ++k) {
        const auto given =
            std::upper_bound(beats.begin(), beats.end(), downbeats[k].time) - beats.begin();
        EXPECT_LT(static_cast<long>(k), given + owed) << "click " << k << " ran ahead";
    }
}

double Milliseconds(std::int64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / kMs;
}

// ---------------------------------------------------------------------------------------------
// Scripted conductors through the whole clock

TEST(ConductedClock, SteadyBeatsPlayEveryClickAndLockOntoTheBeat) {
    ConductedRun run;
    const auto beats = BeatsAt(0, Steady(15, 500));
    const auto kinds = run.Conduct(beats, 10'000 * kMs);
    const auto sent = run.Sent();

    // Sixteen beats: sixteen clicks, and the clock waits at the seventeenth.
    ASSERT_EQ(sent.size(), 16u * 24u);
    ExpectConsecutive(sent, 24);
    ExpectWithinLookahead(sent, beats);
    EXPECT_EQ(kinds.front(), ConductedBeat::first);
    EXPECT_TRUE(std::all_of(kinds.begin() + 1, kinds.end(),
                            [](auto kind) { return kind == ConductedBeat::counted; }));
    ASSERT_TRUE(run.Clock().GetFollowedClockTime());
    EXPECT_NEAR(*run.Clock().GetFollowedClockTime(), 0.5 / 24, 1e-9);

    // The first click plays at the written tempo (slower than the conductor); the clock catches
    // up and, a few beats on, starts each click on its beat.
    const auto downbeats = Downbeats(sent);
    EXPECT_EQ(downbeats[0].time, beats[0]);
    EXPECT_GT(downbeats[1].time, beats[1]);
    for (std::size_t k = 5; k < downbeats.size(); ++k) {
        EXPECT_NEAR(Milliseconds(downbeats[k].time - beats[k]), 0, 1.0) << "click " << k;
    }
    // Caught up without a rush: no clock faster than twice the conductor's tempo.
    for (std::size_t i = 1; i < sent.size(); ++i) {
        EXPECT_GE(Milliseconds(sent[i].time - sent[i - 1].time), 500.0 / 24 / 2 - 1e-6);
    }
}

TEST(ConductedClock, TempoEstimateFollowsAccelerandoAndRitardando) {
    struct Case {
        const char* name;
        double factor;
    };
    for (const Case& c : {Case{"accelerando", 0.96}, Case{"ritardando", 1.05}}) {
        SCOPED_TRACE(c.name);
        ConductedRun run;
        const auto changing = Changing(12, 500, c.factor);
        const double last = changing.back();
        const auto beats = BeatsAt(0, Then(changing, Steady(8, last)));
        run.Conduct(beats, 60'000 * kMs);
        const auto sent = run.Sent();

        ASSERT_EQ(sent.size(), beats.size() * 24u);
        ExpectConsecutive(sent, 24);
        ExpectWithinLookahead(sent, beats);
        // Settled on the final tempo, and each click then starts within a millisecond of its
        // beat.
        ASSERT_TRUE(run.Clock().GetFollowedClockTime());
        EXPECT_NEAR(*run.Clock().GetFollowedClockTime() * 24 * 1000, last, last * 0.001);
        const auto downbeats = Downbeats(sent);
        for (std::size_t k = beats.size() - 3; k < downbeats.size(); ++k) {
            EXPECT_NEAR(Milliseconds(downbeats[k].time - beats[k]), 0, 1.0) << "click " << k;
        }
    }
}

TEST(ConductedClock, FermataHoldsAtTheNextClickAndTheBeatAfterItGoesOnInTempo) {
    ConductedRun run;
    // Eight beats at 120, a held beat (3 s), then on at 120.
    const auto beats = BeatsAt(0, Then(Then(Steady(7, 500), {3000}), Steady(4, 500)));
    const auto kinds = run.Conduct(beats, 20'000 * kMs);
    const auto sent = run.Sent();
    ExpectConsecutive(sent, 24);
    ExpectWithinLookahead(sent, beats);
    EXPECT_EQ(kinds[8], ConductedBeat::held);

    // Through the hold the clock stands at the start of the ninth click: its last clock before
    // the beat is the eighth click's last, and the ninth click starts on the beat.
    const std::int64_t resume = beats[8];
    const auto before = std::count_if(sent.begin(), sent.end(),
                                      [&](const SentClock& clock) { return clock.time < resume; });
    EXPECT_EQ(before, 8 * 24);
    EXPECT_EQ(sent[8 * 24].time, resume);
    EXPECT_EQ(sent[8 * 24].clockNumber, 0);
    // The hold is no sample: the tempo after it is the tempo before it.
    ASSERT_TRUE(run.Clock().GetFollowedClockTime());
    EXPECT_NEAR(*run.Clock().GetFollowedClockTime(), 0.5 / 24, 1e-9);
    EXPECT_EQ(sent.size(), beats.size() * 24u);
}

TEST(ConductedClock, MissedBeatCountsTwoClicksAndExtraBeatIsIgnored) {
    {
        SCOPED_TRACE("missed");
        ConductedRun run;
        // Beat 9 is missed: beat 10 comes a whole second after beat 8.
        const auto beats = BeatsAt(0, Then(Then(Steady(7, 500), {1000}), Steady(6, 500)));
        const auto kinds = run.Conduct(beats, 20'000 * kMs);
        const auto sent = run.Sent();
        EXPECT_EQ(kinds[8], ConductedBeat::missed);
        // No click lost: the skipped click is played (faster), and the clock ends one click
        // further than the beats given.
        ASSERT_EQ(sent.size(), (beats.size() + 1) * 24u);
        ExpectConsecutive(sent, 24);
        ExpectWithinLookahead(sent, beats, 1);
        EXPECT_NEAR(*run.Clock().GetFollowedClockTime(), 0.5 / 24, 1e-9);
        // Back on the beat: click k + 1 starts on beat k.
        const auto downbeats = Downbeats(sent);
        for (std::size_t k = beats.size() - 2; k < beats.size(); ++k) {
            EXPECT_NEAR(Milliseconds(downbeats[k + 1].time - beats[k]), 0, 1.0) << "beat " << k;
        }
    }
    {
        SCOPED_TRACE("extra");
        ConductedRun run;
        // A bounce 100 ms after beat 7.
        auto beats = BeatsAt(0, Steady(12, 500));
        beats.insert(beats.begin() + 7, beats[6] + 100 * kMs);
        const auto kinds = run.Conduct(beats, 20'000 * kMs);
        const auto sent = run.Sent();
        EXPECT_EQ(kinds[7], ConductedBeat::extra);
        ASSERT_EQ(sent.size(), (beats.size() - 1) * 24u);
        ExpectConsecutive(sent, 24);
        EXPECT_NEAR(*run.Clock().GetFollowedClockTime(), 0.5 / 24, 1e-9);
        const auto downbeats = Downbeats(sent);
        EXPECT_NEAR(Milliseconds(downbeats.back().time - beats.back()), 0, 1.0);
    }
}

TEST(ConductedClock, LateConductorStartsTheMusicWithTheFirstBeat) {
    ConductedRun run;
    // Nothing for five seconds: no clock, and the thread waits for a beat, not for a time.
    run.Conduct({}, 5'000 * kMs);
    EXPECT_TRUE(run.Sent().empty());
    EXPECT_FALSE(run.Clock().GetFollowedClockTime());

    const auto beats = BeatsAt(5'250, Steady(5, 600));
    run.Conduct(beats, 20'000 * kMs);
    const auto sent = run.Sent();
    ASSERT_EQ(sent.size(), beats.size() * 24u);
    EXPECT_EQ(sent.front().time, beats.front());
    EXPECT_EQ(sent.front().tick, 0u);
    ExpectWithinLookahead(sent, beats);
    EXPECT_NEAR(*run.Clock().GetFollowedClockTime(), 0.6 / 24, 1e-9);
}

TEST(ConductedClock, ClickLengthChangesKeepTheConductorsClockSpeed) {
    // 6/8 in two (36 clocks a click) for four clicks, then 2/4 (24 clocks) at the same clock
    // speed: a dotted quarter per beat becomes a quarter per beat.
    ConductedRun run(1.0, 36);
    run.Clock().SetClocksPerClick(24, 4 * 36 * kTicksPerClock);
    const auto beats = BeatsAt(0, Then(Steady(4, 600), Steady(6, 400)));
    const auto kinds = run.Conduct(beats, 20'000 * kMs);
    const auto sent = run.Sent();
    EXPECT_TRUE(std::all_of(kinds.begin() + 1, kinds.end(),
                            [](auto kind) { return kind == ConductedBeat::counted; }));
    ASSERT_EQ(sent.size(), 4u * 36u + 7u * 24u);
    EXPECT_NEAR(*run.Clock().GetFollowedClockTime(), 0.6 / 36, 1e-9);
    const auto downbeats = Downbeats(sent);
    ASSERT_EQ(downbeats.size(), beats.size());
    EXPECT_NEAR(Milliseconds(downbeats.back().time - beats.back()), 0, 1.0);
}

TEST(ConductedClock, RunRulesMatchTheOtherClocks) {
    {
        SCOPED_TRACE("caesura");
        ConductedRun run;
        run.Clock().SetCaesura(3 * 24 * kTicksPerClock, kWrittenClockTime, 24);
        run.Conduct(BeatsAt(0, Steady(8, 500)), 20'000 * kMs);
        // Stopped where the fourth click would start, the beats after it notwithstanding.
        EXPECT_TRUE(run.Clock().WaitUntilStopped(10s));
        EXPECT_EQ(run.Sent().size(), 3u * 24u);
        EXPECT_FALSE(run.Clock().GetCaesuraIsPending());
    }
    {
        SCOPED_TRACE("disarm while waiting, then a fresh start");
        ConductedRun run;
        run.Conduct(BeatsAt(0, {500}), 2'000 * kMs);
        EXPECT_EQ(run.Sent().size(), 2u * 24u);  // waiting at the third click
        run.Clock().DisarmPlayback();
        EXPECT_TRUE(run.Clock().WaitUntilStopped(10s));
        run.Clock().ConductBeat();  // ignored: not armed (taken, it would end the hold)
        EXPECT_EQ(run.Clock().GetLastBeat(), ConductedBeat::counted);

        // Armed again at click 10: the old tempo is forgotten and a new first beat starts it.
        run.Clock().ArmPlayback(kTicksPerClock, 24, kWrittenClockTime, 240 * kTicksPerClock, 0);
        EXPECT_FALSE(run.Clock().GetFollowedClockTime());
        run.Clock().ContinuousMode();
        run.Conduct(BeatsAt(3'000, {400}), 5'000 * kMs);
        const auto sent = run.Sent();
        ASSERT_EQ(sent.size(), 4u * 24u);
        EXPECT_EQ(sent[48].tick, 240 * kTicksPerClock);
        EXPECT_EQ(sent[48].time, 3'000 * kMs);
        EXPECT_NEAR(*run.Clock().GetFollowedClockTime(), 0.4 / 24, 1e-9);
    }
    {
        SCOPED_TRACE("a first beat in mid-click");
        ConductedRun run(1.0, 24, 12);
        // Half a click to the first whole click, then whole clicks: the half interval is no
        // sample of the tempo.
        run.Conduct(BeatsAt(0, {400, 500}), 5'000 * kMs);
        const auto sent = run.Sent();
        ASSERT_EQ(sent.size(), 12u + 2u * 24u);
        EXPECT_NEAR(*run.Clock().GetFollowedClockTime(), 0.5 / 24, 1e-9);
        EXPECT_EQ(sent[12].clockNumber, 0);
        EXPECT_EQ(sent[12].time, 400 * kMs);
    }
}

TEST(ConductedClock, LongerLookaheadRunsOnPastTheNextClickAndALateBeatSlowsIt) {
    ConductedRun run(1.25);
    run.Conduct(BeatsAt(0, {500}), 1'200 * kMs);
    // Two beats: the second click plays, then a quarter of the third before the clock waits.
    ASSERT_EQ(run.Sent().size(), 2u * 24u + 6u);
    const double clockBefore = Milliseconds(run.Sent()[53].time - run.Sent()[52].time);
    // The late third beat releases the clock a quarter of a click on: it runs on slower, not
    // backwards, and once the conductor's tempo is back it starts each click on its beat again.
    const auto beats = BeatsAt(1'250, Steady(7, 500));
    const auto kinds = run.Conduct(beats, 5'100 * kMs);
    EXPECT_EQ(kinds.front(), ConductedBeat::counted);
    const auto sent = run.Sent();
    ExpectConsecutive(sent, 24);
    EXPECT_EQ(sent[54].time, beats[0]);
    EXPECT_GT(Milliseconds(sent[55].time - sent[54].time), clockBefore);
    const auto downbeats = Downbeats(sent);
    ASSERT_EQ(downbeats.size(), beats.size() + 2);
    EXPECT_NEAR(Milliseconds(downbeats.back().time - beats.back()), 0, 1.0);
}

// ---------------------------------------------------------------------------------------------
// The model's beat classes at their limits

TEST(Conductor, BeatClassesChangeAtTheirRatiosOnceTheConductorHasATempo) {
    struct Case {
        double ratio;
        ConductedBeat kind;
    };
    for (const Case& c : {Case{0.54, ConductedBeat::extra}, Case{0.56, ConductedBeat::counted},
                          Case{1.59, ConductedBeat::counted}, Case{1.61, ConductedBeat::missed},
                          Case{2.49, ConductedBeat::missed}, Case{2.51, ConductedBeat::held}}) {
        SCOPED_TRACE(c.ratio);
        Conductor conductor;
        conductor.Reset(0, 24, kWrittenClockTime);
        EXPECT_EQ(conductor.Beat(0), ConductedBeat::first);
        // Before the conductor has a tempo, even a very long interval is one click.
        EXPECT_EQ(conductor.Beat(2'000 * kMs), ConductedBeat::counted);
        EXPECT_EQ(conductor.Beat(std::llround((2'000 + 2'000 * c.ratio) * kMs)), c.kind);
    }
}

TEST(Conductor, WaitsForTheFirstBeatAndAtTheLimit) {
    Conductor conductor;
    conductor.Reset(0, 2, 0.25);
    EXPECT_FALSE(conductor.NextClockDue());
    conductor.Beat(1'000 * kMs);
    EXPECT_EQ(conductor.NextClockDue(), 1'000 * kMs);
    conductor.ClockSent(1'000 * kMs, 1, 2, 0.25);
    EXPECT_EQ(conductor.NextClockDue(), 1'250 * kMs);  // the written tempo
    conductor.ClockSent(1'250 * kMs, 0, 2, 0.25);
    EXPECT_FALSE(conductor.NextClockDue());  // the second click waits for its beat
    EXPECT_DOUBLE_EQ(conductor.GetPosition(), 1.0);
    conductor.Beat(1'600 * kMs);
    EXPECT_EQ(conductor.NextClockDue(), 1'600 * kMs);  // on the beat
}

TEST(Conductor, RefusesLookaheadAndHistoryOutsideTheirRanges) {
    EXPECT_THROW(Conductor(0.0), std::invalid_argument);
    EXPECT_THROW(Conductor(4.5), std::invalid_argument);
    EXPECT_THROW(Conductor(1.0, 0), std::invalid_argument);
    try {
        Conductor bad(-1.0);
        FAIL();
    } catch (const std::invalid_argument& error) {
        EXPECT_EQ(std::string(error.what()), "a conductor's lookahead must lie in (0, 4] clicks");
    }
}

}  // namespace
