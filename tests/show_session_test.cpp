// The show session played as a performer plays it, into a virtual device: straight through, with
// a stop and resume, a jump while playing, a transposition and a mute mid-song, and a caesura.
// Whatever happens, what the device received leaves no note sounding by note-offs alone (some
// synths ignore controller 123), and the song's events arrive as the changes say.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "apps/show_session.h"
#include "midi/velt_midi_error.h"
#include "platform/virtual_midi.h"
#include "tests/support/captured_log.h"
#include "tests/support/device_packets.h"
#include "tests/support/watchdog.h"
#include "velt_core/song_builder.h"

namespace {

using namespace std::chrono_literals;
using playback::Heard;
using playback::IsNoteOff;
using playback::IsNoteOn;
using playback::Message;
using playback::NoteKey;
using playback::Sounding;
using playback::Voices;
using velt_play::PlayState;
using velt_play::SessionSong;
using velt_play::ShowSession;

constexpr std::uint32_t bar = 1920;  // 4/4 at 480 ticks per quarter

// Eight bars at 960 quarter notes a minute (two seconds): a melody of half notes tied over the
// bar lines on channel 0, a bass of whole notes on channel 1, a trill on channel 2, a caesura
// marker in bar 7. Every
// note ends by the song's last tick, so the song itself leaves nothing sounding.
std::shared_ptr<velt_midi::SongData> TestSong(bool withCaesura = false, int tempo = 960) {
    velt_core::SongBuilder song("Tied", 480);
    song.Tempo(0, tempo).Meter(0, 4, 4).Bars(8);
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
    explicit Fixture(std::shared_ptr<velt_midi::SongData> song,
                     velt_play::ClockKind clock = velt_play::ClockKind::precision) {
        show->AddSong(song);
        session = std::make_unique<ShowSession>(
            std::vector<SessionSong>{{song->GetSongName(), song, ""}}, show,
            velt_play::SessionOptions{clock, "Session Test Out", {}});
        // The display follows each downbeat at once: these songs click faster than the delay.
        while (session->Output().GetGuiDelay() > 0)
            session->DecreaseDisplayDelay();
    }
    std::vector<Message> Heard() const { return playback::Heard(device); }
    velt_platform::VirtualMidiOutput device{"Session Test Out"};
    std::shared_ptr<pv::ParvelShowData> show = std::make_shared<pv::ParvelShowData>();
    std::unique_ptr<ShowSession> session;
};

std::vector<Message> NoteOns(const std::vector<Message>& messages) {
    std::vector<Message> ons;
    std::copy_if(messages.begin(), messages.end(), std::back_inserter(ons),
                 [](const Message& m) { return IsNoteOn(m); });
    return ons;
}

// What the device received before the song's final controller resets: the song's own messages
// must already have released every note by then.
std::vector<Message> BeforeFinalResets(const std::vector<Message>& messages) {
    const Message first{0xB0, 123, 0};
    const auto last = std::find(messages.rbegin(), messages.rend(), first);
    return {messages.begin(), last == messages.rend() ? messages.end() : std::prev(last.base())};
}

// Note-offs that answer no note-on heard before them: the device was never told to play what
// they end, so what should have sounded there was silent.
int Unanswered(const std::vector<Message>& messages) {
    Voices voices;
    int unanswered = 0;
    for (const auto& m : messages) {
        unanswered += IsNoteOff(m) && !voices.Sounds(m) ? 1 : 0;
        voices.Hear(m);
    }
    return unanswered;
}

void WaitForBar(ShowSession& session, int bar) {
    ASSERT_TRUE(Eventually([&] { return session.Status().bar >= bar; })) << "bar " << bar;
}

}  // namespace

