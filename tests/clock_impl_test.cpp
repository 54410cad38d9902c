// Liveness of the two timer back ends: they start, run, stop at a caesura and are destroyed
// idle or running. No wall-clock timing is asserted here (bench/clock_accuracy measures it); the
// precision clock's grid is checked on a clock of the test's own.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "midi/win32/precision_midi_clock_impl.h"
#include "midi/win32/standard_midi_clock_impl.h"
#include "tests/support/captured_log.h"
#include "tests/support/recorded.h"

namespace {

using namespace std::chrono_literals;

constexpr double kFastClockTime = 0.001;  // short periods keep the tests quick

// Counts clock callbacks, from whatever thread, and lets the test wait for a number of them.
struct ClockCounter : Recorded<double> {
    std::function<void(double)> Callback() {
        return [this](double bpm) { Add(bpm); };
    }
    bool WaitForCalls(int count) { return WaitFor(static_cast<std::size_t>(count)); }
    int Calls() const { return static_cast<int>(Size()); }
};

template <typename Clock>
class ClockImplTest : public ::testing::Test {};

// Does something the moment the clock decides its run is over, before the clock thread has wound
// the run up: a performer's start that comes right after the stop lands in that window.
template <typename Clock>
class ActingAtTheStop : public Clock {
  public:
    void AtNextStop(std::function<void()> action) {
        std::scoped_lock lock(this->clockMutex_);
        action_ = std::move(action);
    }

  protected:
    void RunEnding() override {
        Clock::RunEnding();
        if (auto action = std::exchange(action_, nullptr)) {
            action();
        }
    }

  private:
    std::function<void()> action_;  // guarded by the clock mutex
};

using ClockImpls = ::testing::Types<StandardMidiClockImpl, PrecisionMidiClockImpl>;
TYPED_TEST_SUITE(ClockImplTest, ClockImpls);

TYPED_TEST(ClockImplTest, AnUnarmedClockEndsItsRunAtTheFirstClock) {
    ClockCounter counter;
    TypeParam clock;
    EXPECT_TRUE(clock.WaitUntilStopped(0ms));  // idle from the start
    clock.SetMidiClockCallback(counter.Callback());
    clock.ContinuousMode();
    EXPECT_TRUE(clock.WaitUntilStopped(10s));
    EXPECT_EQ(counter.Calls(), 0);
}

TYPED_TEST(ClockImplTest, RunsStopsAtTheCaesuraRestartsAndStopsWhenDisarmed) {
    ClockCounter counter;
    TypeParam clock;
    clock.SetMidiClockCallback(counter.Callback());
    clock.ArmPlayback(20, 24, kFastClockTime, 0, 0);
    clock.SetCaesura(200, kFastClockTime, 24);
    clock.ContinuousMode();
    ASSERT_TRUE(counter.WaitForCalls(10));
    ASSERT_TRUE(clock.WaitUntilStopped(10s));
    // Clocks at ticks 0, 20, ..., 180; the one that reaches 200 stops the clock.
    EXPECT_EQ(counter.Calls(), 10);
    EXPECT_EQ(clock.GetClockState().GetTickIndex(), 200u);
    EXPECT_TRUE(clock.GetPlaybackIsArmed());

    clock.SetCaesura(260, kFastClockTime, 24);
    clock.ContinuousMode();
    ASSERT_TRUE(counter.WaitForCalls(13));
    ASSERT_TRUE(clock.WaitUntilStopped(10s));
    EXPECT_EQ(counter.Calls(), 13);

    // Without a caesura only the disarm stops it.
    clock.ContinuousMode();
    ASSERT_TRUE(counter.WaitForCalls(18));
    clock.DisarmPlayback();
    EXPECT_TRUE(clock.WaitUntilStopped(10s));
}

TYPED_TEST(ClockImplTest, AStartAfterTheStopStartsTheNextRunButOneDuringTheRunDoesNot) {
    ClockCounter counter;
    ActingAtTheStop<TypeParam> clock;
    auto count = counter.Callback();
    std::atomic<int> calls{0};
    clock.SetMidiClockCallback([&](double bpm) {
        count(bpm);
        if (++calls == 2) {
            clock.ContinuousMode();  // while the run is live: the clock still stops at 40
        }
    });
    clock.ArmPlayback(20, 24, kFastClockTime, 0, 0);
    clock.SetCaesura(40, kFastClockTime, 24);
    clock.ContinuousMode();
    ASSERT_TRUE(clock.WaitUntilStopped(10s));
    EXPECT_EQ(counter.Calls(), 2);

    // Stopped at a caesura, then started at once.
    clock.SetCaesura(80, kFastClockTime, 24);
    clock.AtNextStop([&] { clock.ContinuousMode(); });
    clock.ContinuousMode();
    ASSERT_TRUE(counter.WaitForCalls(8));  // 40, 60, then the next run from 80 on

    // Disarmed, then armed and started at once.
    clock.AtNextStop([&] {
        clock.ArmPlayback(20, 24, kFastClockTime, 0, 0);
        clock.ContinuousMode();
    });
    clock.DisarmPlayback();
    const int callsAtDisarm = counter.Calls();
    ASSERT_TRUE(counter.WaitForCalls(callsAtDisarm + 4));

    clock.DisarmPlayback();
    EXPECT_TRUE(clock.WaitUntilStopped(10s));
}

TYPED_TEST(ClockImplTest, AClockCallbackThatThrowsIsLoggedAndEndsOnlyItsRun) {
    CapturedLog log;
    ClockCounter counter;
    TypeParam clock;
    auto count = counter.Callback();
    std::atomic<int> calls{0};
    clock.SetMidiClockCallback([&](double bpm) {
        count(bpm);
        const int call = ++calls;
        if (call == 1) {
            throw std::runtime_error("display gone");  // the first clock of a run
        }
        if (call == 3) {
            throw 3;  // a later clock
        }
    });
    clock.ArmPlayback(20, 24, kFastClockTime, 0, 0);
    for (int run = 1; run <= 2; ++run) {
        clock.ContinuousMode();
        ASSERT_TRUE(log.WaitForLines(static_cast<std::size_t>(run)));
        ASSERT_TRUE(clock.WaitUntilStopped(10s));
    }
    EXPECT_EQ(counter.Calls(), 3);
    clock.ContinuousMode();
    ASSERT_TRUE(counter.WaitForCalls(6));
    clock.DisarmPlayback();
    ASSERT_TRUE(clock.WaitUntilStopped(10s));
    const auto lines = log.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("EXCEPTION: display gone (midi/Sources/win32/", 0), 0u) << lines[0];
    EXPECT_EQ(lines[1].rfind("EXCEPTION: Unknown exception. (midi/Sources/win32/", 0), 0u)
        << lines[1];
}

