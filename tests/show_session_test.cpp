// The show session played as a performer plays it, into a virtual device: straight through, with
// a stop and resume, a jump while playing, a transposition and a mute mid-song, and a caesura.
// Whatever happens, what the device received leaves no note sounding by note-offs alone (some
// synths ignore controller 123), and the song's events arrive as the changes say.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "apps/show_session.h"
#include "midi/velt_midi_error.h"
#include "platform/virtual_midi.h"
#include "velt_core/song_builder.h"

namespace {

using namespace std::chrono_literals;
using velt_play::PlayState;
using velt_play::SessionSong;
using velt_play::ShowSession;
using Message = std::vector<std::uint8_t>;

constexpr std::uint32_t bar = 1920;  // 4/4 at 480 ticks per quarter

// Eight bars at 960 quarter notes a minute (two seconds): a melody of half notes tied over the
// bar lines on channel 0, a bass of whole notes on channel 1, a trill on channel 2, a caesura
// marker in bar 7. Every
// note ends by the song's last tick, so the song itself leaves nothing sounding.
std::shared_ptr<velt_midi::SongData> TestSong(bool withCaesura = false) {
    velt_core::SongBuilder song("Tied", 480);
    song.Tempo(0, 960).Meter(0, 4, 4).Bars(8);
    song.Track(0x00, "Melody", 0, {0, 127}).Track(0x01, "Bass", 32, {0, 127});
    for (std::uint32_t tick = 0; tick + 1440 <= 8 * bar; tick += 960) {
        song.Note(0x00, tick + 480, static_cast<std::uint8_t>(60 + tick / 960 % 12), 90, 960);
    }
    for (std::uint32_t tick = 0; tick < 8 * bar; tick += bar) {
        song.Note(0x01, tick, static_cast<std::uint8_t>(36 + tick / bar), 90, bar);
    }
    // A trill of one note per MIDI clock: whenever playback jumps or stops, the note the device
    // last struck has its note-off in a period already filled but not yet sent.
    song.Track(0x02, "Trill", 0, {0, 127});
    for (std::uint32_t tick = 0; tick < 8 * bar; tick += 20) {
        song.Note(0x02, tick, static_cast<std::uint8_t>(tick % 40 == 0 ? 84 : 86), 60, 20);
    }
    if (withCaesura) {
        song.Marker(6 * bar + 480, "Caesura");
    }
    return song.Build();
}

struct Fixture {
    explicit Fixture(std::shared_ptr<velt_midi::SongData> song) {
        show->AddSong(song);
        session = std::make_unique<ShowSession>(
            std::vector<SessionSong>{{song->GetSongName(), song, ""}}, show,
            velt_play::SessionOptions{velt_play::ClockKind::precision, "Session Test Out", {}});
        // The display follows each downbeat at once: these songs click faster than the delay.
        while (session->Output().GetGuiDelay() > 0)
            session->DecreaseDisplayDelay();
    }
    std::vector<Message> Heard() const {
        std::vector<Message> messages;
        for (const auto& message : device.Messages())
            messages.push_back(message.bytes);
        return messages;
    }
    velt_platform::VirtualMidiOutput device{"Session Test Out"};
    std::shared_ptr<pv::ParvelShowData> show = std::make_shared<pv::ParvelShowData>();
    std::unique_ptr<ShowSession> session;
};

// Notes (channel << 8 | key) still sounding on an instrument that ignores controllers and
// counts: each note-on adds a voice, each note-off takes one away.
std::set<int> Sounding(const std::vector<Message>& messages) {
    std::map<int, int> voices;
    for (const auto& m : messages) {
        const int kind = m[0] & 0xF0;
        const int key = ((m[0] & 0x0F) << 8) | m[1];
        if (kind == 0x90 && m[2] > 0)
            ++voices[key];
        else if ((kind == 0x80 || kind == 0x90) && voices[key] > 0)
            --voices[key];
    }
    std::set<int> held;
    for (const auto& [key, count] : voices)
        if (count > 0)
            held.insert(key);
    return held;
}

std::vector<Message> NoteOns(const std::vector<Message>& messages) {
    std::vector<Message> ons;
    std::copy_if(messages.begin(), messages.end(), std::back_inserter(ons),
                 [](const Message& m) { return (m[0] & 0xF0) == 0x90 && m[2] > 0; });
    return ons;
}

// What the device received before the song's final controller resets: the song's own messages
// must already have released every note by then.
std::vector<Message> BeforeFinalResets(const std::vector<Message>& messages) {
    const Message first{0xB0, 123, 0};
    const auto last = std::find(messages.rbegin(), messages.rend(), first);
    return {messages.begin(), last == messages.rend() ? messages.end() : std::prev(last.base())};
}

void WaitForBar(ShowSession& session, int bar) {
    for (int i = 0; i < 2000 && session.Status().bar < bar; ++i)
        std::this_thread::sleep_for(5ms);
    ASSERT_GE(session.Status().bar, bar);
}

}  // namespace