TEST(ShowSession, PlaysASongStraightThroughAndEndsWithNothingSounding) {
    auto song = TestSong();
    Fixture f(song);
    f.session->Play();
    ASSERT_TRUE(f.session->WaitUntilNotPlaying(20s));
    const auto status = f.session->Status();
    EXPECT_EQ(status.state, PlayState::ended);
    // The display rests on the last beat of the last bar, not on the bar line after it.
    EXPECT_EQ(std::make_pair(status.bar, status.beat), std::make_pair(8, 4));
    EXPECT_EQ(status.clicksToEnd, 0);
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

// A jump while playing, to the bar already playing: the bass note of that bar sounds on both
// sides of the jump, and must go on sounding until the song's own note-off for it, however the
// output dropped what it had queued for the old position.
TEST(ShowSession, AJumpWhilePlayingSoundsWhatTheSongHoldsWhereItLands) {
    for (const auto clock : {velt_play::ClockKind::precision, velt_play::ClockKind::standard}) {
        SCOPED_TRACE(clock == velt_play::ClockKind::precision ? "exact timing" : "clock timing");
        Fixture f(TestSong(false, 240), clock);
        f.session->Play();
        WaitForBar(*f.session, 3);
        const std::size_t mark = f.device.Messages().size();
        f.session->SeekToBar(3);
        ASSERT_TRUE(f.session->WaitUntilNotPlaying(30s));
        const auto messages = f.device.Messages();
        std::vector<Message> before;
        for (std::size_t i = 0; i < messages.size(); ++i) {
            const Message& m = messages[i].bytes;
            const bool songsOwnOff = i >= mark && messages[i].packet && m.size() == 3 &&
                                     m[1] == 38 && (m[0] == 0x81 || (m[0] == 0x91 && m[2] == 0));
            if (songsOwnOff)
                break;
            before.push_back(m);
        }
        EXPECT_TRUE(Sounding(before).contains(1 << 8 | 38));
    }
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
    const auto held = Sounding(f.Heard());
    ASSERT_TRUE(std::any_of(held.begin(), held.end(), [](int key) { return key >> 8 == 1; }));

    // Tracks muted while the chord is held fall silent at once; the rest of the chord holds. The
    // trill's note is the one the device last struck, not the one the stream reached in the
    // periods it filled ahead.
    f.session->MuteTrack(0x01);
    f.session->MuteTrack(0x02);
    const auto after = Sounding(f.Heard());
    EXPECT_TRUE(std::none_of(after.begin(), after.end(), [](int key) { return key >> 8 != 0; }));
    EXPECT_TRUE(std::any_of(after.begin(), after.end(), [](int key) { return key >> 8 == 0; }));

    // The bass unmuted during the hold sounds its bar-7 note again as the music goes on.
    f.session->UnmuteTrack(0x01);
    const std::size_t beforeResume = f.Heard().size();
    f.session->Resume();
    ASSERT_TRUE(f.session->WaitUntilNotPlaying(20s));
    EXPECT_EQ(f.session->Status().state, PlayState::ended);
    const auto heard = f.Heard();
    EXPECT_NE(std::find(heard.begin() + static_cast<std::ptrdiff_t>(beforeResume), heard.end(),
                        Message{0x91, 36 + 6, 90}),
              heard.end());
    EXPECT_TRUE(Sounding(BeforeFinalResets(heard)).empty());
}

// A mute's releases ride on the next period filled, and the ring fills periods ahead of the
// device. A mute just before a caesura lands on a period past it, which is never sent: the held
// chord must still lose the muted track.
TEST(ShowSession, AMuteJustBeforeACaesuraSilencesTheTrackThroughTheHold) {
    Fixture f(TestSong(true, 240));  // a clock period is 10 ms: the ring runs 40 ms ahead
    constexpr std::uint32_t caesura = 6 * bar + 480;
    std::mutex mutex;
    std::condition_variable near;
    bool isNear = false;
    velt_play::TransportHooks hooks;
    hooks.periodSent = [&](std::uint32_t tick, double) {
        if (tick == caesura - 3 * 20) {
            std::scoped_lock lock(mutex);
            isNear = true;
            near.notify_all();
        }
    };
    f.session->SetTransportHooks(std::move(hooks));
    f.session->SeekToBar(6);
    f.session->Play();
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(near.wait_for(lock, 10s, [&] { return isNear; }));
    }
    f.session->MuteTrack(0x01);
    ASSERT_TRUE(f.session->WaitUntilNotPlaying(20s));
    ASSERT_EQ(f.session->Status().state, PlayState::caesura);
    const auto held = Sounding(f.Heard());
    EXPECT_TRUE(std::none_of(held.begin(), held.end(), [](int key) { return key >> 8 == 1; }));
    EXPECT_TRUE(std::any_of(held.begin(), held.end(), [](int key) { return key >> 8 == 0; }));
    f.session->Resume();
    ASSERT_TRUE(f.session->WaitUntilNotPlaying(20s));
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
    EXPECT_THROW(f.session->ConductBeat(), std::logic_error);  // the clock runs by itself
    EXPECT_EQ(f.session->Status().state, PlayState::cued);
}

