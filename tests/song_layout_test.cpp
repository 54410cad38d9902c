// The byte layouts the engine reads directly, the tempo arithmetic and the display texts of the
// song model.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <type_traits>

#include "interfaces/song_data.h"

namespace {

TEST(SongLayout, TimelineRecordsHaveTheFieldOrderAndWidthsTheEngineReads) {
    EXPECT_EQ(sizeof(TL::Tempo), 8u);
    EXPECT_EQ(offsetof(TL::Tempo, tick_index), 0u);
    EXPECT_EQ(offsetof(TL::Tempo, microseconds_per_quarter), 4u);

    EXPECT_EQ(sizeof(TL::BarsBeats), 16u);
    EXPECT_EQ(offsetof(TL::BarsBeats, bar), 4u);
    EXPECT_EQ(offsetof(TL::BarsBeats, bar_beat), 8u);
    EXPECT_EQ(offsetof(TL::BarsBeats, beat), 12u);
    EXPECT_TRUE((std::is_same_v<decltype(TL::BarsBeats::beat), std::uint32_t>));

    EXPECT_EQ(sizeof(TL::Meter), 8u);
    EXPECT_EQ(offsetof(TL::Meter, numerator), 4u);
    EXPECT_EQ(offsetof(TL::Meter, denominator), 5u);
    EXPECT_EQ(offsetof(TL::Meter, clocks_per_click), 6u);
    EXPECT_EQ(offsetof(TL::Meter, notated_32nds), 7u);

    EXPECT_EQ(sizeof(TL::Key), 8u);
    EXPECT_EQ(offsetof(TL::Key, sharps_flats), 4u);
    EXPECT_EQ(offsetof(TL::Key, minor), 6u);
    EXPECT_TRUE((std::is_same_v<decltype(TL::Key::sharps_flats), std::int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(TL::Key::minor), std::int16_t>));

    EXPECT_EQ(sizeof(TL::PageNum), 8u);
    EXPECT_EQ(offsetof(TL::PageNum, page), 4u);

    EXPECT_TRUE((std::is_trivially_copyable_v<TL::Tempo> &&
                 std::is_trivially_copyable_v<TL::BarsBeats> &&
                 std::is_trivially_copyable_v<TL::Meter> && std::is_trivially_copyable_v<TL::Key> &&
                 std::is_trivially_copyable_v<TL::PageNum>));
}

TEST(SongLayout, VoiceEventIsEightBytesWithTheTrackIdSplitIntoChannelAndPortAndValidates) {
    using velt_midi::VoiceEvent;
    EXPECT_EQ(sizeof(VoiceEvent), 8u);
    EXPECT_TRUE(std::is_trivially_copyable_v<VoiceEvent>);

    // Track 0x23: port 2, channel 3. A bare kind takes the track's channel.
    VoiceEvent note(0x01020304, 0x90, 0x23, 60, 100);
    unsigned char bytes[8];
    std::memcpy(bytes, &note, sizeof bytes);
    std::uint32_t tick = 0;
    std::memcpy(&tick, bytes, 4);
    EXPECT_EQ(tick, 0x01020304u);
    EXPECT_EQ(bytes[4], 0x93);
    EXPECT_EQ(bytes[5], 60);
    EXPECT_EQ(bytes[6], 100);
    EXPECT_EQ(bytes[7], 2);
    EXPECT_EQ(note.GetTrackId(), 0x23);

    // The highest track id keeps both halves.
    VoiceEvent last(0, 0xB0, 0x0FFF, 7, 64);
    EXPECT_EQ(last.status, 0xBF);
    EXPECT_EQ(last.port, 0xFF);
    EXPECT_EQ(last.GetTrackId(), 0x0FFF);

    // A status that already names a channel keeps it (panic messages are built as 0xB0 | c with
    // track id 0), and system bytes are left alone.
    const VoiceEvent panic(0, 0xB5, 0, 123, 0);
    EXPECT_EQ(panic.status, 0xB5);
    EXPECT_EQ(panic.port, 0);
    EXPECT_EQ(VoiceEvent(0, 0xF8, 0x13, 0, 0).status, 0xF8);

    // Only channel messages with seven-bit data are valid.
    EXPECT_TRUE(VoiceEvent(0, 0x80, 0, 0, 0).IsValidVoiceEvent());
    EXPECT_TRUE(VoiceEvent(0, 0xE0, 0x0F, 127, 127).IsValidVoiceEvent());
    EXPECT_FALSE(VoiceEvent().IsValidVoiceEvent());  // status 0 is no message
    EXPECT_FALSE(VoiceEvent(0, 0x90, 0, 128, 1).IsValidVoiceEvent());
    EXPECT_FALSE(VoiceEvent(0, 0x90, 0, 60, 128).IsValidVoiceEvent());
    EXPECT_FALSE(VoiceEvent(0, 0xF0, 0, 0, 0).IsValidVoiceEvent());

    // The text form pads the status with zeros and leaves the stream's format as it found it:
    // a padded number written after it is padded with spaces, in decimal.
    std::ostringstream text;
    VoiceEvent(480, 0x90, 0x03, 60, 100).WriteString(text);
    VoiceEvent(7, 0x80, 0x01, 1, 2).WriteString(text << "; ");
    text << ";" << std::setw(4) << 42;
    EXPECT_EQ(text.str(), "480 0x93 60 100; 7 0x81 1 2;  42");
}

TEST(SongLayout, TempoAccessorsAreCorrectlyRounded) {
    TL::Tempo tempo{0, 500000};  // 120 quarter notes per minute
    EXPECT_EQ(tempo.seconds_per_clock(), 1.0 / 48);
    EXPECT_EQ(tempo.tick_time(480), 1.0 / 960);
    EXPECT_EQ(tempo.bpm(24), 120.0);
    EXPECT_EQ(tempo.bpm(36), 80.0);  // dotted-quarter clicks

    // 100 per minute: chained divisions (0.6 / 96) miss these by one unit in the last place.
    TL::Tempo hundred{0, 600000};
    EXPECT_EQ(hundred.tick_time(96), 1.0 / 160);
    EXPECT_EQ(hundred.seconds_per_clock(), 1.0 / 40);
    EXPECT_EQ(hundred.bpm(36), 200.0 / 3);
    TL::Tempo odd{0, 428571};
    EXPECT_EQ(odd.bpm(24), 60e6 / 428571);
    EXPECT_EQ(odd.tick_time(384), 428571 / (1e6 * 384));

    // The engine's own relation: clicks per minute = 60 / (clocks per click × clock time).
    EXPECT_DOUBLE_EQ(odd.bpm(36), 60.0 / (36 * odd.seconds_per_clock()));

    EXPECT_EQ(tempo.tick_time(0), 0.0);
    EXPECT_EQ(tempo.bpm(0), 0.0);
    EXPECT_EQ((TL::Tempo{0, 0}).bpm(24), 0.0);
}

TEST(SongLayout, DisplayTextsAndClickLengths) {
    TL::BarsBeats position;
    position.bar = 12;
    position.bar_beat = 3;
    EXPECT_EQ(as_string(position), "12:3");
    TL::Meter meter;
    meter.numerator = 12;
    meter.denominator = 16;
    EXPECT_EQ(as_string(meter), "12/16");

    // Length in clocks = notated 32nds × 24 / the meter's 32nds per 24 clocks.
    EXPECT_EQ(CL::Click(0, 1, 12).ClocksPerClick(8), 36u);
    EXPECT_EQ(CL::Click(0, 1, 8).ClocksPerClick(8), 24u);
    EXPECT_EQ(CL::Click(0, 1, 4).ClocksPerClick(8), 12u);
    EXPECT_EQ(CL::Click(0, 1, 12).ClocksPerClick(16), 18u);
    EXPECT_EQ(CL::Click(0, 1, 12).ClocksPerClick(0), 0u);
}

TEST(SongLayout, SequencesDumpWithTheirCodeNameAndCount) {
    CL::ChangeLogSequence<CL::Transpose> transpositions;
    transpositions.push_back(CL::Transpose(0, 960, 2));
    transpositions.push_back(CL::Transpose(960, 1920, -3));
    std::ostringstream text;
    transpositions.WriteString(text);
    EXPECT_EQ(text.str(), "Sequence(code=" + std::to_string(CL::Transpose::evt_code) +
                              " Transpose, event count = 2\n"
                              "  Transpose[0, 960) +2\n"
                              "  Transpose[960, 1920) -3\n"
                              ")\n");

    // Every record type has its own code and a name.
    std::set<unsigned char> seen;
    for (unsigned char code : {TL::Tempo::evt_code, TL::BarsBeats::evt_code, TL::Meter::evt_code,
                               TL::Key::evt_code, TL::PageNum::evt_code, CL::Click::evt_code,
                               CL::TempoScale::evt_code, CL::Transpose::evt_code}) {
        EXPECT_TRUE(seen.insert(code).second) << static_cast<int>(code);
        EXPECT_EQ(codes::editNameByVeltEventCode.count(code), 1u) << static_cast<int>(code);
    }
}

}  // namespace
