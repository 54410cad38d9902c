#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "midi/clocks.h"
#include "tests/support/captured_log.h"

namespace {

// 120 clicks per minute at 24 clocks per click.
constexpr double kClockTime = 0.5 / 24;

// Drives the state machine by hand: the timer is a record of the calls.
class RecordingClock : public StandardMidiClock {
  public:
    RecordingClock() {
        SetMidiClockCallback([this](double bpm) { tempi.push_back(bpm); });
    }
    std::vector<double> timerCalls;
    std::vector<double> tempi;
    int startCalls = 0;

  protected:
    void SetClockTimer(double seconds) override { timerCalls.push_back(seconds); }
    void StartClock() override { ++startCalls; }
};

TEST(ClockState, AssignmentMergesOnlyTheFieldsSetInTheSource) {
    ClockState live(480, 3, 20, 24, kClockTime);
    EXPECT_TRUE(live.HasTickIndex() && live.HasClockNumber() && live.HasTicksPerClock() &&
                live.HasClocksPerClick() && live.HasClockTime());
    EXPECT_DOUBLE_EQ(live.GetBeatsPerMinute(), 120.0);
    ClockState change;
    EXPECT_FALSE(change.HasTickIndex() || change.HasClockNumber() || change.HasTicksPerClock() ||
                 change.HasClocksPerClick() || change.HasClockTime());
    change.SetClockTime(0.01);
    change.SetClocksPerClick(12);

    live = change;
    EXPECT_EQ(live.GetTickIndex(), 480u);
    EXPECT_EQ(live.GetClockNumber(), 3);
    EXPECT_EQ(live.GetTicksPerClock(), 20u);
    EXPECT_EQ(live.GetClocksPerClick(), 12);
    EXPECT_DOUBLE_EQ(live.GetClockTime(), 0.01);

    // Merging into an empty record sets exactly the source's flags.
    ClockState target;
    target = change;
    EXPECT_TRUE(target.HasClockTime() && target.HasClocksPerClick());
    EXPECT_FALSE(target.HasTickIndex() || target.HasClockNumber() || target.HasTicksPerClock());
}

TEST(ClockState, CrossedAssignmentsFromTwoThreadsDoNotDeadlock) {
    ClockState a(0, 0, 20, 24, kClockTime);
    ClockState b(100, 1, 10, 12, 0.01);
    auto assignMany = [](ClockState& to, const ClockState& from) {
        for (int i = 0; i < 20000; ++i) {
            to = from;
        }
    };
    std::thread first(assignMany, std::ref(a), std::cref(b));
    std::thread second(assignMany, std::ref(b), std::cref(a));
    first.join();
    second.join();
    EXPECT_EQ(a.GetTickIndex(), b.GetTickIndex());
}

TEST(ClockState, ClockNumberWrapsAtClocksPerClickAndTicksAdvance) {
    ClockState state(0, 0, 20, 24, kClockTime);
    std::vector<int> numbers;
    for (int i = 0; i < 25; ++i) {
        state.AdvanceClock();
        numbers.push_back(state.GetClockNumber());
    }
    EXPECT_EQ(numbers[22], 23);
    EXPECT_EQ(numbers[23], 0);
    EXPECT_EQ(numbers[24], 1);
    EXPECT_EQ(state.GetTickIndex(), 25u * 20u);
}

TEST(StandardMidiClock, AdvanceReportsTempoBeforeTheStepThenRearmsTheTimerOnlyWhenArmed) {
    RecordingClock clock;
    EXPECT_FALSE(clock.AdvanceClock());  // disarmed: nothing at all
    EXPECT_TRUE(clock.tempi.empty() && clock.timerCalls.empty());
    clock.SetTicksPerClock(40);  // applies at once, even disarmed
    EXPECT_EQ(clock.GetClockState().GetTicksPerClock(), 40u);

    clock.ArmPlayback(20, 24, kClockTime, 480, 23);
    ASSERT_TRUE(clock.AdvanceClock());
    EXPECT_EQ(clock.tempi, (std::vector<double>{120.0}));
    EXPECT_EQ(clock.timerCalls, (std::vector<double>{kClockTime}));
    EXPECT_EQ(clock.GetClockState().GetTickIndex(), 500u);
    EXPECT_EQ(clock.GetClockState().GetClockNumber(), 0);

    clock.SetMidiClockCallback({});
    EXPECT_THROW(clock.AdvanceClock(), std::bad_function_call);
}

TEST(StandardMidiClock, ChangesWhileDisarmedAreReplayedInOrderAtArmUnlessATickIndexIsSet) {
    CapturedLog log;
    RecordingClock clock;
    clock.SetClockTime(0.03, 0);
    clock.SetClockTime(0.04, 0);  // the later one wins
    clock.SetClocksPerClick(12, 0);
    clock.SetClocksPerClick(6, 40);   // before the armed tick: logged and dropped
    clock.SetClocksPerClick(8, 140);  // after it: scheduled
    EXPECT_DOUBLE_EQ(clock.GetClockState().GetClockTime(), 0.0);

    clock.ArmPlayback(20, 24, kClockTime, 100, 0);
    EXPECT_DOUBLE_EQ(clock.GetClockState().GetClockTime(), 0.04);
    EXPECT_EQ(clock.GetClockState().GetClocksPerClick(), 12);
    EXPECT_EQ(log.Lines(), std::vector<std::string>{
                               "WARNING: SetClocksPerClick ignored. validAt=40, tickIndex=100"});

    clock.AdvanceClock();  // 120
    EXPECT_EQ(clock.GetClockState().GetClocksPerClick(), 12);
    clock.AdvanceClock();  // 140
    EXPECT_EQ(clock.GetClockState().GetClocksPerClick(), 8);

    // Replayed once only: a second arm finds nothing deferred.
    clock.ArmPlayback(20, 24, kClockTime, 0, 0);
    EXPECT_DOUBLE_EQ(clock.GetClockState().GetClockTime(), kClockTime);

    // Disarmed, SetTickIndex only empties the deferred lists.
    clock.DisarmPlayback();
    clock.SetClockTime(0.03, 0);
    clock.SetClocksPerClick(12, 0);
    clock.SetTickIndex(960, 0, 20, 24, 0.05, 0);
    clock.ArmPlayback(20, 24, kClockTime, 0, 0);
    EXPECT_DOUBLE_EQ(clock.GetClockState().GetClockTime(), kClockTime);
    EXPECT_EQ(clock.GetClockState().GetClocksPerClick(), 24);
    EXPECT_EQ(clock.GetClockState().GetTickIndex(), 0u);
}

TEST(StandardMidiClock, ArmedChangesApplyAtOnceScheduledOrAreRefused) {
    CapturedLog log;
    RecordingClock clock;
    clock.ArmPlayback(20, 24, kClockTime, 100, 0);

    clock.SetClockTime(0.03, 0);
    EXPECT_DOUBLE_EQ(clock.GetClockState().GetClockTime(), 0.03);

    clock.SetClockTime(0.02, 99);
    clock.SetClocksPerClick(12, 99);
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                               "WARNING: SetClockTime ignored. validAt=99, tickIndex=100",
                               "WARNING: SetClocksPerClick ignored. validAt=99, tickIndex=100"}));

    // Valid at the live tick: scheduled, and applied only if a clock lands there again.
    clock.SetClocksPerClick(12, 100);
    clock.SetClockTime(0.025, 140);
    clock.AdvanceClock();  // 120
    EXPECT_DOUBLE_EQ(clock.GetClockState().GetClockTime(), 0.03);
    // 140: the clock time lands, and the timer gets it at once: the period at 120 is timed at
    // the new clock time, one clock before the change.
    clock.AdvanceClock();
    EXPECT_DOUBLE_EQ(clock.GetClockState().GetClockTime(), 0.025);
    EXPECT_EQ(clock.timerCalls, (std::vector<double>{0.03, 0.025}));
    // A change between clocks (they land on 160 and 180) is never applied either.
    clock.SetClockTime(0.01, 170);
    for (int i = 0; i < 10; ++i)
        clock.AdvanceClock();
    EXPECT_EQ(clock.GetClockState().GetClocksPerClick(), 24);
    EXPECT_DOUBLE_EQ(clock.GetClockState().GetClockTime(), 0.025);
}

