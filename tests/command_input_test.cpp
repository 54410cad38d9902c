// The player's MIDI input: commands learned from a virtual input device drive the show session
// the way the player's main thread performs them, and show-control cues recall songs and markers.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "apps/command_input.h"
#include "apps/show_session.h"
#include "midi_input_support.h"
#include "platform/virtual_midi.h"
#include "tests/support/temp_folder.h"
#include "tests/support/watchdog.h"
#include "velt_core/song_builder.h"

namespace {

using namespace std::chrono_literals;
using midi_input_test::kHangLimit;
using velt_play::CommandInput;
using velt_play::PlayState;

constexpr std::uint32_t kBar = 1920;

// Sixteen bars of whole notes at a slow tempo, so a song plays on while the test acts; markers
// at bars 5 and 9.
std::shared_ptr<velt_midi::SongData> Song(const std::string& name) {
    velt_core::SongBuilder song(name, 480);
    song.Tempo(0, 60).Meter(0, 4, 4).Bars(16);
    song.Track(0x00, "Strings", 48, {0, 127});
    for (std::uint32_t tick = 0; tick < 16 * kBar; tick += kBar) {
        song.Note(0x00, tick, 60, 80, kBar);
    }
    song.Marker(4 * kBar, "Verse 2").Marker(8 * kBar, "Bridge");
    return song.Build();
}

// The player's main loop in small: the input wakes it, it performs what was taken.
class Player {
  public:
    explicit Player(const std::filesystem::path& settings,
                    velt_play::ClockKind clock = velt_play::ClockKind::precision) {
        auto show = std::make_shared<pv::ParvelShowData>();
        std::vector<velt_play::SessionSong> songs;
        for (const char* name : {"Overture", "Finale"}) {
            auto song = Song(name);
            show->AddSong(song);
            songs.push_back({name, song, ""});
        }
        session = std::make_unique<velt_play::ShowSession>(
            std::move(songs), show, velt_play::SessionOptions{clock, "Pit", {}});
        Open(settings);
    }
    ~Player() {
        input.reset();
        session.reset();
    }

    void Open(const std::filesystem::path& settings) {
        input.reset();
        input = std::make_unique<CommandInput>(settings.string(), [this] {
            {
                std::scoped_lock lock(mutex);
                ++wakes;
                woken.notify_all();
            }
            // A host may perform commands on the input's own thread instead of its main one.
            if (performOnInputThread) {
                auto lines = velt_play::PerformInputEvents(*session, *input, cues);
                std::scoped_lock lock(mutex);
                performedOnInput.insert(performedOnInput.end(), lines.begin(), lines.end());
            }
        });
    }

    // Waits for the next wake-up and performs what the input queued.
    std::vector<std::string> PerformNext() {
        {
            std::unique_lock lock(mutex);
            if (!woken.wait_for(lock, kHangLimit, [&] { return wakes > performed; })) {
                return {"(no wake-up)"};
            }
            performed = wakes;
        }
        return velt_play::PerformInputEvents(*session, *input, cues);
    }

    velt_platform::VirtualMidiOutput pit{"Pit"};
    velt_platform::VirtualMidiInput pads{"Pads"};
    std::unique_ptr<velt_play::ShowSession> session;
    std::unique_ptr<CommandInput> input;
    velt_play::CueList cues;
    std::mutex mutex;
    std::condition_variable woken;
    int wakes = 0;
    int performed = 0;
    std::atomic<bool> performOnInputThread{false};
    std::vector<std::string> performedOnInput;  // guarded by mutex
};

class CommandInputTest : public ::testing::Test {
  protected:
    test_support::TempFolder temp_;
    const std::filesystem::path folder_ = temp_.path();
};

}  // namespace

