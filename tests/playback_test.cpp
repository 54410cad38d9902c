// First sound: the real clock, position, stream collection and platform output, assembled as a
// host assembles them, play a song of the example show into a virtual output device. The test is
// the host: its fill callback advances the position and lets the song's stream enqueue the
// period's events, and it records what each fill put into the packets, so that what the device
// received can be compared with it.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "midi/how_to_play.h"
#include "midi/midi_stream_collection.h"
#include "midi/user_controls.h"
#include "midi/velt_midi_error.h"
#include "midi/win32/midi_buffer_win32.h"
#include "midi/win32/midi_device_info.h"
#include "midi/win32/midi_output_win32.h"
#include "midi/win32/standard_midi_clock_impl.h"
#include "platform/virtual_midi.h"
#include "tests/support/captured_log.h"
#include "tests/support/device_packets.h"
#include "tests/support/recorded.h"
#include "tests/support/song_player.h"
#include "velt_core/show_loader.h"
#include "velt_core/song_builder.h"

namespace {

using namespace std::chrono_literals;
using playback::AllNotesOffMessages;
using playback::FilledPeriod;
using playback::Message;
using playback::MessageOfWord;
using playback::Packets;
using playback::Sounding;
using Host = playback::SongPlayer<StandardMidiClockImpl>;

// The first song of the example show, with its tempi ten times as fast so that it plays in a
// few seconds.
velt_midi::SongData FastLanterns() {
    auto show = velt_core::LoadShow(VELT_EXAMPLES_DIR "/harbour_lights");
    velt_midi::SongData song = *show->GetSongs().at(0);
    for (auto& tempo : song.GetTimeline().GetTempos()) {
        tempo.microseconds_per_quarter /= 10;
    }
    return song;
}

// The packets a run of filled periods becomes: one per period that has events.
std::vector<std::vector<Message>> ExpectedPackets(const std::vector<FilledPeriod>& periods,
                                                  std::uint32_t upToTick) {
    std::vector<std::vector<Message>> packets;
    for (const auto& period : periods) {
        if (period.tick <= upToTick && !period.messages.empty()) {
            packets.push_back(period.messages);
        }
    }
    return packets;
}

std::vector<Message> SongMessagesBefore(const velt_midi::SongData& song, std::uint32_t tick) {
    std::vector<std::pair<std::uint32_t, Message>> timed;
    for (const auto& [id, track] : song.GetVoiceData()) {
        for (const auto& e : track->events) {
            if (e.time < tick) {
                timed.push_back({e.time, MessageOfWord((DWORD{e.data2} << 16) |
                                                       (DWORD{e.data1} << 8) | e.status)});
            }
        }
    }
    std::stable_sort(timed.begin(), timed.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<Message> messages;
    for (auto& [time, message] : timed)
        messages.push_back(message);
    return messages;
}

std::vector<Message> Flatten(const std::vector<std::vector<Message>>& packets) {
    std::vector<Message> messages;
    for (const auto& packet : packets)
        messages.insert(messages.end(), packet.begin(), packet.end());
    return messages;
}

// A song of quarter notes long enough to change devices in the middle of it.
velt_midi::SongData QuarterNotes(int bars) {
    auto song = velt_core::SongBuilder("Quarters", 480).Tempo(0, 600).Meter(0, 4, 4).Bars(bars);
    for (std::uint32_t tick = 0; tick < static_cast<std::uint32_t>(bars) * 1920; tick += 480) {
        song.Note(0x00, tick, static_cast<std::uint8_t>(48 + tick / 480 % 36), 80, 400);
    }
    return *song.Build();
}

const std::string kStageLeftGone =
    "[ERROR] MIDI output device \"Stage Left\" is no longer connected (midi/Sources/win32/"
    "win_synth line 166: calling midiStreamOut caused error 68, MIDIERR_NODEVICE port no longer "
    "connected.)";

// The device-lost notifications posted while it lives: the device names, in order.
struct LostDevices : Recorded<std::string> {
    LostDevices() {
        notify::callbackDispatcher.AddCallback(
            notify::names::midiOutputDeviceLost, this,
            [this](void* payload) { Add(*static_cast<std::string*>(payload)); });
    }
    ~LostDevices() { notify::callbackDispatcher.RemoveCallbacksForTarget(this); }
};

// Every case runs with both timings of the output: clock timing (every event of a period at its
// start, each packet awaited) and exact timing (events at their offsets, packets not awaited).
class Playback : public ::testing::TestWithParam<bool> {};
class PlaybackDevices : public ::testing::TestWithParam<bool> {};

std::string TimingName(const ::testing::TestParamInfo<bool>& info) {
    return info.param ? "ExactTiming" : "ClockTiming";
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Timing, Playback, ::testing::Bool(), TimingName);
INSTANTIATE_TEST_SUITE_P(Timing, PlaybackDevices, ::testing::Bool(), TimingName);

TEST_P(Playback, EverySongEventArrivesOnceInOrderAndTheSongEndsInSilence) {
    velt_platform::VirtualMidiOutput device("Playback Test Out");
    const velt_midi::SongData song = FastLanterns();
    Host host(song, 1, {}, GetParam());
    host.Play(0);
    ASSERT_TRUE(host.WaitForStops(1));

    auto packets = Packets(device);
    ASSERT_FALSE(packets.empty());
    // The song ends with the prepared all-notes-off packet, not with the last buffer's events.
    EXPECT_EQ(packets.back(), AllNotesOffMessages());
    packets.pop_back();
    // Every period the stream filled went out once, as one packet, in order.
    EXPECT_EQ(packets, ExpectedPackets(host.Filled(), std::numeric_limits<std::uint32_t>::max()));
    // And the stream filled every event of the song (there is no transposition in this song),
    // plus the state it sends when a song starts: a centred pitch bend for each track that has
    // none of its own.
    auto sent = Flatten(packets);
    auto expected = SongMessagesBefore(song, std::numeric_limits<std::uint32_t>::max());
    for (const auto& [id, track] : song.GetVoiceData()) {
        if (std::none_of(track->events.begin(), track->events.end(),
                         [](const auto& e) { return (e.status & 0xF0) == 0xE0; })) {
            expected.push_back({static_cast<std::uint8_t>(0xE0 | (id & 0x0F)), 0, 64});
        }
    }
    std::sort(sent.begin(), sent.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(sent, expected);

    EXPECT_NE(host.StoppedThread(), std::this_thread::get_id());
    EXPECT_EQ(host.StoppedThreadName(), "MidiOutput::AsyncStoppedThread");
    EXPECT_FALSE(host.Output().PlaybackIsActive());
    EXPECT_TRUE(host.GetClock().WaitUntilStopped(10s));
    EXPECT_FALSE(host.GetClock().GetPlaybackIsArmed());
}

TEST_P(Playback, ACaesuraStopsAtItsTickAndASeekResumesWithTheChasedState) {
    velt_platform::VirtualMidiOutput device("Playback Test Out");
    const velt_midi::SongData song = FastLanterns();
    Host host(song, 1, {}, GetParam());
    const std::uint32_t caesura = 7200;  // the song's "Caesura" marker
    host.StopAt(caesura);
    host.Play(0);
    ASSERT_TRUE(host.WaitForStops(1));
    ASSERT_TRUE(host.GetClock().WaitUntilStopped(10s));

    // Everything up to and including the caesura's period was sent, nothing after it: the
    // periods the queue thread had filled ahead stay unsent.
    auto beforeStop = Packets(device);
    const auto filledBeforeStop = host.Filled();
    ASSERT_GT(filledBeforeStop.back().tick, caesura);
    EXPECT_EQ(beforeStop, ExpectedPackets(filledBeforeStop, caesura));
    // A caesura holds the chord: no panic went out.
    EXPECT_FALSE(Sounding(Flatten(beforeStop)).empty());

    // Resume from bar 6. The first period releases what the caesura held and no longer sounds,
    // keeps what sounds on, and strikes what sounds at the new place.
    const std::uint32_t resume = 9600;
    host.StopAt(std::numeric_limits<std::uint32_t>::max());
    device.ClearMessages();
    host.Play(resume);
    ASSERT_TRUE(host.WaitForStops(2));
    auto afterResume = Packets(device);
    ASSERT_GE(afterResume.size(), 2u);
    EXPECT_EQ(afterResume.back(), AllNotesOffMessages());

    std::vector<Message> firstPeriod = Flatten(beforeStop);
    firstPeriod.insert(firstPeriod.end(), afterResume.front().begin(), afterResume.front().end());
    EXPECT_EQ(Sounding(firstPeriod),
              Sounding(SongMessagesBefore(song, resume + host.TicksPerClock())));

    // To the end of the song nothing is left sounding, even before the final panic.
    afterResume.pop_back();
    std::vector<Message> whole = Flatten(beforeStop);
    for (const auto& packet : afterResume)
        whole.insert(whole.end(), packet.begin(), packet.end());
    EXPECT_TRUE(Sounding(whole).empty());
}

TEST_P(Playback, APacketTheServiceNeverReturnsIsQuarantinedAndPlaybackGoesOn) {
    velt_platform::VirtualMidiOutput device("Playback Test Out");
    CapturedLog log;
    device.LoseCompletionOfPacket(3);
    {
        Host host(QuarterNotes(2), 1, {}, GetParam());
        host.Play(0);
        ASSERT_TRUE(host.WaitForStops(1));
        auto packets = Packets(device);
        ASSERT_FALSE(packets.empty());
        packets.pop_back();
        // The lost packet was played all the same, and every later one followed it.
        EXPECT_EQ(packets,
                  ExpectedPackets(host.Filled(), std::numeric_limits<std::uint32_t>::max()));
        EXPECT_GT(packets.size(), 4u);
    }  // closing the device warns about the packet still out
    EXPECT_GE(log.CountStartingWith("midiStreamOutDone_ timed out without receiving a mom done "
                                    "message. Buffer Main Buffer ",
                                    " data buffer 0 will be quarantined."),
              1u);
    EXPECT_GE(log.CountStartingWith("WARNING: Main Buffer ",
                                    " has 1 quarantined data buffers after midiStreamStop."),
              1u);
}

TEST_P(PlaybackDevices, ADeviceThatGoesAwayIsReportedOnceAndReopenedByNameWhenItIsBack) {
    velt_platform::VirtualMidiOutput other("Stage Right");
    std::optional<velt_platform::VirtualMidiOutput> left(std::in_place, "Stage Left");
    CapturedLog log;
    LostDevices lost;
    Host host(QuarterNotes(8), 1, {}, GetParam());
    host.Output().CreateSynthOutput("Stage Left");
    host.Play(0);
    ASSERT_TRUE(left->WaitForMessages(8, 20s));
    left.reset();  // unplugged mid-song

    ASSERT_TRUE(lost.WaitFor(1, 20s));
    EXPECT_EQ(lost.Values(), std::vector<std::string>{"Stage Left"});
    EXPECT_TRUE(host.Output().GetSynthIsLost());
    EXPECT_EQ(log.CountStartingWith(kStageLeftGone), 1u);

    // Plugged in again: it comes back under another device id, and is found by its name.
    left.emplace("Stage Left");
    ASSERT_EQ(FindMidiOutDevice("Stage Left"), left->DeviceId());
    host.Output().CreateSynthOutput("Stage Left");
    EXPECT_FALSE(host.Output().GetSynthIsLost());
    ASSERT_TRUE(host.WaitForStops(1));
    auto packets = Packets(*left);
    ASSERT_GE(packets.size(), 2u);
    EXPECT_EQ(packets.back(), AllNotesOffMessages());
    EXPECT_TRUE(other.Messages().empty());
    EXPECT_GT(host.Output().GetDroppedSendCount(), 0u);
    EXPECT_EQ(log.CountStartingWith("Header is not prepared."), 0u);
    EXPECT_EQ(log.CountStartingWith("[ERROR]"), 1u);
    EXPECT_EQ(lost.Values().size(), 1u);
}

TEST_P(PlaybackDevices, SwitchingDevicesMidSongSendsEveryPeriodToExactlyOneOfThem) {
    velt_platform::VirtualMidiOutput left("Stage Left");
    velt_platform::VirtualMidiOutput right("Stage Right");
    CapturedLog log;
    Host host(QuarterNotes(6), 1, {}, GetParam());
    host.Play(0);
    ASSERT_TRUE(left.WaitForMessages(4, 20s));
    // Asking again for the device in use keeps playing on it.
    host.Output().CreateSynthOutput();
    host.Output().CreateSynthOutput("Stage Left");
    EXPECT_THROW(host.Output().CreateSynthOutput("Stage Centre"), MidiDeviceUnavailable);
    ASSERT_TRUE(left.WaitForMessages(8, 20s));
    host.Output().CreateSynthOutput("Stage Right");
    EXPECT_EQ(host.Output().GetSynthDeviceName(), "Stage Right");
    ASSERT_TRUE(host.WaitForStops(1));

    auto onRight = Packets(right);
    ASSERT_GE(onRight.size(), 2u);
    EXPECT_EQ(onRight.back(), AllNotesOffMessages());
    onRight.pop_back();
    auto sent = Packets(left);
    sent.insert(sent.end(), onRight.begin(), onRight.end());
    EXPECT_EQ(sent, ExpectedPackets(host.Filled(), std::numeric_limits<std::uint32_t>::max()));
    // Leaving the first device released what it was still holding.
    EXPECT_TRUE(Sounding(playback::Heard(left)).empty());
    EXPECT_EQ(host.Output().GetDroppedSendCount(), 0u);
    EXPECT_EQ(log.CountStartingWith("[ERROR]"), 0u);
}

TEST_P(PlaybackDevices, AFailingSendDropsItsPeriodLogsOnceAndTheSongStillEnds) {
    velt_platform::VirtualMidiOutput device("Stage Left");
    CapturedLog log;
    Host host(QuarterNotes(4), 1, {}, GetParam());
    {
        // Break one packet of the ring behind the output's back: it fails every time it comes
        // round again.
        std::scoped_lock client(*host.Output().GetClientMutex());
        auto buffer = std::dynamic_pointer_cast<MidiBufferWin32>(host.Output().GetPlayBuffer());
        std::scoped_lock lock(buffer->GetMutex());
        auto packet = buffer->GetDataBuffer(0);
        packet->UnprepareHeader(packet->GetPreparedOutputHandle());
    }
    host.Play(0);
    ASSERT_TRUE(host.WaitForStops(1));
    EXPECT_GT(host.Output().GetDroppedSendCount(), 1u);
    EXPECT_EQ(log.CountStartingWith("[ERROR]"), 1u);
    EXPECT_EQ(log.CountStartingWith("[ERROR] Sending to MIDI output device \"Stage Left\" failed: "
                                    "Header is not prepared. The period is dropped; later "
                                    "failures are only counted."),
              1u);
    EXPECT_EQ(Packets(device).back(), AllNotesOffMessages());
}

// Unplugged while nothing plays: the host's own sends (panics) are the first to meet the gap. One
// fails; later sends of the host return quietly, and the next run reports the loss.
TEST(PlaybackDevices, ALossFoundByTheHostsOwnSendIsReportedByTheNextRun) {
    std::optional<velt_platform::VirtualMidiOutput> device(std::in_place, "Stage Left");
    velt_platform::VirtualMidiOutput other("Stage Right");
    CapturedLog log;
    LostDevices lost;
    Host host(QuarterNotes(2));
    host.Output().CreateSynthOutput("Stage Left");
    device.reset();
    // The service may take one more packet before it notices; exactly one send fails.
    int failures = 0;
    for (int i = 0; i < 3; ++i) {
        try {
            host.Output().AllNotesOff();
        } catch (const MidiImplementationError&) {
            ++failures;
        }
    }
    EXPECT_EQ(failures, 1);
    EXPECT_TRUE(host.Output().GetSynthIsLost());
    EXPECT_NO_THROW(host.Output().InjectEvents({velt_midi::VoiceEvent(0, 0x80, 0, 60, 0)}));

    host.Play(0);
    ASSERT_TRUE(lost.WaitFor(1, 20s));
    ASSERT_TRUE(host.WaitForStops(1));
    EXPECT_EQ(lost.Values(), std::vector<std::string>{"Stage Left"});
    EXPECT_EQ(log.CountStartingWith(kStageLeftGone), 1u);
    EXPECT_TRUE(other.Messages().empty());
}