TEST(ShowSession, PlaysASongStraightThroughAndEndsWithNothingSounding) {
    auto song = TestSong();
    Fixture f(song);
    f.session->Play();
    ASSERT_TRUE(f.session->WaitUntilNotPlaying(20s));
    EXPECT_EQ(f.session->Status().state, PlayState::ended);
    const auto heard = f.Heard();
    EXPECT_TRUE(Sounding(BeforeFinalResets(heard)).empty());
    std::vector<Message> expected;
    for (std::uint32_t tick = 0; tick < 8 * bar; tick += 480) {
        if (tick % bar == 0)
            expected.push_back({0x91, static_cast<std::uint8_t>(36 + tick / bar), 90});
        if (tick % 960 == 480 && tick + 960 <= 8 * bar)
            expected.push_back({0x90, static_cast<std::uint8_t>(60 + tick / 960 % 12), 90});
    }
    auto ons = NoteOns(heard);
    std::erase_if(ons, [](const Message& m) { return m[0] == 0x92; });
    EXPECT_EQ(ons, expected);
}

TEST(ShowSession, StopReleasesEveryHeldNoteAndResumeStrikesWhatSoundsThere) {
    Fixture f(TestSong());
    f.session->Play();
    WaitForBar(*f.session, 3);
    f.session->Stop();
    EXPECT_EQ(f.session->Status().state, PlayState::stopped);
    const auto atStop = f.Heard();
    EXPECT_TRUE(Sounding(atStop).empty());
    // After the stop's note-offs the resets follow: controller 123 and 121 on every channel.
    EXPECT_EQ(atStop.back(), (Message{0xBF, 121, 0}));

    f.device.ClearMessages();
    f.session->Resume();
    std::this_thread::sleep_for(100ms);
    // The notes held where it stopped, one of each track, sound again at once.
    const auto resumed = NoteOns(f.Heard());
    ASSERT_GE(resumed.size(), 3u);
    EXPECT_EQ(std::set<int>({resumed[0][0], resumed[1][0], resumed[2][0]}),
              std::set<int>({0x90, 0x91, 0x92}));
    ASSERT_TRUE(f.session->WaitUntilNotPlaying(20s));
    EXPECT_TRUE(Sounding(f.Heard()).empty());
}

