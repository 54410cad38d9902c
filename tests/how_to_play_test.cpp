// HowToPlay: loading a song, the derived tables, moving, the change reports and the queries.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "interfaces/kit.h"
#include "midi/how_to_play.h"
#include "position_songs.h"

using namespace position_songs;

namespace {

class HowToPlayTest : public ::testing::Test {
  protected:
    UserControls controls;
    HowToPlay position{controls};
};

/// Widens the limit, to show that the clock time goes through the
/// virtual slot.
class WideRangeHowToPlay : public HowToPlay {
  public:
    using HowToPlay::HowToPlay;
    bool wide = false;

    double LimitTempoScaleToAllowedRange(double tempoScale) const override {
        return wide ? tempoScale : HowToPlay::LimitTempoScaleToAllowedRange(tempoScale);
    }
};

/// Replaces a 4/4 song's beat records by one per quarter note, up to the song end.
void SetQuarterBeats(velt_midi::SongData& song) {
    TL::Timeline& timeline = song.GetTimeline();
    TL::TimelineSequence<TL::BarsBeats> beats;
    for (unsigned int tick = 0; tick <= timeline.lastTickIndex; tick += kTicksPerQuarter) {
        const auto quarter = static_cast<std::int32_t>(tick / kTicksPerQuarter);
        beats.push_back(TL::BarsBeats{tick, quarter / 4 + 1, quarter % 4 + 1,
                                      static_cast<std::uint32_t>(quarter % 4 + 1)});
    }
    timeline.GetBarsBeats() = beats;
}

/// Calls the given reports in order and spells their answers: '1' for a report, '0' for none.
template <typename... Update>
std::string Reports(HowToPlay& position, Update... update) {
    std::string answers;
    ((answers += (position.*update)() ? '1' : '0'), ...);
    return answers;
}
using H = HowToPlay;

}  // namespace

TEST_F(HowToPlayTest, SetDataBuildsTablesAndStartsAtTickZero) {
    auto song = velt_core::SongBuilder("Overture", kTicksPerQuarter)
                    .Number("7")
                    .StartTick(960)
                    .Bars(6)
                    .TempoScale(1000, 2000, 0.5f)
                    .Transpose(2000, 3000, 2)
                    .Transpose(3000, 3500, -1)
                    .Build();
    song->GetSongLog().GetTempoScales().push_back(CL::TempoScale(2000, 3500, 1.5f));
    Load(position, *song);

    EXPECT_EQ(position.GetTickIndex(), 0u);  // the song's start tick is the caller's business
    EXPECT_EQ(position.GetSongTitle(), "7 Overture");
    EXPECT_TRUE(position.GetSendMarkerAndSongTitle());
    EXPECT_FALSE(position.GetSendMarkerAndSongTitle());

    // Starts and ends of tempo scales and transpositions, shared ticks once, in order.
    std::vector<unsigned int> dspTicks;
    for (unsigned int tick = position.GetTickIndexOfNextDspEvent();
         tick != position.GetLastTickIndex(); tick = position.GetTickIndexOfNextDspEvent()) {
        dspTicks.push_back(tick);
        position.AdvanceToTickIndex(tick);
    }
    EXPECT_EQ(dspTicks, (std::vector<unsigned int>{1000, 2000, 3000, 3500}));

    // Bar starts every 1920 ticks up to the song's last tick; nothing after it or before 0.
    const unsigned int lastBar = 6 * 1920;
    for (auto [tick, next] : std::vector<std::pair<unsigned int, unsigned int>>{
             {0, 1920}, {1919, 1920}, {1920, 3840}, {lastBar - 1, lastBar}})
        EXPECT_EQ(position.GetNextMeasureTickIndex(tick), next) << tick;
    EXPECT_EQ(position.GetPreviousMeasureTickIndex(1920), 0u);
    EXPECT_EQ(position.GetPreviousMeasureTickIndex(1921), 1920u);
    EXPECT_THROW(position.GetPreviousMeasureTickIndex(0), HowToPlay::SongBegin);
    try {
        position.GetNextMeasureTickIndex(lastBar);
        ADD_FAILURE() << "no SongEnd";
    } catch (const HowToPlay::SongEnd& end) {
        EXPECT_STREQ(end.what(), "");
    }

    // A second song replaces the first whole.
    Load(position, *BareSong());
    EXPECT_EQ(position.GetSongTitle(), "1 Bare");
    EXPECT_EQ(position.GetTickIndexOfNextDspEvent(), position.GetLastTickIndex());
    EXPECT_THROW(position.GetNextMeasureTickIndex(3840), HowToPlay::SongEnd);
}

