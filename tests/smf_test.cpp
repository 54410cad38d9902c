// Standard MIDI File reader and writer: byte layouts, error offsets, tolerated damage, and the
// round trip song -> file -> song.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/captured_log.h"
#include "tests/support/temp_folder.h"
#include "velt_core/show_loader.h"
#include "velt_core/smf_reader.h"
#include "velt_core/smf_writer.h"
#include "velt_core/song_builder.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using velt_core::ParseSmf;
using velt_core::SmfError;
using velt_core::SmfEvent;

// Big-endian fields: the header's format, track count and division (16 bits each), a chunk's
// length (32 bits).
void AppendBigEndian(Bytes& out, std::uint32_t value, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
        out.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

Bytes Header(std::uint16_t format, std::uint16_t tracks, std::uint16_t division) {
    Bytes out = {'M', 'T', 'h', 'd', 0, 0, 0, 6};
    for (std::uint16_t field : {format, tracks, division}) {
        AppendBigEndian(out, field, 2);
    }
    return out;
}

// A track chunk around `body`, whose length field is the body's size plus `lengthDelta`.
Bytes Track(const Bytes& body, int lengthDelta = 0) {
    Bytes out = {'M', 'T', 'r', 'k'};
    AppendBigEndian(out, static_cast<std::uint32_t>(static_cast<int>(body.size()) + lengthDelta),
                    4);
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

const Bytes endOfTrack = {0x00, 0xFF, 0x2F, 0x00};

// A format 1 file at 96 ticks per quarter with one track around `body`.
Bytes OneTrack(const Bytes& body) {
    return Concat({Header(1, 1, 96), Track(body)});
}

// Expects ParseSmf to throw an SmfError at `offset` whose text contains `text`.
void ExpectError(const Bytes& bytes, std::size_t offset, const std::string& text) {
    try {
        ParseSmf(bytes, "bad.mid");
        ADD_FAILURE() << "no error, expected: " << text;
    } catch (const SmfError& e) {
        ASSERT_TRUE(e.Offset().has_value()) << e.what();
        EXPECT_EQ(*e.Offset(), offset) << e.what();
        const std::string what = e.what();
        EXPECT_EQ(what.rfind("bad.mid: byte " + std::to_string(offset) + ": ", 0), 0u) << what;
        EXPECT_NE(what.find(text), std::string::npos) << what;
    }
}

TEST(SmfReader, ReadsRunningStatusSysExMetaAndAbsoluteTicks) {
    const Bytes body = {0x00, 0xFF, 0x51, 0x03, 0x07, 0xA1, 0x20,  // tempo 500000
                        0x00, 0x91, 0x3C, 0x64,                    // note on ch 1
                        0x81, 0x00, 0x3E, 0x50,              // delta 128, running status note on
                        0x60, 0xC1, 0x05,                    // program change: one data byte
                        0x00, 0xF0, 0x03, 0x7E, 0x7F, 0xF7,  // SysEx of three bytes
                        0x10, 0xE1, 0x00, 0x40,              // pitch bend
                        0x00, 0xFF, 0x2F, 0x00};
    const auto file = ParseSmf(Concat({Header(0, 1, 96), Track(body)}), "ok.mid");
    EXPECT_EQ(file.format, 0);
    EXPECT_EQ(file.ticksPerQuarter, 96);
    EXPECT_TRUE(file.warnings.empty());
    ASSERT_EQ(file.tracks.size(), 1u);
    const auto& events = file.tracks[0].events;
    ASSERT_EQ(events.size(), 6u);
    EXPECT_TRUE(events[0].IsMeta(velt_core::smf_meta::tempo));
    EXPECT_EQ(events[0].bytes, (Bytes{0x07, 0xA1, 0x20}));
    EXPECT_EQ(events[2], SmfEvent::Channel(128, 0x91, 0x3E, 0x50));
    EXPECT_EQ(events[3], SmfEvent::Channel(224, 0xC1, 0x05));
    EXPECT_EQ(events[4].status, 0xF0);
    EXPECT_EQ(events[4].bytes, (Bytes{0x7E, 0x7F, 0xF7}));
    EXPECT_EQ(events[5], SmfEvent::Channel(240, 0xE1, 0x00, 0x40));
    EXPECT_EQ(file.tracks[0].endTick, 240u);
}

TEST(SmfReader, RefusesBadInputNamingTheByteOffset) {
    const Bytes track = Track(endOfTrack);
    ExpectError({}, 0, "missing header");
    ExpectError(Concat({Bytes{'R', 'I', 'F', 'F'}, Header(1, 1, 96)}), 0, "missing header");
    Bytes shortHeader = Concat({Header(1, 1, 96), track});
    shortHeader[7] = 5;
    ExpectError(shortHeader, 4, "shorter than 6");
    ExpectError(Concat({Header(2, 1, 96), track}), 8, "format 2");
    ExpectError(Concat({Header(3, 1, 96), track}), 8, "unknown format 3");
    ExpectError(Concat({Header(1, 1, 0xE728), track}), 12, "SMPTE");
    ExpectError(Concat({Header(1, 1, 0), track}), 12, "0 ticks per quarter");
    // Chunk length one past the end: the offset is that of the length field.
    ExpectError(Concat({Header(1, 1, 96), Track(endOfTrack, 1)}), 18, "runs past the end");
    // Five-byte delta time, starting at the first byte of the track body (22).
    ExpectError(OneTrack({0x81, 0x80, 0x80, 0x80, 0x00, 0x90, 60, 1}), 22, "more than four bytes");
    // Meta length past the end of its chunk: offset of the length byte.
    ExpectError(OneTrack({0x00, 0xFF, 0x01, 0x05, 'a', 'b'}), 25,
                "length 5 of a meta event runs past the end of the track chunk (2 bytes left)");
    ExpectError(OneTrack({0x00, 0x3C, 0x40}), 23, "data byte 0x3C without a status byte");
    ExpectError(OneTrack({0x00, 0x90, 0x3C}), 25, "track chunk ends inside a channel message");
    ExpectError(OneTrack({0x00, 0x90, 0x3C, 0x80, 0x3C}), 25,
                "status byte 0x80 where a channel message needs a data byte");
    // Tick overflow: sixteen maximal delta times reach 0xFFFFFFF0, the seventeenth overflows.
    Bytes longTrack;
    for (int i = 0; i < 17; ++i) {
        longTrack.insert(longTrack.end(), {0xFF, 0xFF, 0xFF, 0x7F, 0xFF, 0x01, 0x00});
    }
    ExpectError(OneTrack(longTrack), 22 + 16 * 7, "beyond 4294967295");
}

TEST(SmfReader, ToleratesDamageWhoseMeaningIsClearWithAWarning) {
    // Running status carried over a meta event, a real-time byte and a song position pointer
    // inside the track, no end-of-track, a stray byte after the last chunk, and a header that
    // announces two tracks.
    const Bytes body = {0x00, 0x90, 0x3C, 0x40, 0x00, 0xFF, 0x01, 0x01, 'x',  0x10, 0x3C,
                        0x00, 0x00, 0xF8, 0x00, 0xF2, 0x01, 0x02, 0x00, 0x3E, 0x40};
    const auto file = ParseSmf(Concat({Header(1, 2, 96), Track(body), Bytes{0x2A}}), "t.mid");
    ASSERT_EQ(file.tracks.size(), 1u);
    const auto& events = file.tracks[0].events;
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[2], SmfEvent::Channel(16, 0x90, 0x3C, 0x00));
    EXPECT_EQ(events[3], SmfEvent::Channel(16, 0x90, 0x3E, 0x40));
    // The system messages are counted, not warned of one by one: the mapping reports them.
    const std::vector<std::string> expected = {
        "t.mid: byte 32: running status carried over a meta event or SysEx",
        "t.mid: byte 43: track ends without an end-of-track event",
        "t.mid: byte 43: 1 stray bytes after the last chunk ignored",
        "t.mid: byte 10: header announces 2 tracks, the file holds 1"};
    EXPECT_EQ(file.warnings, expected);
    EXPECT_EQ(file.systemMessages, 2u);
}

// What the engine does not play is reported in one line per file, however many messages: a
// SysEx split into packets (F0 without its closing F7, then F7 continuations) counts once, an F7
// packet of its own (an escape) counts once, and system messages stepped over are added.
TEST(SmfImport, SystemExclusiveAndSystemMessagesAreReportedInOneLinePerFile) {
    const Bytes body = {0x00, 0xF0, 0x03, 0x7E, 0x7F, 0x09,  // first packet of a split SysEx
                        0x10, 0xF7, 0x02, 0x01, 0xF7,        // its last packet
                        0x00, 0xF8,                          // a real-time message
                        0x00, 0xF0, 0x02, 0x43, 0xF7,        // a whole SysEx
                        0x00, 0xF7, 0x03, 0xF0, 0x7E, 0xF7,  // an escape
                        0x00, 0x90, 0x3C, 0x40, 0x00, 0xFF, 0x2F, 0x00};
    const test_support::TempFolder folder;
    const std::string path = folder.Path("sysex.mid");
    test_support::WriteBytes(path, OneTrack(body));
    CapturedLog log;
    const auto song = velt_core::LoadSongFile(path);
    EXPECT_EQ(song.GetVoiceData().at(0).events.size(), 1u);
    EXPECT_EQ(log.Lines(),
              std::vector<std::string>{"WARNING: " + path +
                                       ": 3 System Exclusive messages and 1 system common or "
                                       "real-time message are not played."});
}

TEST(SmfReader, SkipsUnknownChunksAndReadsSeveralFormat0TracksAsFormat1) {
    const Bytes junk = {'J', 'u', 'n', 'k', 0, 0, 0, 3, 1, 2, 3};
    const auto file = ParseSmf(
        Concat({Header(0, 2, 96), junk, Track(endOfTrack), Track({0x05, 0xFF, 0x2F, 0x00})}),
        "f.mid");
    EXPECT_EQ(file.format, 1);
    ASSERT_EQ(file.tracks.size(), 2u);
    EXPECT_EQ(file.tracks[1].endTick, 5u);
    ASSERT_EQ(file.warnings.size(), 1u);
    EXPECT_NE(file.warnings[0].find("format 0 file with several tracks"), std::string::npos);
}

TEST(SmfReader, EveryTruncationOfAValidFileIsAnErrorOrALoadNeverAnythingElse) {
    auto song = velt_core::SongBuilder("Cut", 96)
                    .Meter(0, 3, 4)
                    .Tempo(96, 90)
                    .Track(0x12, "Horn", 60)
                    .ProgramChange(0x12, 0, 60)
                    .Note(0x12, 0, 60, 90, 96)
                    .PitchBend(0x12, 50, 9000)
                    .Marker(96, "Go")
                    .Build();
    const Bytes whole = velt_core::EncodeSmf(velt_core::SmfFromSong(*song));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        try {
            ParseSmf(cut, "cut.mid");
        } catch (const SmfError& e) {
            ASSERT_TRUE(e.Offset().has_value());
            EXPECT_LE(*e.Offset(), size) << e.what();
        }
    }
}