TEST_F(CommandInputTest, ALearnedNoteStartsAndStopsTheShowAndIsKeptForTheNextRun) {
    const auto settings = folder_ / "midi_commands.dat";
    Player player(settings);
    EXPECT_THROW(player.input->Connect("Drums"), std::out_of_range);
    player.input->Connect("pad");
    EXPECT_EQ(player.input->SourceName(), "Pads");

    player.input->Learn(velt_play::ResolveCommand("play"));
    EXPECT_EQ(player.input->Learning(), 2);
    ASSERT_TRUE(player.pads.SendShort(0x90, 60, 100));
    EXPECT_EQ(player.PerformNext(),
              std::vector<std::string>{"Learned Play on note 60 on channel 1."});
    player.input->Learn(velt_play::ResolveCommand("Stop"));
    ASSERT_TRUE(player.pads.SendShort(0xB0, 64, 127));
    EXPECT_EQ(player.PerformNext(),
              std::vector<std::string>{"Learned Stop on controller 64 on channel 1."});
    EXPECT_EQ(player.input->Learning(), std::nullopt);
    EXPECT_EQ(player.session->Status().state, PlayState::cued);

    ASSERT_TRUE(player.pads.SendShort(0x90, 60, 100));
    EXPECT_EQ(player.PerformNext(), std::vector<std::string>{"MIDI: Play"});
    EXPECT_EQ(player.session->Status().state, PlayState::playing);
    ASSERT_TRUE(player.pit.WaitForMessages(1, kHangLimit));

    ASSERT_TRUE(player.pads.SendShort(0xB0, 64, 127));
    EXPECT_EQ(player.PerformNext(), std::vector<std::string>{"MIDI: Stop"});
    EXPECT_EQ(player.session->Status().state, PlayState::cued);
    EXPECT_GE(player.input->MessageCount(), 4u);

    // The next run: the same file, the input connected again, the note plays again.
    player.Open(settings);
    player.input->Connect("Pads");
    EXPECT_EQ(player.input->Learned().size(), 2u);
    ASSERT_TRUE(player.pads.SendShort(0x90, 60, 1));
    // Binding the commands again on connecting is not reported as learning them.
    std::vector<std::string> lines;
    while (lines.empty()) {
        lines = player.PerformNext();
    }
    EXPECT_EQ(lines, std::vector<std::string>{"MIDI: Play"});
    EXPECT_EQ(player.session->Status().state, PlayState::playing);
    player.session->Stop();
}

// Conduct Beat on a pedal: with the conducted clock each press is a beat (the first plays); with
// a clock of its own the command is refused in words and nothing moves.
TEST_F(CommandInputTest, ALearnedConductBeatBeatsOnlyAConductedClock) {
    for (const auto clock : {velt_play::ClockKind::conducted, velt_play::ClockKind::precision}) {
        Player player(folder_ / ("commands_" + std::to_string(static_cast<int>(clock))), clock);
        player.input->Connect("Pads");
        player.input->Learn(velt_play::ResolveCommand("Conduct Beat"));
        ASSERT_TRUE(player.pads.SendShort(0xB0, 66, 127));
        EXPECT_EQ(player.PerformNext(),
                  std::vector<std::string>{"Learned Conduct Beat on controller 66 on channel 1."});

        ASSERT_TRUE(player.pads.SendShort(0xB0, 66, 127));
        const auto lines = player.PerformNext();
        if (clock == velt_play::ClockKind::conducted) {
            EXPECT_EQ(lines, std::vector<std::string>{"MIDI: Conduct Beat"});
            EXPECT_EQ(player.session->Status().state, PlayState::playing);
            ASSERT_TRUE(player.pit.WaitForMessages(1, kHangLimit));
            player.session->Stop();
        } else {
            EXPECT_EQ(lines,
                      std::vector<std::string>{"MIDI: Conduct Beat: beats need the conducted clock "
                                               "(--clock conducted)"});
            EXPECT_EQ(player.session->Status().state, PlayState::cued);
        }
    }
}

TEST_F(CommandInputTest, ShowControlGoRecallsTheCuesSongAndMarker) {
    const auto cueFile = folder_ / "cues.txt";
    std::ofstream(cueFile) << "# cue  song  marker\n"
                              "1      1\n"
                              "\n"
                              "1.5    2     Bridge\n"
                              "7      2     Coda\n";
    Player player(folder_ / "midi_commands.dat");
    player.cues = velt_play::CueList::Load(cueFile.string());
    player.input->Connect("0");

    const auto go = [&](const std::string& cue) {
        std::vector<std::uint8_t> message = {0xF0, 0x7F, 0x7F, 0x02, 0x11, 0x01};
        message.insert(message.end(), cue.begin(), cue.end());
        message.insert(message.end(), {0x00, 0x31, 0xF7});  // in cue list 1
        EXPECT_TRUE(player.pads.SendSysEx(message));
        return player.PerformNext();
    };
    EXPECT_EQ(go("1.5"), std::vector<std::string>{"MIDI cue 1.5: song 2 at \"Bridge\""});
    auto status = player.session->Status();
    EXPECT_EQ(status.songNumber, 2);
    EXPECT_EQ(status.bar, 9);
    EXPECT_EQ(status.state, PlayState::cued);

    player.session->Play();
    EXPECT_EQ(go("1"), std::vector<std::string>{"MIDI cue 1: song 1"});
    status = player.session->Status();
    EXPECT_EQ(status.songNumber, 1);
    EXPECT_EQ(status.state, PlayState::playing);  // a cue while playing plays on there
    player.session->Stop();

    EXPECT_EQ(go("7"),
              std::vector<std::string>{"MIDI cue 7: song 2, which has no marker \"Coda\""});
    EXPECT_EQ(player.session->Status().bar, 1);
    EXPECT_EQ(go("3"), std::vector<std::string>{"MIDI cue 3: not in the cue list"});
    // A STOP (command 2) is not a GO: nothing is queued, so nothing is performed.
    ASSERT_TRUE(player.pads.SendSysEx({0xF0, 0x7F, 0x7F, 0x02, 0x11, 0x02, 0x31, 0xF7}));
    ASSERT_TRUE(player.pads.SendShort(0xC0, 5));  // nothing learned on it: only counted
    EXPECT_EQ(go("1"), std::vector<std::string>{"MIDI cue 1: song 1"});

    std::ofstream(cueFile) << "1.5 two\n";
    try {
        velt_play::CueList::Load(cueFile.string());
        ADD_FAILURE() << "a cue list with a song that is not a number was read";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()), cueFile.string() +
                                                 " line 1: give a cue number, a song number from "
                                                 "1 and optionally a marker");
    }
}