TYPED_TEST(ClockImplTest, DestroyedWhileRunning) {
    ClockCounter counter;
    auto clock = std::make_unique<TypeParam>();
    // The callback reaches into the clock: a clock fired after destruction would touch freed
    // memory, which the sanitizer builds report.
    TypeParam* raw = clock.get();
    auto count = counter.Callback();
    clock->SetMidiClockCallback([raw, count](double bpm) {
        raw->GetPlaybackIsArmed();
        count(bpm);
    });
    clock->ArmPlayback(20, 24, kFastClockTime, 0, 0);
    clock->ContinuousMode();
    ASSERT_TRUE(counter.WaitForCalls(20));
    clock.reset();
}

TEST(StandardMidiClockImpl, TracesTheTimerCallsWhenAsked) {
    CapturedLog log;
    kit::SetPlatformCallLogging(true);
    {
        ClockCounter counter;
        StandardMidiClockImpl clock;
        clock.SetMidiClockCallback(counter.Callback());
        clock.ArmPlayback(20, 24, kFastClockTime, 0, 0);
        clock.SetCaesura(40, kFastClockTime, 24);
        clock.ContinuousMode();
        ASSERT_TRUE(counter.WaitForCalls(2));
        ASSERT_TRUE(clock.WaitUntilStopped(10s));
    }
    kit::SetPlatformCallLogging(false);
    const std::vector<std::string> expected{
        "midi/Sources/win32/standard_midi_clock_impl line 206: attempting timeSetEvent",
        "midi/Sources/win32/standard_midi_clock_impl line 206: succeeded timeSetEvent"};
    EXPECT_EQ(log.Lines(), expected);  // one timer: the second clock stops at the caesura
}

TEST(StandardMidiClockImpl, ATimerThatCannotBeSetIsLoggedAndEndsTheRun) {
    CapturedLog log;
    ClockCounter counter;
    StandardMidiClockImpl clock;
    clock.SetMidiClockCallback(counter.Callback());
    // 2,000 seconds per clock is beyond the longest delay the multimedia timer takes.
    clock.ArmPlayback(20, 24, 2000.0, 0, 0);
    clock.ContinuousMode();
    ASSERT_TRUE(log.WaitForLines(2));
    const std::string failure =
        "midi/Sources/win32/standard_midi_clock_impl line 206: timeSetEvent failed.";
    const auto lines = log.Lines();
    EXPECT_EQ(lines[0], "[ERROR] " + failure);
    EXPECT_EQ(
        lines[1].rfind(
            "EXCEPTION: " + failure + " (midi/Sources/win32/standard_midi_clock_impl line 71)", 0),
        0u)
        << lines[1];
    EXPECT_TRUE(clock.WaitUntilStopped(10s));
    EXPECT_EQ(counter.Calls(), 1);
}

