// HowToPlayWithMidiClock: which clock changes a move schedules and at which tick, the host-lock
// hand-off, the caesura resume values; and the MidiClock callback.
#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "interfaces/kit.h"
#include "midi/how_to_play.h"
#include "position_songs.h"

using namespace position_songs;

namespace {

/// One scheduled clock change as text, "SetClockTime(<seconds per clock>@<tick>)" or
/// "SetClocksPerClick(<clocks>@<tick>)"; nine digits hide the rounding of the way it was computed.
std::string Call(const char* what, double value, unsigned int validAt) {
    return kit::format("%s(%.9g@%u)", what, value, validAt);
}

std::string ClockTime(double quarterNotesPerMinute, unsigned int validAt) {
    return Call("SetClockTime", ClockTimeAt(quarterNotesPerMinute), validAt);
}

std::string ClocksPerClick(int clocks, unsigned int validAt) {
    return Call("SetClocksPerClick", clocks, validAt);
}

/// Records the changes it is given. Optionally checks, on every change, whether the host's mutex
/// is free (it must be while the clock is called), and throws on demand.
class RecordingClock : public MidiClock {
  public:
    std::vector<std::string> calls;
    std::mutex* hostMutex = nullptr;
    std::vector<bool> hostMutexWasFree;
    bool throwOnClockTime = false;

    void SetTicksPerClock(unsigned int) override { Unexpected("SetTicksPerClock"); }
    void SetClocksPerClick(int clocksPerClick, unsigned int validAt) override {
        NoteHostMutex();
        calls.push_back(Call("SetClocksPerClick", clocksPerClick, validAt));
    }
    void SetClockTime(double clockTime, unsigned int validAt) override {
        NoteHostMutex();
        calls.push_back(Call("SetClockTime", clockTime, validAt));
        if (throwOnClockTime)
            throw std::runtime_error("clock refused");
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
    std::vector<std::string> Take() { return std::exchange(calls, {}); }

  private:
    static void Unexpected(const char* what) { ADD_FAILURE() << "position called " << what; }
    void NoteHostMutex() {
        if (hostMutex != nullptr && hostMutexWasFree.emplace_back(hostMutex->try_lock()))
            hostMutex->unlock();
    }
};

class HowToPlayWithMidiClockTest : public ::testing::Test {
  protected:
    UserControls controls;
    RecordingClock clock;
    HowToPlayWithMidiClock position{controls, clock};