// An attacca: the first song's end runs straight into the second, which plays whole from its
// start; used up by that end, so the second song simply ends. Nothing is left sounding between
// them or after.
TEST(ShowSession, AnAttaccaPlaysTheNextSongFromItsStartAsTheSongEnds) {
    const auto song = [](const char* name, std::uint8_t key) {
        velt_core::SongBuilder builder(name, 480);
        builder.Tempo(0, 960).Meter(0, 4, 4).Bars(2).Track(0x00, "Tune", 0, {0, 127});
        for (std::uint32_t tick = 0; tick < 2 * bar; tick += 480)
            builder.Note(0x00, tick, static_cast<std::uint8_t>(key + tick / 480), 90, 720);
        return builder.Build();
    };
    velt_platform::VirtualMidiOutput device{"Session Test Out"};
    auto show = std::make_shared<pv::ParvelShowData>();
    std::vector<SessionSong> songs;
    for (const auto& data : {song("First", 60), song("Second", 72)}) {
        show->AddSong(data);
        songs.push_back({data->GetSongName(), data, ""});
    }
    ShowSession session(songs, show, {velt_play::ClockKind::precision, "Session Test Out", {}});
    // What a watcher sees as each song is located: the second song is never shown ended before
    // it has played, which would end a wait for it at once.
    std::vector<std::pair<int, PlayState>> shownAtLocate;
    velt_play::TransportHooks hooks;
    hooks.located = [&](const velt_midi::SongData&, std::uint32_t) {
        const auto status = session.Status();
        shownAtLocate.emplace_back(status.songNumber, status.state);
    };
    session.SetTransportHooks(std::move(hooks));
    session.Play();
    session.SetAttacca(true);
    EXPECT_TRUE(session.Status().attacca);
    ASSERT_TRUE(Eventually([&] {
        const auto status = session.Status();
        return status.songNumber == 2 && status.state == PlayState::ended;
    }));
    EXPECT_FALSE(session.Status().attacca);
    for (const auto& [number, state] : shownAtLocate)
        EXPECT_FALSE(number == 2 && state == PlayState::ended);
    const auto heard = Heard(device);
    std::vector<std::uint8_t> keys;
    for (const auto& on : NoteOns(heard))
        keys.push_back(on[1]);
    EXPECT_EQ(keys, (std::vector<std::uint8_t>{60, 61, 62, 63, 64, 65, 66, 67, 72, 73, 74, 75, 76,
                                               77, 78, 79}));
    EXPECT_TRUE(Sounding(heard).empty());
}

// The performer's tempo scale is heard at once, not at the score's next tempo event (this song
// has one tempo only): the clock period after the one already timed when the verb returns is
// sent at the new tempo, and every earlier period at the old one. The tempo the clock reports
// with each period (clicks per minute) is kept by the output for the period's tick.
TEST(ShowSession, ATempoScaleReachesTheRunningClockWithinOneClock) {
    Fixture f(TestSong());
    MidiOutputWin32& output = f.session->Output();
    const auto bpmAt = [&output](std::uint32_t tick) {
        double bpm = 0;
        return output.GetBpmAtTickIndex(tick, &bpm) ? bpm : -1.0;
    };
    constexpr std::uint32_t clock = 20;  // 480 ticks per quarter
    f.session->Play();
    WaitForBar(*f.session, 2);
    const std::uint32_t before = output.GetTickIndex();
    f.session->SetTempoScale(0.5);
    const std::uint32_t after = output.GetTickIndex();
    for (int i = 0; i < 2000 && output.GetTickIndex() < after + 4 * clock; ++i)
        std::this_thread::sleep_for(1ms);
    f.session->Stop();
    ASSERT_GE(output.GetTickIndex(), after + 4 * clock);
    for (std::uint32_t tick = 0; tick <= before; tick += clock)
        ASSERT_DOUBLE_EQ(bpmAt(tick), 960.0) << tick;
    for (std::uint32_t tick = after + 2 * clock; tick <= after + 4 * clock; tick += clock)
        EXPECT_DOUBLE_EQ(bpmAt(tick), 480.0) << tick;
    EXPECT_DOUBLE_EQ(f.session->Status().tempoScale, 0.5);
}