TEST(StandardMidiClock, SetTickIndexReplacesTheStateAtOnceOrWhenReached) {
    CapturedLog log;
    RecordingClock clock;
    clock.ArmPlayback(20, 24, kClockTime, 100, 5);

    clock.SetTickIndex(1000, 2, 10, 12, 0.01, 0);
    EXPECT_EQ(clock.GetClockState().GetTickIndex(), 1000u);
    EXPECT_EQ(clock.GetClockState().GetClockNumber(), 2);
    EXPECT_EQ(clock.GetClockState().GetTicksPerClock(), 10u);

    clock.SetTickIndex(5000, 0, 20, 24, kClockTime, 1010);  // a jump when 1010 is reached
    clock.AdvanceClock();
    EXPECT_EQ(clock.GetClockState().GetTickIndex(), 5000u);
    EXPECT_EQ(clock.GetClockState().GetClockNumber(), 0);
    EXPECT_DOUBLE_EQ(clock.timerCalls.back(), kClockTime);

    clock.SetTickIndex(0, 0, 20, 24, kClockTime, 4999);
    EXPECT_EQ(log.Lines(), std::vector<std::string>{
                               "WARNING: SetTickIndex ignored. validAt=4999, tickIndex=5000"});
}

TEST(StandardMidiClock, CaesuraStopsTheClockExactlyAtItsTick) {
    RecordingClock clock;
    clock.ArmPlayback(20, 24, kClockTime, 0, 0);
    clock.SetCaesura(60, 0.03, 12);
    EXPECT_TRUE(clock.GetCaesuraIsPending());
    EXPECT_TRUE(clock.AdvanceClock());   // 20
    EXPECT_TRUE(clock.AdvanceClock());   // 40
    EXPECT_FALSE(clock.AdvanceClock());  // 60: stop, no timer
    EXPECT_EQ(clock.timerCalls.size(), 2u);
    EXPECT_EQ(clock.tempi.size(), 3u);
    EXPECT_FALSE(clock.GetCaesuraIsPending());
    EXPECT_TRUE(clock.GetPlaybackIsArmed());

    // A stop is one-shot: the clock goes on past it when restarted.
    EXPECT_TRUE(clock.AdvanceClock());  // 80

    // A caesura not after the live tick is refused.
    CapturedLog log;
    clock.SetCaesura(80, 0.03, 12);
    EXPECT_FALSE(clock.GetCaesuraIsPending());
    EXPECT_EQ(
        log.Lines(),
        std::vector<std::string>{
            "WARNING: Ignored caesura. caesuraTickIndex = 80, clockState_.GetTickIndex() = 80"});
}