TEST(SmfWriter, WritesTheLayoutTheReaderReadsWithRunningStatusAndVariableLengths) {
    velt_core::SmfFile file;
    file.format = 0;
    file.ticksPerQuarter = 480;
    velt_core::SmfTrack track;
    track.events = {SmfEvent::Channel(0, 0x90, 60, 100), SmfEvent::Channel(127, 0x90, 60, 0),
                    SmfEvent::Channel(255, 0xC0, 7),
                    SmfEvent::MetaText(255 + 0x0FFFFFFF, velt_core::smf_meta::marker, "M")};
    track.endTick = 0;
    file.tracks = {track};
    const Bytes expected =
        Concat({Header(0, 1, 480), Track({0x00, 0x90, 60,   100,  //
                                          0x7F, 60,   0,          // running status
                                          0x81, 0x00, 0xC0, 7,    // 128 = 81 00
                                          0xFF, 0xFF, 0xFF, 0x7F, 0xFF, 0x06, 0x01, 'M',  //
                                          0x00, 0xFF, 0x2F, 0x00})});
    EXPECT_EQ(velt_core::EncodeSmf(file), expected);
    const auto back = ParseSmf(expected, "w.mid");
    EXPECT_EQ(back.tracks[0].events, track.events);

    track.events.push_back(SmfEvent::Channel(255 + 0x0FFFFFFF + 0x10000000, 0x90, 1, 1));
    file.tracks = {track};
    EXPECT_THROW(velt_core::EncodeSmf(file), SmfError);
    file.tracks[0].events = {SmfEvent::Channel(10, 0x90, 1, 1), SmfEvent::Channel(9, 0x80, 1, 1)};
    EXPECT_THROW(velt_core::EncodeSmf(file), SmfError);
}