TEST_F(HowToPlayTest, BeatMapCountsTheClicksStillToComeAfterTheNextClick) {
    auto song = MainSong();
    Load(position, *song);
    const TL::Timeline& timeline = song->GetTimeline();
    const std::list<unsigned int> clicks =
        CreateBeatTicks(timeline.GetBarsBeats(), song->GetSongLog().GetClicks(),
                        timeline.GetMeters(), timeline.lastTickIndex, kTicksPerQuarter);
    ASSERT_GT(clicks.size(), 3u);
    const int n = static_cast<int>(clicks.size());
    // At click i the next click (i+1) has n-2-i to come; past the last click there is none.
    int i = 0;
    for (unsigned int click : clicks) {
        position.Seek(click);
        EXPECT_EQ(position.GetClicksToSongEnd(), i < n - 1 ? n - 2 - i : 0) << "at " << click;
        ++i;
    }
    position.Seek(0);
    EXPECT_EQ(position.GetClicksToSongEnd(), n - 2);
}

TEST_F(HowToPlayTest, MovesClampAtSongEndAndSnapshotTheStateBeforeTheMove) {
    Load(position, *MainSong());
    controls.SetTransposition(1);
    position.AdvanceToTickIndex(1000);
    EXPECT_DOUBLE_EQ(position.GetPreAdvanceTempoScale(), 1.0);
    EXPECT_EQ(position.GetPreAdvanceTransposition(), 1);
    position.AdvanceToTickIndex(2500);
    EXPECT_DOUBLE_EQ(position.GetPreAdvanceTempoScale(), 0.5);
    position.Seek(0);
    EXPECT_DOUBLE_EQ(position.GetPreSeekTempoScale(), 1.0);
    EXPECT_EQ(position.GetPreSeekPitchShift(), 3);        // user 1 + song 2 at 2500
    EXPECT_EQ(position.GetPreAdvanceTransposition(), 1);  // a seek leaves the advance snapshot

    position.AdvanceToTickIndex(6000);
    position.AdvanceToTickIndex(kMainLastTick + 5000);
    EXPECT_EQ(position.GetTickIndex(), kMainLastTick);
    EXPECT_EQ(position.GetMeterString(), "6/8");

    controls.SetTempoScale(1.25);
    position.AdvanceToTickIndex(1500);  // behind: a seek
    EXPECT_EQ(position.GetTickIndex(), 1500u);
    EXPECT_EQ(position.GetLastSeekTickIndex(), 1500u);
    EXPECT_EQ(position.GetMeterString(), "4/4");
    EXPECT_DOUBLE_EQ(position.GetPreSeekTempoScale(), 1.25);
    // At 1500 the 0.5 tempo scale is in force: 120 × 1.25 × 0.5 per quarter.
    EXPECT_DOUBLE_EQ(position.GetLastSeekClockTime(), ClockTimeAt(120 * 0.625));
    EXPECT_EQ(position.GetLastSeekClocksPerClick(), 24);

    position.Seek(kMainLastTick + 1);
    EXPECT_EQ(position.GetTickIndex(), kMainLastTick);
}

