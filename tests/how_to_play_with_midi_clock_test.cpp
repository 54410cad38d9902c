// HowToPlayWithMidiClock: which clock changes a move schedules and at which tick, the host-lock
// hand-off, the caesura resume values; and the MidiClock callback.
#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "midi/how_to_play.h"
#include "position_songs.h"

using namespace position_songs;

namespace {

/// One scheduled clock change: "SetClockTime" (value in seconds per clock) or
/// "SetClocksPerClick" (value in clocks), valid at a tick.
struct ClockCall {
    std::string what;
    double value = 0;
    unsigned int validAt = 0;
};

std::ostream& operator<<(std::ostream& out, const ClockCall& call) {
    return out << call.what << "(" << call.value << ", " << call.validAt << ")";
}

ClockCall ClockTime(double quarterNotesPerMinute, unsigned int validAt) {
    return {"SetClockTime", ClockTimeAt(quarterNotesPerMinute), validAt};
}

ClockCall ClocksPerClick(int clocks, unsigned int validAt) {
    return {"SetClocksPerClick", static_cast<double>(clocks), validAt};
}

/// Records the changes it is given. Optionally checks, on every change, whether the host's mutex
/// is free (it must be while the clock is called), and throws on demand.
class RecordingClock : public MidiClock {
  public:
    std::vector<ClockCall> calls;
    std::mutex* hostMutex = nullptr;
    std::vector<bool> hostMutexWasFree;
    bool throwOnClockTime = false;

    void SetTicksPerClock(unsigned int) override { Unexpected("SetTicksPerClock"); }
    void SetClocksPerClick(int clocksPerClick, unsigned int validAt) override {
        NoteHostMutex();
        calls.push_back({"SetClocksPerClick", static_cast<double>(clocksPerClick), validAt});
    }
    void SetClockTime(double clockTime, unsigned int validAt) override {
        NoteHostMutex();
        calls.push_back({"SetClockTime", clockTime, validAt});
        if (throwOnClockTime) {
            throw std::runtime_error("clock refused");
        }
    }
    void SetTickIndex(unsigned int, int, unsigned int, int, double, unsigned int) override {
        Unexpected("SetTickIndex");
    }
    void SetCaesura(unsigned int, double, int) override { Unexpected("SetCaesura"); }
    void ArmPlayback(unsigned int, int, double, unsigned int, int) override {
        Unexpected("ArmPlayback");
    }
    void DisarmPlayback() override { Unexpected("DisarmPlayback"); }
    void ContinuousMode() override { Unexpected("ContinuousMode"); }
    void ConductBeat() override { Unexpected("ConductBeat"); }
    void SetConductorClickTimerCallback(std::function<void(void*)>, void*) override {
        Unexpected("SetConductorClickTimerCallback");
    }
    void SetDownbeatTimerCallback(std::function<void(void*)>, void*) override {
        Unexpected("SetDownbeatTimerCallback");
    }
    bool GetPlaybackIsArmed() override { return false; }

    /// The calls since the last take, and forgets them.
    std::vector<ClockCall> Take() { return std::exchange(calls, {}); }

  private:
    static void Unexpected(const char* what) { ADD_FAILURE() << "position called " << what; }
    void NoteHostMutex() {
        if (hostMutex != nullptr) {
            const bool free = hostMutex->try_lock();
            if (free) {
                hostMutex->unlock();
            }
            hostMutexWasFree.push_back(free);
        }
    }
};

void ExpectCalls(const std::vector<ClockCall>& actual, const std::vector<ClockCall>& expected,
                 const std::string& when) {
    ASSERT_EQ(actual.size(), expected.size()) << when << ": " << ::testing::PrintToString(actual);
    for (std::size_t i = 0; i < actual.size(); ++i) {
        EXPECT_EQ(actual[i].what, expected[i].what) << when << " call " << i;
        EXPECT_NEAR(actual[i].value, expected[i].value, 1e-12) << when << " call " << i;
        EXPECT_EQ(actual[i].validAt, expected[i].validAt) << when << " call " << i;
    }
}

class HowToPlayWithMidiClockTest : public ::testing::Test {
  protected:
    UserControls controls;
    RecordingClock clock;
    HowToPlayWithMidiClock position{controls, clock};

    void AdvanceAndExpect(unsigned int tick, const std::vector<ClockCall>& expected) {
        position.AdvanceToTickIndex(tick);
        ExpectCalls(clock.Take(), expected, "advance to " + std::to_string(tick));
    }
};

}  // namespace