// What the song model holds, compared field by field (the model types have no equality).
void ExpectSameSong(const velt_midi::SongData& a, const velt_midi::SongData& b) {
    EXPECT_EQ(a.GetSongName(), b.GetSongName());
    EXPECT_EQ(a.GetTicksPerQuarter(), b.GetTicksPerQuarter());
    ASSERT_EQ(a.GetVoiceData().size(), b.GetVoiceData().size());
    for (const auto& [id, track] : a.GetVoiceData()) {
        ASSERT_TRUE(b.GetVoiceData().contains(id)) << id;
        const velt_midi::VoiceTrack& other = b.GetVoiceData().at(id);
        EXPECT_EQ(track->GetTrackName(), other.GetTrackName());
        EXPECT_EQ(track->GetDefaultProgramChange(), other.GetDefaultProgramChange());
        EXPECT_EQ(track->channelIndex, other.channelIndex);
        EXPECT_EQ(track->range, other.range);
        EXPECT_EQ(track->events, other.events) << "track " << id;
    }
    const TL::Timeline& x = a.GetTimeline();
    const TL::Timeline& y = b.GetTimeline();
    EXPECT_EQ(x.lastTickIndex, y.lastTickIndex);
    auto same = [](const auto& p, const auto& q) {
        return std::equal(p.begin(), p.end(), q.begin(), q.end(), [](const auto& r, const auto& s) {
            return std::memcmp(&r, &s, sizeof r) == 0;
        });
    };
    EXPECT_TRUE(same(x.GetTempos(), y.GetTempos()));
    EXPECT_TRUE(same(x.GetMeters(), y.GetMeters()));
    EXPECT_TRUE(same(x.GetKeys(), y.GetKeys()));
    EXPECT_TRUE(same(x.GetBarsBeats(), y.GetBarsBeats()));
    const auto& m = a.GetSongLog().GetMarkers();
    const auto& n = b.GetSongLog().GetMarkers();
    ASSERT_EQ(m.size(), n.size());
    for (std::size_t i = 0; i < m.size(); ++i) {
        EXPECT_EQ(m[i].tick_index, n[i].tick_index);
        EXPECT_EQ(m[i].text, n[i].text);
    }
}

