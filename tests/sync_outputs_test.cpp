// The player's sync outputs driven by the show session as a performer drives it, heard on virtual
// devices: beat clock with song position and the transport's start, continue and stop; time code
// decoded by the independent receiver while a song plays to its end.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "apps/show_session.h"
#include "apps/sync_outputs.h"
#include "platform/virtual_midi.h"
#include "tests/support/device_packets.h"
#include "tests/support/mtc_receiver.h"
#include "tests/support/temp_folder.h"
#include "velt_core/song_builder.h"

namespace {

using namespace std::chrono_literals;
using playback::Heard;
using playback::Message;
using velt_platform::VirtualMidiOutput;

constexpr std::uint32_t kBar = 1920;  // 4/4 at 480 ticks per quarter

// Two bars at 240 quarter notes a minute: two seconds.
std::shared_ptr<velt_midi::SongData> ShortSong() {
    velt_core::SongBuilder song("Sync", 480);
    song.Tempo(0, 240).Meter(0, 4, 4).Bars(2).Track(0x00, "Pulse", 0, {0, 127});
    for (std::uint32_t tick = 0; tick < 2 * kBar; tick += 480) {
        song.Note(0x00, tick, 60, 90, 240);
    }
    return song.Build();
}

struct Fixture {
    explicit Fixture(velt_play::SyncCommandLine line) {
        show->AddSong(song);
        sync = std::make_unique<velt_play::SyncOutputs>(*show, velt_play::ResolveSyncOptions(line));
        session = std::make_unique<velt_play::ShowSession>(
            std::vector<velt_play::SessionSong>{{song->GetSongName(), song, ""}}, show,
            velt_play::SessionOptions{velt_play::ClockKind::precision, "Sync Music", {}});
        session->SetTransportHooks(sync->Hooks());
    }
    ~Fixture() {
        session.reset();
        sync.reset();
    }
    test_support::TempFolder folder;  // the settings folder
    test_support::ConfigHome configHome{folder.path()};
    VirtualMidiOutput music{"Sync Music"};
    VirtualMidiOutput beatClock{"Sync Beat Clock"};
    VirtualMidiOutput timeCode{"Sync Time Code"};
    std::shared_ptr<velt_midi::SongData> song = ShortSong();
    std::shared_ptr<pv::ParvelShowData> show = std::make_shared<pv::ParvelShowData>();
    std::unique_ptr<velt_play::SyncOutputs> sync;
    std::unique_ptr<velt_play::ShowSession> session;
};

// The transport bytes (everything but the 0xF8 clocks), and how many clocks came between them.
struct Transport {
    std::vector<Message> events;
    std::vector<int> clocksBefore;  // clocks heard before each event
};

Transport ReadTransport(const std::vector<Message>& messages) {
    Transport transport;
    int clocks = 0;
    for (const Message& message : messages) {
        if (message == Message{0xF8}) {
            ++clocks;
        } else {
            transport.events.push_back(message);
            transport.clocksBefore.push_back(clocks);
        }
    }
    transport.clocksBefore.push_back(clocks);  // the total
    return transport;
}

TEST(SyncOutputs, BeatClockFollowsTheTransport) {
    velt_play::SyncCommandLine line;
    line.beatClockPort = "Sync Beat Clock";
    Fixture f(line);

    f.session->Play();
    ASSERT_TRUE(f.beatClock.WaitForMessages(30, 5s));  // well into bar 1
    f.session->SeekToBar(2);                           // a jump while playing
    ASSERT_TRUE(f.session->WaitUntilNotPlaying(10s));  // plays to the end
    f.session->SeekToBar(2);                           // a cue while stopped
    const Transport t = ReadTransport(Heard(f.beatClock));

    const std::vector<Message> expected{
        {0xF2, 0x00, 0x00},  // position 0 ...
        {0xFA},              // ... and Start, before any clock
        {0xFC},              // the jump: Stop,
        {0xF2, 0x10, 0x00},  // bar 2 is sixteenth 16,
        {0xFB},              // Continue
        {0xFC},              // the song's end
        {0xF2, 0x10, 0x00},  // the cue
    };
    ASSERT_EQ(t.events, expected);
    EXPECT_EQ(t.clocksBefore[0], 0);
    EXPECT_EQ(t.clocksBefore[1], 0);
    EXPECT_GE(t.clocksBefore[2], 28);
    EXPECT_EQ(t.clocksBefore[3], t.clocksBefore[2]);
    EXPECT_EQ(t.clocksBefore[5], t.clocksBefore[6]);  // nothing after the end
    // Bar 2 is 96 clocks long: one clock per period sent, none for the song's end.
    EXPECT_EQ(t.clocksBefore[5] - t.clocksBefore[4], 96);
}

TEST(SyncOutputs, TimeCodeLocatesThenRunsWithTheSong) {
    velt_play::SyncCommandLine line;
    line.timeCodePort = "Sync Time Code";
    line.frameRate = "25";
    line.offset = "3600";  // the show starts at one hour
    Fixture f(line);

    f.session->Play();
    ASSERT_TRUE(f.session->WaitUntilNotPlaying(10s));
    std::this_thread::sleep_for(100ms);  // the last stretch's timer
    mtc_receiver::Receiver r;
    for (const Message& message : Heard(f.timeCode)) {
        r.Hear(message);
    }
    for (const auto& fault : r.faults) {
        ADD_FAILURE() << fault;
    }
    ASSERT_FALSE(r.fullFrames.empty());
    EXPECT_EQ(r.fullFrames.front(), (mtc_receiver::Label{1, 0, 0, 0, 1}));
    ASSERT_FALSE(r.cycles.empty());
    EXPECT_EQ(r.cycles.front(), (mtc_receiver::Label{1, 0, 0, 0, 1}));
    // Two seconds at 25 fps: 200 quarter frames, the last one 01:00:01:24's fourth.
    EXPECT_EQ(r.quarterFrames, 200);
    EXPECT_EQ(r.cycles.back(), (mtc_receiver::Label{1, 0, 1, 23, 1}));
    EXPECT_EQ(f.sync->StatusLine().substr(0, 21), "time code 01:00:01:24");
}

// A stop and a resume at the same place: the time code sent before the stop reaches no further
// than the music did, and the song's time code is covered once in all, as when played straight.
TEST(SyncOutputs, TimeCodeStopsWhereTheMusicStopsAndGoesOnFromThere) {
    velt_play::SyncCommandLine line;
    line.timeCodePort = "Sync Time Code";
    line.frameRate = "25";  // a quarter frame is 10 ms
    Fixture f(line);
    const auto quarterFrames = [&f](std::size_t from, std::size_t to) {
        const auto heard = Heard(f.timeCode);
        return std::count_if(
            heard.begin() + static_cast<std::ptrdiff_t>(from),
            heard.begin() + static_cast<std::ptrdiff_t>(std::min(to, heard.size())),
            [](const Message& m) { return m.size() == 2 && m[0] == 0xF1; });
    };

    f.session->Play();
    ASSERT_TRUE(f.timeCode.WaitForMessages(60, 5s));  // well into the first bar
    f.session->Stop();
    std::this_thread::sleep_for(100ms);  // what a stretch still had to send
    const std::size_t beforeResume = f.timeCode.Messages().size();
    // The music stopped at the end of the last clock period sent: the shown tick plus one
    // period (20 ticks at 480 a quarter, 240 quarters a minute).
    const double stoppedAt = (f.session->Status().tick + 20) / 480.0 * 0.25;
    const auto sentBefore = quarterFrames(0, beforeResume);
    ASSERT_GT(sentBefore, 0);
    EXPECT_LE(0.01 * static_cast<double>(sentBefore - 1), stoppedAt + 1e-9)
        << sentBefore << " quarter frames for a stop at " << stoppedAt << " s";

    f.session->Resume();
    ASSERT_TRUE(f.session->WaitUntilNotPlaying(10s));
    std::this_thread::sleep_for(100ms);
    // Two seconds are 200 quarter frames; the resume may skip the one it starts inside.
    const auto all = quarterFrames(0, SIZE_MAX);
    EXPECT_LE(all, 200);
    EXPECT_GE(all, 198);
}

TEST(SyncOutputs, CommandLineChecks) {
    const test_support::TempFolder folder;
    const test_support::ConfigHome configHome(folder.path());
    velt_play::SyncCommandLine line;
    line.frameRate = "29";
    try {
        velt_play::ResolveSyncOptions(line);
        ADD_FAILURE() << "no error";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "--mtc-rate is 24, 25, 29.97 or 30, not 29");
    }
    line.frameRate = "29.97";
    EXPECT_EQ(velt_play::ResolveSyncOptions(line).frameRate, FrameRate::Fps2997Drop);
    line.timeCodePort = "no such device anywhere";
    EXPECT_THROW(velt_play::ResolveSyncOptions(line), std::out_of_range);
}

}  // namespace