TEST_F(HowToPlayTest, AdvancingAndSeekingFindTheRecordInForce) {
    // Records on every beat and events every few bars; steps from one tick to several bars.
    // Both searches must find what a plain scan finds: the last record at or before the tick.
    velt_core::SongBuilder builder("Steps", kTicksPerQuarter);
    builder.Meter(0, 4, 4).Meter(96000, 3, 4).Bars(120);
    for (unsigned int beat = 0; beat < 480; ++beat)
        builder.Tempo(beat * 480, 90.0 + beat % 7);
    for (unsigned int bar = 0; bar < 100; ++bar) {
        const unsigned int tick = bar * 1920;
        builder.Marker(tick + 20, "m").Page(tick, static_cast<std::int32_t>(bar));
        builder.Key(tick, static_cast<std::int16_t>(bar % 5));
        builder.TempoScale(tick + 480, tick + 960, 0.9f).Transpose(tick, tick + 100, 1);
        builder.Click(tick + 960, tick + 1440, 12);
    }
    auto song = builder.Build();
    const TL::Timeline& timeline = song->GetTimeline();
    const CL::SongLog& log = song->GetSongLog();
    HowToPlay seeker(controls);
    Load(position, *song);
    Load(seeker, *song);
    // The plain scan: the tick of the last record at or before `tick`.
    auto inForce = [](const auto& sequence, unsigned int tick) {
        auto tickOf = [](const auto& record) -> unsigned int {
            if constexpr (std::is_base_of_v<CL::PairedEvent, std::decay_t<decltype(record)>>)
                return record.start();
            else
                return record.tick_index;
        };
        unsigned int found = tickOf(sequence.front());
        for (auto it = sequence.begin(); it != sequence.end() && tickOf(*it) <= tick; ++it)
            found = tickOf(*it);
        return found;
    };
    std::mt19937 random(7);
    std::uniform_int_distribution<unsigned int> smallStep(1, 40);
    std::uniform_int_distribution<unsigned int> largeStep(1, 9000);
    unsigned int tick = 0;
    int steps = 0;
    while (tick < position.GetLastTickIndex()) {
        tick += (steps++ % 4 == 0) ? largeStep(random) : smallStep(random);
        position.AdvanceToTickIndex(tick);
        seeker.Seek(tick);
        const unsigned int t = position.GetTickIndex();
        for (const HowToPlay* moved : {&position, &seeker}) {
            const std::string at =
                (moved == &position ? "advance to " : "seek to ") + std::to_string(t);
            ASSERT_EQ(moved->GetTickIndex(), t) << at;
            ASSERT_EQ(moved->GetTempo().tick_index, inForce(timeline.GetTempos(), t)) << at;
            ASSERT_EQ(moved->GetBarBeat().tick_index, inForce(timeline.GetBarsBeats(), t)) << at;
            ASSERT_EQ(moved->GetMeter().tick_index, inForce(timeline.GetMeters(), t)) << at;
            ASSERT_EQ(moved->GetKey().tick_index, inForce(timeline.GetKeys(), t)) << at;
            ASSERT_EQ(moved->GetPageNumber().tick_index, inForce(timeline.GetPageNums(), t)) << at;
            ASSERT_EQ(moved->GetMarkerTickIndex(), inForce(log.GetMarkers(), t)) << at;
            ASSERT_EQ(moved->GetTempoScale().start(), inForce(log.GetTempoScales(), t)) << at;
            ASSERT_EQ(moved->GetTranspose().start(), inForce(log.GetTranspositions(), t)) << at;
            ASSERT_EQ(moved->GetClick().start(), inForce(log.GetClicks(), t)) << at;
        }
        ASSERT_EQ(position.GetClocksPerClickAtTickIndex(t), position.GetClocksPerClick());
        ASSERT_EQ(position.GetTranspositionValueAtTickIndex(t), seeker.GetTranspositionValue());
    }
    EXPECT_GT(steps, 100);
}

TEST_F(HowToPlayTest, TimelineItemsReportTheFirstRecordOncePerSeekAndEveryMove) {
    Load(position, *MainSong());
    // After the seek of SetData the first records report once; change-log items before their
    // event starts do not report.
    const auto timeline = [&] {
        return Reports(position, &H::UpdateTempo, &H::UpdateMeter, &H::UpdateBar, &H::UpdateKey,
                       &H::UpdatePageNumber);
    };
    EXPECT_EQ(timeline(), "11111");
    EXPECT_EQ(timeline(), "00000");
    EXPECT_EQ(Reports(position, &H::UpdateTempoScale, &H::UpdateTransposition, &H::UpdateClick,
                      &H::UpdateMarker),
              "0000");

    position.AdvanceToTickIndex(100);  // within the first beat
    EXPECT_FALSE(position.UpdateBar());
    position.AdvanceToTickIndex(480);  // second beat: reports as long as the move stands
    EXPECT_EQ(Reports(position, &H::UpdateBar, &H::UpdateBar, &H::UpdateTempo), "110");
    position.AdvanceToTickIndex(480);  // same tick: the previous cursors are kept
    EXPECT_TRUE(position.UpdateBar());
    position.AdvanceToTickIndex(500);
    EXPECT_FALSE(position.UpdateBar());

    position.AdvanceToTickIndex(3840);  // tempo and key change together
    EXPECT_EQ(timeline(), "10110");
    position.AdvanceToTickIndex(5760);
    EXPECT_EQ(Reports(position, &H::UpdatePageNumber, &H::UpdateMeter), "11");

    // A seek to the middle: every moved cursor differs from its reset previous cursor, and the
    // first meter record reports once, its latch re-armed by the seek.
    position.Seek(4000);
    EXPECT_EQ(Reports(position, &H::UpdateTempo, &H::UpdateTempo, &H::UpdateMeter, &H::UpdateMeter),
              "1110");
    position.AdvanceToTickIndex(4020);
    EXPECT_FALSE(position.UpdateTempo());
}