// Early in a bar, with the bass's whole note held: a transposition sends
// each held note's note-off at the pitch it was struck with (a note-off at the new pitch would
// leave the old one sounding) and strikes the bass again at the new pitch; a mute then releases
// the track's held note at once, and the track stays silent.
TEST(ShowSession, ATranspositionReleasesHeldNotesAtTheirOldPitchAndAMuteReleasesTheTrack) {
    Fixture f(TestSong());
    MidiOutputWin32& output = f.session->Output();
    const auto afterClocks = [&output](int clocks) {
        const std::uint32_t until = output.GetTickIndex() + 20 * static_cast<std::uint32_t>(clocks);
        for (int i = 0; i < 2000 && output.GetTickIndex() < until; ++i)
            std::this_thread::sleep_for(1ms);
        ASSERT_GE(output.GetTickIndex(), until);
    };
    const auto releases = [](const std::vector<Message>& messages, std::size_t from, int key) {
        return std::any_of(messages.begin() + static_cast<long>(from), messages.end(),
                           [key](const Message& m) { return IsNoteOff(m) && NoteKey(m) == key; });
    };
    // The ring of four buffers is filled ahead of the one sent: a change is heard from the first
    // period filled after it.
    constexpr int ringAhead = 6;
    f.session->Play();
    WaitForBar(*f.session, 2);
    const auto beforeTransposing = f.Heard();
    const std::set<int> held = Sounding(beforeTransposing);
    ASSERT_TRUE(held.contains((1 << 8) | 37)) << "the bass of bar 2";
    f.session->SetTransposition(5);
    afterClocks(ringAhead);
    auto heard = f.Heard();
    for (const int key : held)
        EXPECT_TRUE(releases(heard, beforeTransposing.size(), key)) << key;
    const auto struck =
        NoteOns({heard.begin() + static_cast<long>(beforeTransposing.size()), heard.end()});
    EXPECT_NE(std::find(struck.begin(), struck.end(), Message{0x91, 37 + 5, 90}), struck.end());

    const std::size_t beforeMuting = heard.size();
    f.session->MuteTrack(0x01);
    afterClocks(ringAhead);
    heard = f.Heard();
    EXPECT_TRUE(releases(heard, beforeMuting, (1 << 8) | (37 + 5)));
    WaitForBar(*f.session, 4);
    f.session->Stop();
    heard = f.Heard();
    const auto laterOns = NoteOns({heard.begin() + static_cast<long>(beforeMuting), heard.end()});
    EXPECT_TRUE(std::none_of(laterOns.begin(), laterOns.end(),
                             [](const Message& m) { return m[0] == 0x91; }));
    EXPECT_TRUE(Sounding(heard).empty());
}

TEST(ShowSession, AConductedSongPlaysOnlyTheClicksBeatenAndStopsAsAnyOther) {
    Fixture f(TestSong(), velt_play::ClockKind::conducted);
    // The trill strikes a note on every clock: a click is 24 of them. The melody strikes a note
    // at the start of every second click from the second on.
    const auto trills = [&] {
        const auto ons = NoteOns(f.Heard());
        return std::count_if(ons.begin(), ons.end(), [](const Message& m) { return m[0] == 0x92; });
    };
    const auto waitForTrills = [&](long count) {
        for (int i = 0; i < 2000 && trills() < count; ++i)
            std::this_thread::sleep_for(5ms);
        ASSERT_GE(trills(), count);
        // However long the clock is given, it waits for the next beat there.
        std::this_thread::sleep_for(200ms);
    };
    const auto heard = [&](const Message& message) {
        const auto ons = NoteOns(f.Heard());
        return std::find(ons.begin(), ons.end(), message) != ons.end();
    };

    f.session->ConductBeat();  // plays, and starts the first click
    EXPECT_EQ(f.session->Status().state, PlayState::playing);
    waitForTrills(24);
    EXPECT_EQ(trills(), 24);
    EXPECT_FALSE(heard({0x90, 60, 90}));
    EXPECT_EQ(f.session->Status().followedTempo, 0.0);  // no interval yet

    f.session->ConductBeat();
    waitForTrills(48);
    EXPECT_EQ(trills(), 48);
    EXPECT_TRUE(heard({0x90, 60, 90}));
    EXPECT_GT(f.session->Status().followedTempo, 0.0);

    f.session->Stop();
    EXPECT_EQ(f.session->Status().state, PlayState::stopped);
    EXPECT_TRUE(Sounding(f.Heard()).empty());
    // A beat after the stop plays on from there, one click: the third, not the fourth.
    f.session->ConductBeat();
    waitForTrills(72);
    EXPECT_FALSE(heard({0x90, 61, 90}));
    f.session->Stop();
    EXPECT_TRUE(Sounding(f.Heard()).empty());
}