TEST(StandardMidiClock, ArmAndDisarmCancelTheCaesuraAndPendingChanges) {
    RecordingClock clock;
    clock.ArmPlayback(20, 24, kClockTime, 0, 0);
    clock.SetCaesura(40, 0.03, 12);
    clock.ArmPlayback(20, 24, kClockTime, 0, 0);
    EXPECT_FALSE(clock.GetCaesuraIsPending());

    clock.SetCaesura(40, 0.03, 12);
    clock.SetClockTime(0.01, 20);
    clock.DisarmPlayback();
    EXPECT_FALSE(clock.GetCaesuraIsPending());
    EXPECT_FALSE(clock.GetPlaybackIsArmed());
    EXPECT_FALSE(clock.AdvanceClock());

    clock.SetClockTime(0.05, 0);  // deferred ...
    clock.DisarmPlayback();       // ... and dropped
    clock.ArmPlayback(20, 24, kClockTime, 0, 0);
    clock.AdvanceClock();  // 20: the scheduled change went with the disarm
    EXPECT_DOUBLE_EQ(clock.GetClockState().GetClockTime(), kClockTime);
}

TEST(StandardMidiClock, ContinuousModeStartsTheTimerAndTheRestIsNotImplemented) {
    RecordingClock clock;
    clock.ContinuousMode();
    EXPECT_EQ(clock.startCalls, 1);
    auto expectNotImplemented = [](auto call, const char* text) {
        try {
            call();
            ADD_FAILURE() << "no exception for " << text;
        } catch (const std::logic_error& e) {
            EXPECT_STREQ(e.what(), text);
        }
    };
    expectNotImplemented([&] { clock.ConductBeat(); }, "Not implemented");
    expectNotImplemented([&] { clock.SetDownbeatTimerCallback([](void*) {}, nullptr); },
                         "Not implemented.");
    EXPECT_THROW(clock.SetConductorClickTimerCallback([](void*) {}, nullptr), std::logic_error);
}

}  // namespace