TEST_F(HowToPlayTest, ChangeLogItemsReportBeginAndEndOfCoverage) {
    Load(position, *MainSong());
    position.AdvanceToTickIndex(1000);  // tempo scale begins; reports until the next move
    EXPECT_EQ(Reports(position, &H::UpdateTempoScale, &H::UpdateTempoScale), "11");
    position.AdvanceToTickIndex(1500);
    EXPECT_FALSE(position.UpdateTempoScale());

    position.AdvanceToTickIndex(2000);  // tempo scale ends where the transposition begins
    EXPECT_EQ(Reports(position, &H::UpdateTempoScale, &H::UpdateTransposition), "11");
    // The same tick again shifts the coverage flags: the end has been reported once. "Verse" at
    // 1920, the first marker, reports once, and again when its flag is cleared.
    position.AdvanceToTickIndex(2000);
    EXPECT_EQ(Reports(position, &H::UpdateTempoScale, &H::UpdateTransposition, &H::UpdateMarker,
                      &H::UpdateMarker),
              "0010");
    position.SetMarkerUpdated(false);
    EXPECT_TRUE(position.UpdateMarker());

    position.AdvanceToTickIndex(7200);
    EXPECT_EQ(Reports(position, &H::UpdateClick, &H::UpdateMarker), "11");  // on to "Bridge"
    position.AdvanceToTickIndex(8640);
    EXPECT_TRUE(position.UpdateClick());
    position.AdvanceToTickIndex(9000);
    EXPECT_FALSE(position.UpdateClick());
}

TEST_F(HowToPlayTest, CombinedReportsEvaluateBothItems) {
    auto song = velt_core::SongBuilder("Both", kTicksPerQuarter)
                    .Bars(2)
                    .TempoScale(0, 960, 0.8f)
                    .Click(0, 960, 12)
                    .Build();
    Load(position, *song);
    // A second seek settles the coverage flags, so only the latches are left to report.
    position.Seek(0);
    EXPECT_EQ(
        Reports(position, &H::UpdateClockTime, &H::UpdateTempo, &H::UpdateTempoScale,
                &H::UpdateClocksPerClick, &H::UpdateMeter, &H::UpdateClick, &H::UpdateClockTime),
        "1001000");
}

TEST_F(HowToPlayTest, CoverageIncludesTheEndOnlyAtTheSongsLastTick) {
    Load(position, *SongEndSong());
    position.Seek(1920);  // end of [960, 1920) elsewhere in the song: not in force
    EXPECT_DOUBLE_EQ(position.GetTempoScaleValue(), 1.0);
    position.Seek(kSongEndLastTick - 1);
    EXPECT_DOUBLE_EQ(position.GetTempoScaleValue(), 0.8f);
    EXPECT_EQ(position.GetClocksPerClick(), 36);
    const auto coverage = [&] {
        return Reports(position, &H::UpdateTempoScale, &H::UpdateTransposition, &H::UpdateClick);
    };
    EXPECT_EQ(coverage(), "111");  // the reports of the seek

    position.AdvanceToTickIndex(kSongEndLastTick);
    // Tempo scale and transposition stay in force at the last tick; the click does not.
    EXPECT_DOUBLE_EQ(position.GetTempoScaleValue(), 0.8f);
    EXPECT_DOUBLE_EQ(position.GetClockTime(), ClockTimeAt(120) / 0.8f);
    EXPECT_EQ(position.GetTranspositionValue(), 3);
    EXPECT_EQ(position.GetClocksPerClick(), 24);
    EXPECT_EQ(position.GetNotated32PerClick(), 8);
    EXPECT_EQ(coverage(), "001");

    // The by-tick queries use the plain rule even there.
    EXPECT_DOUBLE_EQ(position.GetTempoScaleValueAtTickIndex(kSongEndLastTick), 1.0);
    EXPECT_EQ(position.GetTranspositionValueAtTickIndex(kSongEndLastTick), 0);
    EXPECT_EQ(position.GetTranspositionValueAtTickIndex(kSongEndLastTick - 1), 3);
    EXPECT_DOUBLE_EQ(position.GetTempoScaleValueAtTickIndex(960), 0.5f);
    EXPECT_DOUBLE_EQ(position.GetTempoScaleValueAtTickIndex(959), 1.0);
}