TEST_F(HowToPlayWithMidiClockTest, ForwardMovesScheduleEachChangeAtTheRequestedTick) {
    Load(position, *MainSong());
    ExpectCalls(clock.Take(), {}, "SetData");  // its seek leaves the clock alone

    // The first move after a seek reports the first tempo and meter once.
    AdvanceAndExpect(20, {ClockTime(120, 20), ClocksPerClick(24, 20)});
    AdvanceAndExpect(40, {});
    // Song tempo scale of 0.5 over [1000, 2000).
    AdvanceAndExpect(1000, {ClockTime(60, 1000)});
    AdvanceAndExpect(1500, {});
    AdvanceAndExpect(2000, {ClockTime(120, 2000)});
    // Tempo change at 3840 with the user's scale at 1.5: one change, at the requested tick.
    controls.SetTempoScale(1.5);
    AdvanceAndExpect(3850, {ClockTime(60 * 1.5, 3850)});
    AdvanceAndExpect(3860, {});
    controls.SetTempoScale(1.0);
    // Meter 6/8 from 5760 (36 clocks), then a click of 48 clocks over [7200, 8640).
    AdvanceAndExpect(5760, {ClocksPerClick(36, 5760)});
    AdvanceAndExpect(7200, {ClocksPerClick(48, 7200)});
    AdvanceAndExpect(8000, {});
    AdvanceAndExpect(8640, {ClocksPerClick(36, 8640)});
    // Advancing to where it stands changes nothing more.
    AdvanceAndExpect(8640, {});
}

TEST_F(HowToPlayWithMidiClockTest, AdvancingBackSeeksAndThenReportsWhatIsInForceThere) {
    Load(position, *MainSong());
    position.AdvanceToTickIndex(9000);
    clock.Take();

    // Behind: a seek, which re-arms the reports, so the first tempo and meter report at once.
    AdvanceAndExpect(100, {ClockTime(120, 100), ClocksPerClick(24, 100)});
    EXPECT_EQ(position.GetTickIndex(), 100u);
    EXPECT_DOUBLE_EQ(position.GetLastSeekClockTime(), ClockTimeAt(120));
    EXPECT_EQ(position.GetLastSeekClocksPerClick(), 24);
    AdvanceAndExpect(120, {});

    position.AdvanceToTickIndex(9000);
    clock.Take();
    // Into the middle: the moved tempo cursor differs from its reset previous cursor, and the
    // meter, on its first record, reports once.
    AdvanceAndExpect(4000, {ClockTime(60, 4000), ClocksPerClick(24, 4000)});
    EXPECT_DOUBLE_EQ(position.GetLastSeekClockTime(), ClockTimeAt(60));
    EXPECT_EQ(position.GetLastSeekClocksPerClick(), 24);
    AdvanceAndExpect(4020, {});
}

TEST_F(HowToPlayWithMidiClockTest, ADirectSeekLeavesTheClockToBeReArmed) {
    Load(position, *MainSong());
    position.AdvanceToTickIndex(9000);
    clock.Take();
    position.Seek(7500);  // inside the click event
    EXPECT_TRUE(clock.Take().empty());
    EXPECT_DOUBLE_EQ(position.GetLastSeekClockTime(), ClockTimeAt(60));
    EXPECT_EQ(position.GetLastSeekClocksPerClick(), 48);
    // What the seek left unreported reaches the clock with the next move.
    AdvanceAndExpect(7520, {ClockTime(60, 7520), ClocksPerClick(48, 7520)});
    AdvanceAndExpect(7540, {});
}

TEST_F(HowToPlayWithMidiClockTest, TheSongEndClampsThePositionButNotTheValidAtTick) {
    Load(position, *MainSong());
    position.AdvanceToTickIndex(4020);
    clock.Take();
    // Across the meter change, past the end: scheduled at the requested tick.
    AdvanceAndExpect(kMainLastTick + 500, {ClocksPerClick(36, kMainLastTick + 500)});
    EXPECT_EQ(position.GetTickIndex(), kMainLastTick);
    // Further advances stay on the last tick, where the previous cursors are kept: the meter
    // change reports again each time.
    AdvanceAndExpect(kMainLastTick + 600, {ClocksPerClick(36, kMainLastTick + 600)});

    // A tempo scale running to the song end stays in force at the last tick: no change there.
    Load(position, *SongEndSong());
    position.AdvanceToTickIndex(7000);
    position.AdvanceToTickIndex(7100);
    clock.Take();
    // Only the click ends there (clicks know no song-end exception).
    AdvanceAndExpect(kSongEndLastTick + 10, {ClocksPerClick(24, kSongEndLastTick + 10)});
}

TEST_F(HowToPlayWithMidiClockTest, WithLockReleasesTheHostMutexAroundEveryClockCall) {
    std::mutex hostMutex;
    clock.hostMutex = &hostMutex;
    Load(position, *MainSong());
    std::unique_lock<std::mutex> lock(hostMutex);

    position.AdvanceToTickIndexWithLock(20, lock);
    ExpectCalls(clock.Take(), {ClockTime(120, 20), ClocksPerClick(24, 20)}, "with lock");
    EXPECT_EQ(clock.hostMutexWasFree, (std::vector<bool>{true, true}));
    EXPECT_TRUE(lock.owns_lock());

    position.AdvanceToTickIndexWithLock(40, lock);  // nothing to schedule: never released
    EXPECT_TRUE(clock.Take().empty());
    EXPECT_TRUE(lock.owns_lock());

    // A clock that throws still hands the lock back.
    clock.throwOnClockTime = true;
    EXPECT_THROW(position.AdvanceToTickIndexWithLock(1000, lock), std::runtime_error);
    EXPECT_TRUE(lock.owns_lock());
    EXPECT_EQ(position.GetTickIndex(), 1000u);
}