// The device is unplugged mid-song and comes back during the next song. Meanwhile the show keeps
// its time and a stop works; nothing goes to the other device, now the first listed; once the
// device is listed again under its name it plays on, with what sounds at that point struck again.
TEST(ShowSession, ALostDeviceIsAwaitedByNameAndPlaysOnWithWhatSoundsStruckAgain) {
    const std::string name = "Session Lost Out";
    std::optional<velt_platform::VirtualMidiOutput> device(std::in_place, name);
    velt_platform::VirtualMidiOutput other{"Session Other Out"};
    auto song = TestSong(false, 240);  // a bar a second
    auto next = TestSong(false, 240);
    next->GetSongLog().SetSongName("Tied Again");
    auto show = std::make_shared<pv::ParvelShowData>();
    show->AddSong(song);
    show->AddSong(next);
    ShowSession session({{"Tied", song, ""}, {"Tied Again", next, ""}}, show,
                        velt_play::SessionOptions{velt_play::ClockKind::precision, name, {}});
    while (session.Output().GetGuiDelay() > 0)
        session.DecreaseDisplayDelay();

    session.Play();
    WaitForBar(session, 2);
    device.reset();
    ASSERT_TRUE(Eventually([&] { return session.Status().deviceLost; }));
    EXPECT_NO_THROW(session.Stop());
    EXPECT_EQ(session.Status().state, PlayState::stopped);

    session.NextSong();
    session.Play();
    WaitForBar(session, 3);
    device.emplace(name);
    ASSERT_TRUE(Eventually([&] { return !device->Messages().empty(); }));
    EXPECT_FALSE(session.Status().deviceLost);
    EXPECT_EQ(session.Status().device, name);
    ASSERT_TRUE(session.WaitUntilNotPlaying(30s));
    EXPECT_EQ(session.Status().state, PlayState::ended);

    const auto heard = Heard(*device);
    EXPECT_EQ(Unanswered(heard), 0);
    EXPECT_TRUE(Sounding(BeforeFinalResets(heard)).empty());
    const auto ons = NoteOns(heard);
    EXPECT_TRUE(std::any_of(ons.begin(), ons.end(), [](const Message& m) { return m[0] == 0x91; }));
    EXPECT_TRUE(other.Messages().empty());
}

// The performer does not wait for the lost device and chooses another mid-song: that one holds
// nothing yet, so what sounds there is struck on it before the music goes on.
TEST(ShowSession, ADeviceChosenInPlaceOfALostOneHasWhatSoundsStruck) {
    std::optional<velt_platform::VirtualMidiOutput> device(std::in_place, "Session Lost Out");
    velt_platform::VirtualMidiOutput spare{"Session Spare Out"};
    auto song = TestSong(false, 480);
    auto show = std::make_shared<pv::ParvelShowData>();
    show->AddSong(song);
    ShowSession session(
        {{"Tied", song, ""}}, show,
        velt_play::SessionOptions{velt_play::ClockKind::precision, "Session Lost Out", {}});
    session.Play();
    device.reset();
    ASSERT_TRUE(Eventually([&] { return session.Status().deviceLost; }));
    session.ChooseDevice("Session Spare Out");
    EXPECT_FALSE(session.Status().deviceLost);
    ASSERT_TRUE(session.WaitUntilNotPlaying(30s));

    const auto heard = Heard(spare);
    EXPECT_EQ(Unanswered(heard), 0);
    EXPECT_TRUE(Sounding(BeforeFinalResets(heard)).empty());
}