TEST(SmfRoundTrip, ASongWrittenAndReadBackIsTheSameSong) {
    // Ranges and default programs as the reader derives them, so that the file can carry them.
    auto song = velt_core::SongBuilder("Round Trip", 960)
                    .Meter(0, 4, 4)
                    .Meter(3840 * 2, 6, 8)
                    .Tempo(0, 100)
                    .Tempo(5000, 75.5)
                    .Key(0, -3, true)
                    .Key(7680, 4)
                    .Track(0x000, "Violin", 40, {55, 79})
                    .Track(0x019, "Kit", 0, {35, 49})
                    .Track(0x2F3, "Far Port", 5, {60, 60})
                    .ProgramChange(0x000, 0, 40)
                    .Note(0x000, 0, 55, 80, 480)
                    .Note(0x000, 480, 79, 81, 479)
                    .ControlChange(0x000, 960, 11, 99)
                    .PitchBend(0x000, 961, 0)
                    .Event(0x000, 962, 0xA0, 79, 3)
                    .Event(0x000, 963, 0xD0, 44)
                    .Note(0x019, 100, 35, 120, 10)
                    .Note(0x019, 100, 49, 120, 10)
                    .ProgramChange(0x2F3, 0, 5)
                    .ProgramChange(0x2F3, 20, 6)
                    .Note(0x2F3, 9000, 60, 1, 1)
                    .Marker(0, "Top")
                    .Marker(7680, "Bridge")
                    .LastTick(12000)
                    .Build();
    const auto bytes = velt_core::EncodeSmf(velt_core::SmfFromSong(*song));
    const auto file = ParseSmf(bytes, "round.mid");
    EXPECT_TRUE(file.warnings.empty());
    std::vector<std::string> warnings;
    const auto back = velt_core::SongFromSmf(file, "round.mid", warnings);
    EXPECT_TRUE(warnings.empty());
    ExpectSameSong(*song, back);
    // And once more: the file written from the read song is byte for byte the first.
    EXPECT_EQ(velt_core::EncodeSmf(velt_core::SmfFromSong(back)), bytes);
}

}  // namespace