// A clock for PrecisionMidiClockImpl that moves only when told: its wait moves it on to the
// deadline, and a clock callback that is held up moves it on by that much. Every clock then falls
// at an exact time, whatever the machine does meanwhile. Touched by the clock thread only.
class SteppedTime {
  public:
    PrecisionMidiClockImpl::Timing Timing() {
        return {[this] { return now_.load(); },
                [this](std::int64_t deadline) { now_ = std::max(now_.load(), deadline); }};
    }
    std::int64_t Now() const { return now_; }
    void Advance(std::chrono::nanoseconds by) { now_ += by.count(); }

  private:
    std::atomic<std::int64_t> now_{1'000'000'000};
};

constexpr std::int64_t kMs = 1'000'000;  // nanoseconds

// Records when each clock fired (on the stepped clock) and runs the action given for it.
struct SteppedRun {
    SteppedTime time;
    std::vector<std::int64_t> stamps;  // written by the clock thread, read once it has stopped
    std::function<void(std::size_t clock)> atClock = [](std::size_t) {};
    PrecisionMidiClockImpl clock{time.Timing()};  // last: its thread goes first

    SteppedRun() {
        clock.SetMidiClockCallback([this](double) {
            stamps.push_back(time.Now());
            atClock(stamps.size() - 1);
        });
    }
    // Milliseconds of each clock after the first.
    std::vector<double> Offsets() const {
        std::vector<double> offsets;
        for (const std::int64_t stamp : stamps) {
            offsets.push_back(static_cast<double>(stamp - stamps.front()) / kMs);
        }
        return offsets;
    }
};

TEST(PrecisionMidiClockImpl, LateClocksCatchUpWithTheGridWhichStartsAgainOnlyPastTheBound) {
    CapturedLog log;
    SteppedRun run;
    run.atClock = [&](std::size_t clock) {
        if (clock == 2) {
            run.time.Advance(270ms);  // the send is held up: the next clock is exactly 250 ms late
        } else if (clock == 20) {
            run.time.Advance(271ms);  // 251 ms late: past the bound
        } else if (clock == 25) {
            // Armed again while the send is held up: the armed position starts a grid of its own.
            run.time.Advance(100ms);
            run.clock.ArmPlayback(20, 24, 0.02, 500, 0);
            run.clock.SetCaesura(600, 0.02, 24);
        }
    };
    run.clock.ArmPlayback(20, 24, 0.02, 0, 0);
    run.clock.ContinuousMode();
    ASSERT_TRUE(run.clock.WaitUntilStopped(10s));

    std::vector<double> expected;
    for (int k = 0; k <= 20; ++k) {
        // Due every 20 ms; those due while clock 2 was held up (until 310 ms) fire when it ends.
        expected.push_back(std::max(20.0 * k, k > 2 ? 310.0 : 0.0));
    }
    // Clock 21 was due at 420 ms and fires at 671 ms, where the grid starts again.
    for (int k = 21; k <= 25; ++k) {
        expected.push_back(671.0 + 20.0 * (k - 21));
    }
    // Clock 26 fires when clock 25's send ends (851 ms), and the new grid starts there.
    for (int k = 26; k <= 29; ++k) {
        expected.push_back(851.0 + 20.0 * (k - 26));
    }
    EXPECT_EQ(run.Offsets(), expected);
    std::vector<std::string> lagLines;
    for (const auto& line : log.Lines()) {
        if (line.find("behind its grid") != std::string::npos) {
            lagLines.push_back(line);
        }
    }
    EXPECT_EQ(lagLines, std::vector<std::string>{"WARNING: PrecisionMidiClockImpl fell 251.0 ms "
                                                 "behind its grid; a new grid starts here."});
}

TEST(PrecisionMidiClockImpl, EachPeriodLastsAsItsOwnTempoSaysAndAnImmediateChangeCountsAtOnce) {
    SteppedRun run;
    run.clock.ArmPlayback(20, 24, 0.02, 0, 0);
    // The tempo doubles with the period at tick 60: the period at 40 still lasts 20 ms.
    run.clock.SetClockTime(0.01, 60);
    run.atClock = [&](std::size_t clock) {
        if (clock == 5) {
            // A tempo scale changed while the period at 100 is sent: that period already has it.
            run.clock.SetClockTime(0.015, 0);
        }
    };
    run.clock.SetCaesura(160, 0.015, 24);
    run.clock.ContinuousMode();
    ASSERT_TRUE(run.clock.WaitUntilStopped(10s));
    // Clocks at ticks 0, 20, ..., 140.
    EXPECT_EQ(run.Offsets(), (std::vector<double>{0, 20, 40, 60, 70, 80, 95, 110}));
}

}  // namespace