// Commands performed on the input's thread as they arrive, verbs from the main thread at the
// same time, and sync hooks that take the host's lock (the output's client mutex) and read the
// session from the clock thread and from inside the verbs: nothing may wait on itself or on
// another thread that waits on it.
TEST_F(CommandInputTest, CommandsOnTheInputThreadVerbsAndLockingHooksNeverDeadlock) {
    Watchdog watchdog("commands, verbs and locking sync hooks", 120s);
    Player player(folder_ / "midi_commands.dat");
    player.input->Connect("Pads");
    const std::vector<std::pair<std::string, std::uint8_t>> commands{
        {"play", 60}, {"Stop", 62}, {"Next Marker", 64}, {"Previous Marker", 65}};
    for (const auto& [name, note] : commands) {
        player.input->Learn(velt_play::ResolveCommand(name));
        ASSERT_TRUE(player.pads.SendShort(0x90, note, 100));
        ASSERT_EQ(player.PerformNext().size(), 1u);
    }

    auto& session = *player.session;
    std::atomic<int> periods{0};
    std::atomic<int> reads{0};
    auto readUnderHostLock = [&] {
        std::scoped_lock client(*session.Output().GetClientMutex());
        session.Status();
        ++reads;
    };
    session.SetTransportHooks({
        [&](const velt_midi::SongData&, std::uint32_t) { readUnderHostLock(); },
        [&](std::uint32_t) { readUnderHostLock(); },
        [&](std::uint32_t, double) {
            std::scoped_lock client(*session.Output().GetClientMutex());
            session.Output().GetTickIndex();
            ++periods;
        },
        [&] { readUnderHostLock(); },
    });
    player.performOnInputThread = true;

    constexpr int rounds = 60;
    std::thread pads([&] {
        for (int i = 0; i < rounds; ++i) {
            const auto note = commands[static_cast<std::size_t>(i) % commands.size()].second;
            player.pads.SendShort(0x90, note, 100);
            std::this_thread::sleep_for(2ms);
        }
    });
    for (int i = 0; i < rounds; ++i) {
        switch (i % 4) {
            case 0:
                session.Play();
                break;
            case 1:
                session.SeekToBar(1 + i % 12);
                break;
            case 2:
                session.SetTempoScale(i % 8 == 2 ? 1.5 : 0.75);
                break;
            default:
                session.Stop();
                break;
        }
        std::this_thread::sleep_for(3ms);
    }
    pads.join();
    // Every command was performed on the input thread, each with its line.
    for (int i = 0; i < 200; ++i) {
        {
            std::scoped_lock lock(player.mutex);
            if (player.performedOnInput.size() >= static_cast<std::size_t>(rounds))
                break;
        }
        std::this_thread::sleep_for(10ms);
    }
    {
        std::scoped_lock lock(player.mutex);
        EXPECT_EQ(player.performedOnInput.size(), static_cast<std::size_t>(rounds));
    }
    EXPECT_GT(periods.load(), 0);
    EXPECT_GT(reads.load(), 0);
    // And the show still plays.
    session.Stop();
    player.pit.ClearMessages();
    session.Play();
    EXPECT_TRUE(player.pit.WaitForMessages(1, kHangLimit));
    session.Stop();
}