TEST(ShowSession, PlayingUntilABarStopsBeforeTheNextBarSoundsAndResumePlaysOnFromThere) {
    Fixture f(TestSong());
    EXPECT_THROW(f.session->PlayUntilBar(10), std::out_of_range);
    f.session->SeekToBar(2);
    f.session->PlayUntilBar(3);
    ASSERT_TRUE(f.session->WaitUntilNotPlaying(20s));
    const auto status = f.session->Status();
    EXPECT_EQ(status.state, PlayState::stopped);
    EXPECT_EQ(status.bar, 3);
    const auto heard = f.Heard();
    EXPECT_TRUE(Sounding(heard).empty());
    EXPECT_EQ(heard.back(), (Message{0xBF, 121, 0}));
    // The bass of bars 2 and 3 sounded, nothing of bar 4: not even the trill's note on its first
    // tick, which the ring had filled ahead.
    const auto count = [](const std::vector<Message>& messages, const Message& message) {
        return std::count(messages.begin(), messages.end(), message);
    };
    auto ons = NoteOns(heard);
    EXPECT_EQ(count(ons, {0x91, 37, 90}), 1);
    EXPECT_EQ(count(ons, {0x91, 38, 90}), 1);
    EXPECT_EQ(count(ons, {0x91, 39, 90}), 0);
    std::erase_if(ons, [](const Message& m) { return m[0] != 0x92; });
    EXPECT_EQ(ons.back(), (Message{0x92, 86, 60}));

    f.device.ClearMessages();
    f.session->Resume();  // the limit was reached: on to the song's end
    ASSERT_TRUE(f.session->WaitUntilNotPlaying(20s));
    EXPECT_EQ(f.session->Status().state, PlayState::ended);
    const auto resumed = NoteOns(f.Heard());
    EXPECT_EQ(count(resumed, {0x91, 37, 90}), 0);
    EXPECT_EQ(count(resumed, {0x91, 39, 90}), 1);
}

TEST(ShowSession, JumpsTransposesAndMutesMidSongLeaveNothingHanging) {
    Fixture f(TestSong());
    f.session->Play();
    WaitForBar(*f.session, 2);
    f.session->SeekToBar(6);  // forwards, while a note is held over the bar line
    WaitForBar(*f.session, 6);
    f.session->SeekToBar(2);  // and back
    f.session->SetTransposition(3);
    f.session->MuteTrack(0x01);
    WaitForBar(*f.session, 4);
    f.session->UnmuteTrack(0x01);
    f.session->SetTransposition(-2);
    ASSERT_TRUE(f.session->WaitUntilNotPlaying(20s));
    const auto heard = f.Heard();
    EXPECT_TRUE(Sounding(BeforeFinalResets(heard)).empty());
    // The transposed melody was heard: its lowest written note 60 came out as 63 or 58.
    const auto ons = NoteOns(heard);
    EXPECT_TRUE(std::any_of(ons.begin(), ons.end(), [](const Message& m) {
        return m[0] == 0x90 && (m[1] < 60 || m[1] > 71);
    }));
}

TEST(ShowSession, ACaesuraHoldsTheChordUntilThePerformerPlaysOn) {
    Fixture f(TestSong(true));
    EXPECT_EQ(f.session->Status().marker, "");  // no marker is in force before the first
    f.session->Play();
    ASSERT_TRUE(f.session->WaitUntilNotPlaying(20s));
    const auto status = f.session->Status();
    EXPECT_EQ(status.state, PlayState::caesura);
    EXPECT_EQ(status.bar, 7);
    EXPECT_EQ(status.marker, "Caesura");
    EXPECT_FALSE(Sounding(f.Heard()).empty());  // held

    f.session->Resume();
    ASSERT_TRUE(f.session->WaitUntilNotPlaying(20s));
    EXPECT_EQ(f.session->Status().state, PlayState::ended);
    EXPECT_TRUE(Sounding(BeforeFinalResets(f.Heard())).empty());
}

TEST(ShowSession, RefusesWhatAPerformerCannotMean) {
    Fixture f(TestSong());
    EXPECT_THROW(f.session->SelectSong(2), std::out_of_range);
    EXPECT_THROW(f.session->SeekToBar(99), std::out_of_range);
    EXPECT_THROW(f.session->SetTempoScale(std::nan("")), std::out_of_range);
    EXPECT_THROW(f.session->SetTempoScale(2.5), std::out_of_range);
    EXPECT_THROW(f.session->SetTransposition(25), std::out_of_range);
    EXPECT_THROW(f.session->MuteTrack(0x22), std::out_of_range);
    EXPECT_THROW(f.session->ChooseDevice("No Such Device"), MidiDeviceUnavailable);
    EXPECT_EQ(f.session->Status().state, PlayState::cued);
}