TEST_F(HowToPlayTest, TempoScaleAndClockTimeLimitTheProductDifferently) {
    auto song = velt_core::SongBuilder("Scales", kTicksPerQuarter)
                    .Bars(2)
                    .TempoScale(0, 960, 0.25f)
                    .Build();
    Load(position, *song);
    EXPECT_DOUBLE_EQ(position.GetTempoScaleValue(), 0.5);  // 1.0 × 0.25, limited
    EXPECT_DOUBLE_EQ(position.GetClockTime(), ClockTimeAt(120) / 0.5);
    EXPECT_EQ(position.GetTempoScaleString(), "50%\n");

    position.AdvanceToTickIndex(1000);
    controls.SetTempoScale(3.0);
    EXPECT_DOUBLE_EQ(position.GetTempoScaleValue(), 3.0);  // the user's own scale, not limited
    EXPECT_DOUBLE_EQ(position.GetClockTime(), ClockTimeAt(120) / 2.0);
    EXPECT_EQ(position.GetTempoString(), "360.00");
    EXPECT_EQ(position.GetTempoInteger(), 360);
    controls.SetTempoScale(1.0);
    EXPECT_EQ(position.GetTempoScaleString(), "100%\n");

    WideRangeHowToPlay wide(controls);
    Load(wide, *BareSong());
    wide.wide = true;
    controls.SetTempoScale(3.0);
    EXPECT_DOUBLE_EQ(wide.GetClockTime(), ClockTimeAt(120) / 3.0);
}

TEST_F(HowToPlayTest, ValuesAndDisplayStringsFollowThePosition) {
    Load(position, *MainSong());
    EXPECT_EQ(position.GetBarString(), "1:1");
    EXPECT_EQ(position.GetKeyString(), Keys::getTransposedName(0, 0, 0));
    EXPECT_EQ(position.GetPageNumberValue(), 12);
    EXPECT_EQ(position.GetTranspositionPair(), (std::pair<int, int>{0, 0}));

    controls.SetTransposition(2);
    position.AdvanceToTickIndex(2500);  // bar 2 beat 2, song transposition +2
    EXPECT_EQ(position.GetBarString(), "2:2");
    EXPECT_EQ(position.GetTranspositionValue(), 4);
    EXPECT_EQ(position.GetKeyString(), Keys::getTransposedName(0, 4, 0));  // C + 4 semitones
    // The pair is (now, as last asked).
    EXPECT_EQ(position.GetTranspositionPair(), (std::pair<int, int>{4, 0}));
    EXPECT_EQ(position.GetTranspositionPair(), (std::pair<int, int>{4, 4}));
    EXPECT_EQ(position.GetMarkerString(), "Verse");

    position.AdvanceToTickIndex(3840);
    EXPECT_EQ(position.GetKeyString(), Keys::getTransposedName(0, 3, 0));  // G major + 2
    EXPECT_EQ(position.GetTempoString(), "60.00");

    position.AdvanceToTickIndex(7300);  // 6/8, click of 16 notated 32nds
    EXPECT_EQ(position.GetClocksPerClick(), 48);
    EXPECT_EQ(position.GetNotated32PerClick(), 16);
    EXPECT_EQ(position.GetPageNumberValue(), 13);
    // A 6/8 click of 36 clocks at a quarter of 60 is 40 clicks per minute.
    EXPECT_EQ(position.GetTempoString(), "40.00");
    for (auto [tick, clocks] :
         std::vector<std::pair<unsigned int, int>>{{100, 24}, {6000, 36}, {8000, 48}, {8640, 36}})
        EXPECT_EQ(position.GetClocksPerClickAtTickIndex(tick), clocks) << tick;
}