    void AdvanceAndExpect(unsigned int tick, const std::vector<std::string>& expected) {
        position.AdvanceToTickIndex(tick);
        EXPECT_EQ(clock.Take(), expected) << "advance to " << tick;
    }
};

}  // namespace

TEST_F(HowToPlayWithMidiClockTest, ForwardMovesScheduleEachChangeAtTheRequestedTick) {
    Load(position, *MainSong());
    EXPECT_EQ(clock.Take(), (std::vector<std::string>{}));  // its seek leaves the clock alone

    // The first move after a seek reports the first tempo and meter once.
    AdvanceAndExpect(20, {ClockTime(120, 20), ClocksPerClick(24, 20)});
    AdvanceAndExpect(40, {});
    // Song tempo scale of 0.5 over [1000, 2000).
    AdvanceAndExpect(1000, {ClockTime(60, 1000)});
    AdvanceAndExpect(2000, {ClockTime(120, 2000)});
    // Tempo change at 3840 with the user's scale at 1.5: one change, at the requested tick.
    controls.SetTempoScale(1.5);
    AdvanceAndExpect(3850, {ClockTime(60 * 1.5, 3850)});
    AdvanceAndExpect(3860, {});
    controls.SetTempoScale(1.0);
    // Meter 6/8 from 5760 (36 clocks), then a click of 48 clocks over [7200, 8640).
    AdvanceAndExpect(5760, {ClocksPerClick(36, 5760)});
    AdvanceAndExpect(7200, {ClocksPerClick(48, 7200)});
    AdvanceAndExpect(8640, {ClocksPerClick(36, 8640)});
    // Advancing to where it stands changes nothing more.
    AdvanceAndExpect(8640, {});
}

TEST_F(HowToPlayWithMidiClockTest, SeeksLeaveTheClockAloneAndTheNextMoveReportsWhatIsInForce) {
    Load(position, *MainSong());
    // Advancing behind is a seek, which re-arms the reports: the first tempo and meter report at
    // once. Into the middle the moved tempo cursor differs from its reset previous cursor.
    struct Back {
        unsigned int tick;
        double quarterNotesPerMinute;
    };
    for (auto [tick, quarter] : {Back{100, 120}, Back{4000, 60}}) {
        position.AdvanceToTickIndex(9000);
        clock.Take();
        AdvanceAndExpect(tick, {ClockTime(quarter, tick), ClocksPerClick(24, tick)});
        EXPECT_EQ(position.GetTickIndex(), tick);
        EXPECT_DOUBLE_EQ(position.GetLastSeekClockTime(), ClockTimeAt(quarter));
        EXPECT_EQ(position.GetLastSeekClocksPerClick(), 24);
        AdvanceAndExpect(tick + 20, {});
    }

    position.AdvanceToTickIndex(9000);
    clock.Take();
    position.Seek(7500);  // a direct seek, inside the click event
    EXPECT_TRUE(clock.Take().empty());
    EXPECT_DOUBLE_EQ(position.GetLastSeekClockTime(), ClockTimeAt(60));
    EXPECT_EQ(position.GetLastSeekClocksPerClick(), 48);
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
    EXPECT_EQ(clock.Take(), (std::vector<std::string>{ClockTime(120, 20), ClocksPerClick(24, 20)}));
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
    position.SetHighSpeed();
    EXPECT_TRUE(position.GetHighSpeed());
    EXPECT_EQ(clock.Take(), (std::vector<std::string>{ClockTime(60, 0)}));
}

TEST_F(HowToPlayWithMidiClockTest, CaesuraResumesWithTheValuesOfTheNextBeat) {
    Load(position, *MainSong());
    position.AdvanceToTickIndex(500);
    clock.Take();
    struct Resume {
        unsigned int tick;
        double userScale;
        double clockTime;
        int clocksPerClick;
    };
    // On a beat: that beat. Between beats: the next one (the tempo changes at the beat 3840).
    // Tempo scale 0.5 over [1000, 2000): the beat at 1440 is inside, the beat at 960 is not; the
    // user's 3.0 is limited to 2.0 in the product. 6/8 is 36 clocks, the click of 16 notated
    // 32nds 48.
    for (const Resume& expected : std::vector<Resume>{{3360, 1, ClockTimeAt(120), 24},
                                                      {3361, 1, ClockTimeAt(60), 24},
                                                      {3840, 1, ClockTimeAt(60), 24},
                                                      {950, 3, ClockTimeAt(120) / 2.0, 24},
                                                      {1001, 3, ClockTimeAt(120) / 1.5, 24},
                                                      {6000, 1, ClockTimeAt(60), 36},
                                                      {7200, 1, ClockTimeAt(60), 48}}) {
        controls.SetTempoScale(expected.userScale);
        double clockTime = 0;
        int clocksPerClick = 0;
        position.GetCaesuraResumeParams(expected.tick, &clockTime, &clocksPerClick);
        EXPECT_DOUBLE_EQ(clockTime, expected.clockTime) << expected.tick;
        EXPECT_EQ(clocksPerClick, expected.clocksPerClick) << expected.tick;
    }
    EXPECT_EQ(position.GetTickIndex(), 500u);  // never moves the position
    EXPECT_TRUE(clock.Take().empty());         // nor reaches the clock

    // Either answer may be left out; beyond the last beat record (the one on the last tick) is
    // an error.
    position.GetCaesuraResumeParams(kMainLastTick, nullptr, nullptr);
    try {
        position.GetCaesuraResumeParams(kMainLastTick + 1, nullptr, nullptr);
        ADD_FAILURE() << "no exception";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "HowToPlayWithMidiClock exceeded the limits of the beat map.");
    }

    // A click of 12 notated 32nds under a meter of 8 resumes with 36 clocks.
    Load(position, *SongEndSong());
    for (auto [tick, clocks] :
         std::vector<std::pair<unsigned int, int>>{{5760, 36}, {5759, 36}, {5280, 24}}) {
        int clocksPerClick = 0;
        position.GetCaesuraResumeParams(tick, nullptr, &clocksPerClick);
        EXPECT_EQ(clocksPerClick, clocks) << tick;
    }
}

TEST_F(HowToPlayWithMidiClockTest, ACopyDrivesTheSameClockFromItsOwnPosition) {
    Load(position, *MainSong());
    position.AdvanceToTickIndex(3000);
    clock.Take();
    HowToPlayWithMidiClock copy(position);
    copy.AdvanceToTickIndex(3840);
    EXPECT_EQ(clock.Take(), (std::vector<std::string>{ClockTime(60, 3840)}));
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
