// Ticks to show seconds: tempo changes inside a song, songs laid end to end by name, and the
// ticks the tempo map does not cover.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "midi/time_code_converter.h"
#include "velt_core/song_builder.h"

namespace {

TL::Timeline TempoMap(std::initializer_list<TL::Tempo> tempi, std::uint32_t lastTick) {
    TL::Timeline timeline;
    for (const TL::Tempo& tempo : tempi) {
        timeline.GetTempos().push_back(tempo);
    }
    timeline.lastTickIndex = lastTick;
    return timeline;
}

TEST(TimeCodeReference, TempoChangesInsideASong) {
    // 120 a minute from tick 0, 60 a minute from 1920, back to 120 from 3840; 480 per quarter.
    const TL::Timeline timeline = TempoMap({{0, 500000}, {1920, 1000000}, {3840, 500000}}, 4800);
    const SongTimeCodeReference song(10.0, timeline, 480);
    struct Case {
        std::uint32_t tick;
        double seconds;
        double secondsPerTick;
    };
    const Case cases[] = {
        {0, 10.0, 1.0 / 960},
        {960, 11.0, 1.0 / 960},
        {1920, 12.0, 1.0 / 480},
        {2880, 14.0, 1.0 / 480},
        {3840, 16.0, 1.0 / 960},
        {4800, 17.0, 1.0 / 960},
        {1919, 12.0 - 1.0 / 960, 1.0 / 960},
    };
    for (const auto& c : cases) {
        const TimeCodePoint point = song.GetTimeCodeAtTickIndex(c.tick);
        EXPECT_EQ(point.GetTickIndex(), c.tick);
        EXPECT_DOUBLE_EQ(point.GetSeconds(), c.seconds) << "tick " << c.tick;
        EXPECT_DOUBLE_EQ(point.GetSecondsPerTick(), c.secondsPerTick) << "tick " << c.tick;
    }
    EXPECT_DOUBLE_EQ(song.GetSongEndSeconds(), 17.0);
}

TEST(TimeCodeReference, TicksTheTempoMapDoesNotCover) {
    // First tempo at 960: everything up to it is the start; a second tempo on the same tick
    // replaces the first.
    const SongTimeCodeReference late(
        5.0, TempoMap({{960, 1000000}, {960, 500000}, {1920, 250000}}, 2880), 480);
    EXPECT_DOUBLE_EQ(late.GetTimeCodeAtTickIndex(0).GetSeconds(), 5.0);
    EXPECT_DOUBLE_EQ(late.GetTimeCodeAtTickIndex(0).GetSecondsPerTick(), 0.0);
    EXPECT_DOUBLE_EQ(late.GetTimeCodeAtTickIndex(959).GetSeconds(), 5.0);
    EXPECT_DOUBLE_EQ(late.GetTimeCodeAtTickIndex(960).GetSeconds(), 5.0);
    EXPECT_DOUBLE_EQ(late.GetTimeCodeAtTickIndex(1920).GetSeconds(), 6.0);
    EXPECT_DOUBLE_EQ(late.GetSongEndSeconds(), 6.5);  // 960 ticks of 1/1920 s

    const SongTimeCodeReference none(7.0, TempoMap({}, 1000), 480);
    EXPECT_DOUBLE_EQ(none.GetTimeCodeAtTickIndex(500).GetSeconds(), 7.0);
    EXPECT_DOUBLE_EQ(none.GetSongEndSeconds(), 7.0);
    EXPECT_DOUBLE_EQ(SongTimeCodeReference().GetTimeCodeAtTickIndex(100).GetSeconds(), 0.0);
}

velt_midi::ShowData ShowOfTwo() {
    // The show plays "B" first, but time runs in name order: "A" (2 s), then "B".
    velt_midi::ShowData show;
    show.AddSong(velt_core::SongBuilder("B", 480).Tempo(0, 60.0).LastTick(960).Build());
    show.AddSong(velt_core::SongBuilder("A", 480).Tempo(0, 120.0).LastTick(1920).Build());
    return show;
}

TEST(TimeCodeConverter, SongsFollowOneAnotherInNameOrder) {
    TimeCodeConverter converter(ShowOfTwo());
    EXPECT_DOUBLE_EQ(converter.ConvertTickIndexToSeconds(480), 0.0);  // no song yet
    converter.UpdateToNewSong("B", 480);
    EXPECT_DOUBLE_EQ(converter.ConvertTickIndexToSeconds(0), 2.0);
    EXPECT_DOUBLE_EQ(converter.ConvertTickIndexToSeconds(480), 3.0);
    const auto pair = converter.GetTimeCodeSecondsPair(480);  // one clock is 20 ticks
    EXPECT_DOUBLE_EQ(pair.first, 3.0);
    EXPECT_DOUBLE_EQ(pair.second, 3.0 + 20.0 / 480);
    converter.UpdateToNewSong("A", 480);
    EXPECT_DOUBLE_EQ(converter.ConvertTickIndexToSeconds(960), 1.0);
    converter.UpdateToNewSong("A", 23);  // below 24 ticks per quarter a clock is 0 ticks
    const auto same = converter.GetTimeCodeSecondsPair(960);
    EXPECT_EQ(same.first, same.second);
    converter.UpdateToNewSong("Encore", 480);  // not in the show: start 0, nothing to follow
    EXPECT_DOUBLE_EQ(converter.ConvertTickIndexToSeconds(960), 0.0);
}

TEST(TimeCodeConverter, CopiesAndMovesFollowTheirOwnCurrentSong) {
    auto original = std::make_unique<TimeCodeConverter>(ShowOfTwo());
    original->UpdateToNewSong("B", 480);
    TimeCodeConverter copy(*original);
    TimeCodeConverter assigned(velt_midi::ShowData{});
    assigned = *original;
    original->UpdateToNewSong("A", 480);
    original.reset();  // the copies must not point into it
    EXPECT_DOUBLE_EQ(copy.ConvertTickIndexToSeconds(960), 4.0);
    EXPECT_DOUBLE_EQ(assigned.ConvertTickIndexToSeconds(960), 4.0);
    TimeCodeConverter moved(std::move(copy));
    EXPECT_DOUBLE_EQ(moved.ConvertTickIndexToSeconds(0), 2.0);
}

}  // namespace