TEST_F(HowToPlayTest, EmptySequencesThrowTheirOwnTexts) {
    Load(position, *BareSong());
    auto expectOutOfRange = [](auto query, const std::string& text) {
        try {
            query();
            ADD_FAILURE() << "no exception for " << text;
        } catch (const std::out_of_range& error) {
            EXPECT_EQ(std::string(error.what()), text);
        }
    };
    expectOutOfRange([&] { position.GetClick(); }, "no Click");
    expectOutOfRange([&] { position.GetTempoScale(); }, "no TempoScale");
    expectOutOfRange([&] { position.GetTranspose(); }, "no Transposition");
    expectOutOfRange([&] { position.GetMarker(); }, "no markers");
    expectOutOfRange([&] { position.GetPageNumber(); }, "There are no PageNums");
    expectOutOfRange([&] { position.GetMarkerTickIndex(); }, "there are no markers");
    expectOutOfRange([&] { position.GetMarkerString(); }, "there are no markers");

    // The rest of the song still answers, and moving never touches the empty sequences.
    position.AdvanceToTickIndex(2000);
    EXPECT_EQ(position.GetPageNumberValue(), 1);
    EXPECT_EQ(position.GetClocksPerClick(), 24);
    EXPECT_EQ(Reports(position, &H::UpdateMarker, &H::UpdatePageNumber, &H::UpdateClick), "000");
}

TEST_F(HowToPlayTest, ClockNumberCountsFromBarStartOrFromTheClickStart) {
    // Beat records on every quarter note (4 a bar), whatever the click: a click of 36 clocks in
    // 4/4 does not divide the bar, so the two rules differ.
    auto song =
        velt_core::SongBuilder("Clocks", kTicksPerQuarter).Meter(0, 4, 4, 36).Bars(2).Build();
    SetQuarterBeats(*song);
    Load(position, *song);
    position.AdvanceToTickIndex(1000);  // beat 3 (960) + 2 clocks; 50 clocks into the bar
    EXPECT_EQ(position.GetClockNumber(), 50 % 36);
    EXPECT_EQ(position.GetClockNumberAtTickIndex(1000), 2);  // from the beat record
    // Clocks are 20 ticks apart.
    EXPECT_EQ(position.RoundDownToNearestClock(59), 40u);
    EXPECT_EQ(position.GetNextClockTickIndex(40), (std::pair<bool, unsigned int>{true, 40}));
    EXPECT_EQ(position.GetNextClockTickIndex(41), (std::pair<bool, unsigned int>{false, 60}));

    // A click event of 48 clocks from beat 2: by tick, counted from the click's start.
    auto clicked =
        velt_core::SongBuilder("Clicked", kTicksPerQuarter).Bars(3).Click(480, 3840, 16).Build();
    SetQuarterBeats(*clicked);
    Load(position, *clicked);
    position.AdvanceToTickIndex(1000);
    EXPECT_EQ(position.GetClockNumber(), 50 % 48);
    EXPECT_EQ(position.GetClockNumberAtTickIndex(1000), (1000 - 480) / 20);
    // In the next bar the walk back stops at the bar start.
    EXPECT_EQ(position.GetClockNumberAtTickIndex(2440), (2440 - 1920) / 20);
    position.AdvanceToTickIndex(2440);
    EXPECT_EQ(position.GetClockNumber(), (2440 - 1920) / 20);
}

TEST_F(HowToPlayTest, ACopyIsAnIndependentSecondPosition) {
    Load(position, *MainSong());
    position.Seek(4000);
    HowToPlay copy(position);
    EXPECT_EQ(copy.GetTickIndex(), 4000u);
    // Each position has its own latches: the first meter reports once in each.
    EXPECT_TRUE(copy.UpdateMeter());
    EXPECT_FALSE(copy.UpdateMeter());
    EXPECT_TRUE(position.UpdateMeter());

    copy.AdvanceToTickIndex(7300);
    EXPECT_EQ(copy.GetMeterString(), "6/8");
    EXPECT_EQ(position.GetMeterString(), "4/4");
    EXPECT_EQ(position.GetTickIndex(), 4000u);

    // The copy owns its song: replacing the original's song leaves it untouched.
    Load(position, *BareSong());
    copy.AdvanceToTickIndex(9000);
    EXPECT_EQ(copy.GetMarkerString(), "Bridge");
    EXPECT_TRUE(copy.UpdateClick());  // the click of [7200, 8640) ended

    HowToPlay moved(std::move(copy));
    moved.AdvanceToTickIndex(9500);
    EXPECT_EQ(moved.GetBarString(), "6:2");  // 6/8 beats in dotted quarters: 8640, 9360
}