// Faults of the device and of the clock thread: the song is still heard whole and nothing is left
// sounding.
TEST(ShowSession, ADeviceThatAnswersLateAndAStalledClockStillPlayTheSongWhole) {
    auto song = TestSong();
    const auto straight = [&] {
        Fixture f(song);
        f.session->Play();
        EXPECT_TRUE(f.session->WaitUntilNotPlaying(20s));
        return NoteOns(f.Heard());
    }();
    ASSERT_FALSE(straight.empty());

    struct Fault {
        const char* what;
        std::function<void(Fixture&)> plant;
    };
    const std::vector<Fault> faults{
        {"a device that hands packets back later than a clock period for a bar",
         [](Fixture& f) {
             // From bar 3 to bar 4: long enough for the clock to fall behind its grid.
             f.session->SetTransportHooks({{},
                                           {},
                                           [&device = f.device](std::uint32_t tick, double) {
                                               if (tick == 2 * bar)
                                                   device.SetCompletionDelay(10ms);
                                               else if (tick == 3 * bar)
                                                   device.SetCompletionDelay(0ms);
                                           },
                                           {}});
         }},
        {"a clock thread stalled for a tenth of a second in bar 3",
         [](Fixture& f) {
             f.session->SetTransportHooks({{},
                                           {},
                                           [stalled = false](std::uint32_t tick, double) mutable {
                                               if (!stalled && tick >= 2 * bar) {
                                                   stalled = true;
                                                   std::this_thread::sleep_for(100ms);
                                               }
                                           },
                                           {}});
         }},
    };
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.what);
        std::vector<Message> heard;
        {
            Fixture f(song);
            fault.plant(f);
            f.session->Play();
            ASSERT_TRUE(f.session->WaitUntilNotPlaying(60s));
            EXPECT_EQ(f.session->Status().state, PlayState::ended);
            heard = f.Heard();
        }
        EXPECT_EQ(NoteOns(heard), straight);
        EXPECT_TRUE(Sounding(BeforeFinalResets(heard)).empty());
        EXPECT_EQ(Unanswered(heard), 0);
    }
}

// A device that takes packets and never hands one back: each send step waits out its limit on
// the packets while the clock, ever further behind, asks for the next step at once. The log says
// what became of the packets, the display is not held up, and the performer can still stop, or
// move the show to another device where it plays on to its end.
TEST(ShowSession, ADeviceThatNeverAnswersIsReportedAndCanBeStoppedOrLeft) {
    for (const auto clock : {velt_play::ClockKind::precision, velt_play::ClockKind::standard}) {
        for (const bool leave : {false, true}) {
            SCOPED_TRACE(std::string(clock == velt_play::ClockKind::precision ? "exact timing"
                                                                              : "clock timing") +
                         (leave ? ", moved to a spare device" : ", stopped"));
            CapturedLog log;
            velt_platform::VirtualMidiOutput spare{"Session Spare Out"};
            {
                Fixture f(TestSong(false, 480), clock);
                f.session->Play();
                WaitForBar(*f.session, 2);
                f.device.LoseNextCompletions(1'000'000);
                // Long enough for a packet to be given up on and the clock to fall behind.
                std::this_thread::sleep_for(4s);
                const auto asked = std::chrono::steady_clock::now();
                {
                    Watchdog watchdog("a status of a show whose device never answers", 60s);
                    EXPECT_EQ(f.session->Status().device, "Session Test Out");
                }
                EXPECT_LT(std::chrono::steady_clock::now() - asked, 1s);
                {
                    Watchdog watchdog("leaving a device that never answers", 60s);
                    leave ? f.session->ChooseDevice("Session Spare Out") : f.session->Stop();
                }
                // Packets already handed over still get their 3 s each: the step under way's, the
                // one the refill waits for, the stop's own note-offs. No later step adds to it.
                EXPECT_LT(std::chrono::steady_clock::now() - asked, 13s);
                if (leave) {
                    ASSERT_TRUE(f.session->WaitUntilNotPlaying(60s));
                    EXPECT_EQ(f.session->Status().state, PlayState::ended);
                    const auto heard = Heard(spare);
                    EXPECT_GT(NoteOns(heard).size(), 20u);
                    EXPECT_TRUE(Sounding(heard).empty());
                } else {
                    EXPECT_EQ(f.session->Status().state, PlayState::stopped);
                }
            }
            const auto& lines = log.Lines();
            EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
                return line.find(
                           "midiStreamOutDone_ timed out without receiving a mom done "
                           "message.") != std::string::npos;
            }));
        }
    }
}