TEST_F(HowToPlayWithMidiClockTest, HighSpeedAppliesThePresentClockTimeAtOnce) {
    Load(position, *MainSong());
    position.AdvanceToTickIndex(1200);  // inside the 0.5 tempo scale
    clock.Take();
    EXPECT_FALSE(position.GetHighSpeed());
    position.SetHighSpeed();
    EXPECT_TRUE(position.GetHighSpeed());
    ExpectCalls(clock.Take(), {ClockTime(60, 0)}, "SetHighSpeed");
}

TEST_F(HowToPlayWithMidiClockTest, CaesuraResumesWithTheValuesOfTheNextBeat) {
    Load(position, *MainSong());
    position.AdvanceToTickIndex(500);
    double clockTime = 0;
    int clocksPerClick = 0;

    // On a beat: that beat. Between beats: the next one (the tempo changes at the beat 3840).
    position.GetCaesuraResumeParams(3360, &clockTime, &clocksPerClick);
    EXPECT_DOUBLE_EQ(clockTime, ClockTimeAt(120));
    EXPECT_EQ(clocksPerClick, 24);
    position.GetCaesuraResumeParams(3361, &clockTime, &clocksPerClick);
    EXPECT_DOUBLE_EQ(clockTime, ClockTimeAt(60));
    position.GetCaesuraResumeParams(3840, &clockTime, nullptr);
    EXPECT_DOUBLE_EQ(clockTime, ClockTimeAt(60));

    // Tempo scale 0.5 over [1000, 2000): the beat at 1440 is inside, the beat at 960 is not.
    controls.SetTempoScale(3.0);
    position.GetCaesuraResumeParams(950, &clockTime, nullptr);
    EXPECT_DOUBLE_EQ(clockTime, ClockTimeAt(120) / 2.0);  // user 3.0 limited to 2.0
    position.GetCaesuraResumeParams(1001, &clockTime, nullptr);
    EXPECT_DOUBLE_EQ(clockTime, ClockTimeAt(120) / 1.5);
    controls.SetTempoScale(1.0);

    // Meter and click at the beat: 6/8 is 36 clocks, the click of 16 notated 32nds 48.
    position.GetCaesuraResumeParams(6000, nullptr, &clocksPerClick);
    EXPECT_EQ(clocksPerClick, 36);
    position.GetCaesuraResumeParams(7200, nullptr, &clocksPerClick);
    EXPECT_EQ(clocksPerClick, 48);
    EXPECT_EQ(position.GetTickIndex(), 500u);  // never moves the position
    EXPECT_EQ(clock.Take().size(), 2u);        // only the advance above reached the clock

    // Beyond the last beat record (the one on the last tick).
    position.GetCaesuraResumeParams(kMainLastTick, nullptr, nullptr);
    try {
        position.GetCaesuraResumeParams(kMainLastTick + 1, nullptr, nullptr);
        ADD_FAILURE() << "no exception";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "HowToPlayWithMidiClock exceeded the limits of the beat map.");
    }

    // A click of 12 notated 32nds under a meter of 8 resumes with 36 clocks.
    Load(position, *SongEndSong());
    position.GetCaesuraResumeParams(5760, nullptr, &clocksPerClick);
    EXPECT_EQ(clocksPerClick, 36);
    position.GetCaesuraResumeParams(5759, nullptr, &clocksPerClick);
    EXPECT_EQ(clocksPerClick, 36);
    position.GetCaesuraResumeParams(5280, nullptr, &clocksPerClick);
    EXPECT_EQ(clocksPerClick, 24);
}

TEST_F(HowToPlayWithMidiClockTest, ACopyDrivesTheSameClockFromItsOwnPosition) {
    Load(position, *MainSong());
    position.AdvanceToTickIndex(3000);
    clock.Take();
    HowToPlayWithMidiClock copy(position);
    copy.AdvanceToTickIndex(3840);
    ExpectCalls(clock.Take(), {ClockTime(60, 3840)}, "copy");
    EXPECT_EQ(position.GetTickIndex(), 3000u);
    AdvanceAndExpect(3900, {ClockTime(60, 3900)});  // the original has not reported it yet
}

TEST(MidiClock, CallbackIsReplacedAndAnEmptyOneRaises) {
    RecordingClock clock;
    EXPECT_THROW(clock.DoMidiClockCallback(120.0), std::bad_function_call);
    std::vector<double> tempos;
    clock.SetMidiClockCallback([&tempos](double bpm) { tempos.push_back(bpm); });
    clock.DoMidiClockCallback(120.0);
    clock.SetMidiClockCallback([&tempos](double bpm) { tempos.push_back(-bpm); });
    clock.DoMidiClockCallback(90.0);
    EXPECT_EQ(tempos, (std::vector<double>{120.0, -90.0}));
}
