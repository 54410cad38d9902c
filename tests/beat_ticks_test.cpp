// Where the clicks of a song fall (CreateBeatTicks), and the bars and beats the song builder
// derives from the meters.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "velt_core/song_builder.h"

namespace {

using Ticks = std::vector<unsigned int>;

// At 480 ticks per quarter a clock is 20 ticks: a quarter click 480, a dotted quarter 720.
Ticks ClickTicks(const velt_midi::SongData& song) {
    const TL::Timeline& timeline = song.GetTimeline();
    auto ticks =
        CreateBeatTicks(timeline.GetBarsBeats(), song.GetSongLog().GetClicks(),
                        timeline.GetMeters(), timeline.lastTickIndex, song.GetTicksPerQuarter());
    return Ticks(ticks.begin(), ticks.end());
}

Ticks BeatRecordTicks(const velt_midi::SongData& song) {
    Ticks ticks;
    for (const auto& record : song.GetTimeline().GetBarsBeats())
        ticks.push_back(record.tick_index);
    return ticks;
}

TEST(BeatTicks, ClicksFollowMetersAndClickEventsFromTickZeroToTheLastTickInclusive) {
    using velt_core::SongBuilder;
    struct Case {
        const char* what;
        std::shared_ptr<velt_midi::SongData> song;
        Ticks clicks;
    };
    const std::vector<Case> cases{
        {"two bars of 4/4, the last tick on a click",
         SongBuilder("s", 480).Meter(0, 4, 4).Bars(2).Build(),
         {0, 480, 960, 1440, 1920, 2400, 2880, 3360, 3840}},
        {"ending between clicks: no click after the end",
         SongBuilder("s", 480).Meter(0, 4, 4).LastTick(1000).Build(),
         {0, 480, 960}},
        {"empty song", SongBuilder("s", 480).LastTick(0).Build(), {0}},
        // 4/4, then 6/8 clicked in dotted quarters, then 3/4 arriving mid-bar off the grid.
        {"meter changes restart the clicks",
         SongBuilder("s", 480)
             .Meter(0, 4, 4)
             .Meter(1920, 6, 8)
             .Meter(4000, 3, 4)
             .LastTick(5000)
             .Build(),
         {0, 480, 960, 1440, 1920, 2640, 3360, 4000, 4480, 4960}},
        // 12 notated 32nds under a meter of 8 = 36 clocks = 720 ticks over [960, 2400): the bar
        // start at 1920 still falls on a click, and the meter's clicks resume at the event's end.
        {"dotted-quarter click event",
         SongBuilder("s", 480).Meter(0, 4, 4).Click(960, 2400, 12).Bars(2).Build(),
         {0, 480, 960, 1680, 1920, 2400, 2880, 3360, 3840}},
        {"eighth-note clicks (4 notated 32nds = 12 clocks) in the first bar",
         SongBuilder("s", 480).Meter(0, 2, 4).Click(0, 960, 4).Bars(2).Build(),
         {0, 240, 480, 720, 960, 1440, 1920}},
        {"16 notated 32nds per quarter halve the click length",
         SongBuilder("s", 480).Meter(0, 4, 4, 24, 16).Click(0, 1920, 16).Bars(1).Build(),
         {0, 480, 960, 1440, 1920}},
        {"half-note click event running past the song end stops at the last tick",
         SongBuilder("s", 480).Meter(0, 4, 4).Click(1440, 100000, 16).LastTick(3840).Build(),
         {0, 480, 960, 1440, 1920, 2880, 3840}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ClickTicks(*c.song), c.clicks) << c.what;

    // Without click events every beat of the derived bars is a click and vice versa, odd meters
    // with their default clicks included.
    EXPECT_EQ(BeatRecordTicks(*cases[3].song), cases[3].clicks);
    auto odd =
        SongBuilder("s", 480).Meter(0, 7, 8).Meter(3360, 5, 4).Meter(5760, 12, 8).Bars(8).Build();
    EXPECT_EQ(BeatRecordTicks(*odd), ClickTicks(*odd));
}

TEST(BeatTicks, HugeSongsDoNotWrapPastTheLastTick) {
    // One clock is 10^6 ticks, a click 255 clocks: the last click lies just below 2^32.
    TL::TimelineSequence<TL::Meter> meters;
    TL::Meter meter = velt_core::MakeMeter(0, 4, 4);
    meter.clocks_per_click = 255;
    meters.push_back(meter);
    auto ticks = CreateBeatTicks({}, {}, meters, 0xFFFFFFFFu, 24'000'000);
    ASSERT_EQ(ticks.size(), 17u);
    EXPECT_EQ(ticks.back(), 16u * 255'000'000u);
    EXPECT_TRUE(std::is_sorted(ticks.begin(), ticks.end()));
}

TEST(SongBuilder, BarsAndBeatsFollowTheMetersAndAMeterChangeStartsABar) {
    // Two bars of 4/4, a 3/4 bar cut short at 4000 by a 6/8 meter, then 6/8 in two beats.
    auto song = velt_core::SongBuilder("s", 480)
                    .Meter(0, 4, 4)
                    .Meter(3840, 3, 4)
                    .Meter(4000, 6, 8)
                    .Bars(4)
                    .Build();
    EXPECT_EQ(song->GetTimeline().lastTickIndex, 4000u + 1440u);
    std::vector<std::string> shown;
    std::vector<unsigned> beats;
    for (const auto& record : song->GetTimeline().GetBarsBeats()) {
        shown.push_back(std::to_string(record.tick_index) + "=" + as_string(record));
        beats.push_back(record.beat);
    }
    EXPECT_EQ(shown, (std::vector<std::string>{"0=1:1", "480=1:2", "960=1:3", "1440=1:4",
                                               "1920=2:1", "2400=2:2", "2880=2:3", "3360=2:4",
                                               "3840=3:1", "4000=4:1", "4720=4:2", "5440=5:1"}));
    EXPECT_EQ(beats, (std::vector<unsigned>{1, 2, 3, 4, 1, 2, 3, 4, 1, 1, 2, 1}));
}

TEST(SongBuilder, FillsDefaultsSortsEventsAndDerivesTheEnd) {
    auto song = velt_core::SongBuilder("Overture", 960)
                    .Track(0x12, "Strings", 48, {36, 96})
                    .Note(0x12, 960, 64, 90, 480)
                    .Note(0x12, 0, 60, 100, 1920)
                    .Transpose(480, 2400, 2)
                    .Build();
    const TL::Timeline& timeline = song->GetTimeline();
    ASSERT_EQ(timeline.GetTempos().size(), 1u);
    ASSERT_EQ(timeline.GetMeters().size(), 1u);
    ASSERT_EQ(timeline.GetKeys().size(), 1u);
    EXPECT_EQ(timeline.GetTempos()[0].microseconds_per_quarter, 500000u);
    EXPECT_EQ(as_string(timeline.GetMeters()[0]), "4/4");
    EXPECT_EQ(timeline.GetMeters()[0].clocks_per_click, 24);
    EXPECT_EQ(timeline.lastTickIndex, 2400u);  // the transposition's end is the latest tick

    const velt_midi::VoiceTrack& track = song->GetVoiceData().at(0x12);
    EXPECT_EQ(track.GetTrackName(), "Strings");
    EXPECT_EQ(track.channelIndex, 2);
    EXPECT_EQ(track.GetDefaultProgramChange(), 48);
    std::vector<std::uint32_t> times;
    for (const auto& event : track.events) {
        times.push_back(event.time);
        EXPECT_EQ(event.GetTrackId(), 0x12);
    }
    EXPECT_EQ(times, (std::vector<std::uint32_t>{0, 960, 1440, 1920}));
    EXPECT_EQ(track.events[0].status, 0x92);
    EXPECT_EQ(track.events[2].status, 0x82);  // the note-off of 64

    EXPECT_EQ(velt_core::MicrosecondsPerQuarter(90.0), 666667u);
    EXPECT_EQ(velt_core::DefaultClocksPerClick(6, 8), 36);
    EXPECT_EQ(velt_core::DefaultClocksPerClick(3, 8), 12);
    EXPECT_EQ(velt_core::DefaultClocksPerClick(2, 2), 48);
}

}  // namespace
