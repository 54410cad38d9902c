#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "interfaces/kit.h"
#include "tests/stream_test_support.h"
#include "tests/support/captured_log.h"
#include "velt_core/song_builder.h"

using namespace stream_test;
using EventList = RecordingMidiBuffer::EventList;

namespace {
constexpr unsigned int kBar = 1920;  // 4/4 at 480 ticks per quarter
constexpr unsigned short kStrings = 0x01;
constexpr unsigned short kHorn = 0x02;
const std::pair<std::uint8_t, std::uint8_t> kRange{36, 96};
}  // namespace

TEST(MidiStreamCheckpoints, AnEmptySongHasOnlyTheStartAndRestoresOnlyCentredBends) {
    auto song = velt_core::SongBuilder("Empty")
                    .Bars(8)
                    .Track(0x00, "a", 0, kRange)
                    .Track(0x13, "b", 0, kRange)
                    .Build();
    RangedMidiStream stream(*song);
    ASSERT_EQ(stream.GetCheckpoints().size(), 1u);
    EXPECT_EQ(stream.GetCheckpoints().begin()->first, 0u);

    RecordingMidiBuffer buffer(2, 64);
    stream.Seek(5 * kBar + 7);
    stream.EnqueueEventsWithPersistence(5 * kBar + 100, 0, 0, buffer, false);
    EXPECT_EQ(buffer.Events(0), (EventList{Bend(0x00, 0, 64)}));
    EXPECT_EQ(buffer.Events(1), (EventList{Bend(0x13, 0, 64)}));
}

TEST(MidiStreamCheckpoints, ATrackDropsOutOfTheTableAfterTheBarOfItsLastEvent) {
    auto song = velt_core::SongBuilder("Economy")
                    .Bars(6)
                    .Track(kStrings, "short", 0, kRange)
                    .ControlChange(kStrings, 100, 7, 90)
                    .Note(kStrings, kBar + 10, 60, 100, 100)  // last event in bar 2
                    .Track(kHorn, "long", 0, kRange)
                    .Note(kHorn, 0, 50, 100, 5 * kBar - 100)
                    .Build();
    RangedMidiStream stream(*song);
    const auto& checkpoints = stream.GetCheckpoints();
    std::vector<unsigned int> ticks;
    for (const auto& [tick, states] : checkpoints) {
        ticks.push_back(tick);
    }
    EXPECT_EQ(ticks, (std::vector<unsigned int>{0, kBar, 2 * kBar, 3 * kBar, 4 * kBar, 5 * kBar}));
    // The short track's last checkpoint is the bar after its last event, holding its end state.
    EXPECT_EQ(checkpoints.at(2 * kBar).count(kStrings), 1u);
    EXPECT_EQ(checkpoints.at(2 * kBar).at(kStrings).GetCCs().at(7).data2, 90);
    EXPECT_TRUE(checkpoints.at(2 * kBar).at(kStrings).GetNotes().empty());
    EXPECT_EQ(checkpoints.at(3 * kBar).count(kStrings), 0u);
    EXPECT_EQ(checkpoints.at(5 * kBar).count(kHorn), 1u);
    EXPECT_EQ(checkpoints.at(kBar).at(kHorn).GetNotes().count(50), 1u);

    // A seek past the short track's table starts it from nothing: its controller is not chased.
    stream.Seek(4 * kBar + 1);
    EXPECT_EQ(stream.GetPersistence().count(kStrings), 0u);
    // A seek onto a bar start takes that bar's checkpoint as it is.
    stream.Seek(2 * kBar);
    EXPECT_EQ(stream.GetPersistence().at(kStrings).GetCCs().at(7).data2, 90);
    EXPECT_EQ(stream.GetPersistence().at(kHorn).GetNotes().count(50), 1u);
}

TEST(MidiStreamSeek, RestrikesAHeldNoteAfterSwitchesControllersBendAndProgram) {
    auto song = velt_core::SongBuilder("Chase")
                    .Bars(4)
                    .Track(kStrings, "strings", 0, kRange)
                    .ControlChange(kStrings, 0, 7, 100)
                    .ProgramChange(kStrings, 0, 5)
                    .Note(kStrings, 0, 20, 90, 4 * kBar - 10)  // a keyswitch held throughout
                    .PitchBend(kStrings, 100, 9000)
                    .Note(kStrings, 960, 60, 80, 4000)
                    .Build();
    RangedMidiStream stream(*song);
    RecordingMidiBuffer buffer(1, 64);
    stream.EnqueueInitialEvents(480, 0, buffer);
    // The state at the start holds nothing but the centred bend; then the events.
    EXPECT_EQ(buffer.Events(0),
              (EventList{Bend(kStrings, 0, 64), Cc(kStrings, 7, 100), Pc(kStrings, 5),
                         On(kStrings, 20, 90), Bend(kStrings, 40, 70, 100)}));
    buffer.TakeEvents();

    stream.Seek(kBar + 480);
    stream.EnqueueEventsWithPersistence(kBar + 960, 0, 2, buffer, false);
    // The switch sounds on both sides: kept, not struck again. The note is struck transposed.
    EXPECT_EQ(buffer.Events(0), (EventList{Cc(kStrings, 7, 100), Bend(kStrings, 40, 70, 100),
                                           Pc(kStrings, 5), On(kStrings, 62, 80, 960)}));
    EXPECT_EQ(stream.GetCurrentTick(), kBar + 960);
    // The kept switch is still known to the chase state (put back after the send).
    EXPECT_EQ(stream.GetPersistence().at(kStrings).GetSwitches().count(20), 1u);
}

TEST(MidiStreamSeek, ReleasesEveryTrackBeforeSendingAnyNewState) {
    auto song = velt_core::SongBuilder("Release")
                    .Bars(4)
                    .Track(kStrings, "strings", 0, kRange)
                    .Note(kStrings, 0, 10, 90, 300)  // switch, released at 300
                    .Note(kStrings, kBar, 60, 70, kBar)
                    .Note(kStrings, kBar, 11, 91, kBar)  // another switch
                    .ControlChange(kStrings, kBar, 64, 127)
                    .Track(kHorn, "horn", 0, kRange)
                    .Note(kHorn, 0, 48, 60, 4 * kBar - 1)
                    .Note(kHorn, kBar, 50, 61, kBar)
                    .Build();
    RangedMidiStream stream(*song);
    RecordingMidiBuffer buffer(1, 64);
    stream.Seek(kBar + 100);
    stream.EnqueueEventsWithPersistence(kBar + 200, 0, 3, buffer, false);
    buffer.TakeEvents();

    stream.Seek(200);
    stream.EnqueueEventsWithPersistence(250, 3, -1, buffer, false);
    const EventList expected{
        // Releases: notes transposed as they were struck (+3), switches as they were, then
        // controllers back to 0; the horn's note 48 is held on both sides but moves from 51 to
        // 47, so it is released as well.
        Off(kStrings, 63, 70, kBar), Off(kStrings, 11, 91, kBar), Cc(kStrings, 64, 0, kBar),
        Off(kHorn, 51, 60), Off(kHorn, 53, 61, kBar),
        // New state: the strings' switch, both bends, the horn's note at its new pitch.
        On(kStrings, 10, 90, 0), Bend(kStrings, 0, 64), Bend(kHorn, 0, 64), On(kHorn, 47, 60)};
    EXPECT_EQ(buffer.Events(0), expected);
}

TEST(MidiStreamSeek, AllNotesOffReleasesWhatSoundedBeforeAnUnplayedSeek) {
    auto song = velt_core::SongBuilder("Stop")
                    .Bars(4)
                    .Track(0x21, "strings", 0, kRange)
                    .ControlChange(0x21, 0, 11, 80)
                    .Note(0x21, 0, 60, 100, kBar)
                    .Note(0x21, 0, 12, 100, kBar)
                    .Note(0x21, 3 * kBar, 70, 100, 100)
                    .Build();
    RangedMidiStream stream(*song);
    RecordingMidiBuffer buffer(3, 64);
    stream.EnqueueInitialEvents(10, 4, buffer);
    buffer.TakeEvents();
    // The seek has not been played yet: what sounds is still the state at tick 10.
    stream.Seek(3 * kBar + 50);
    stream.AllNotesOff(4, buffer);
    EXPECT_EQ(buffer.Events(2),
              (EventList{Off(0x21, 64, 100), Off(0x21, 12, 100), Cc(0x21, 11, 0)}));
    EXPECT_EQ(buffer.GetDoneCount(), 1);  // from the initial enqueue only

    // Once the seek has been played, the stop releases the new position's state.
    buffer.TakeEvents();
    stream.EnqueueEventsWithPersistence(3 * kBar + 60, 4, 4, buffer, false);
    buffer.TakeEvents();
    stream.AllNotesOff(4, buffer);
    EXPECT_EQ(buffer.Events(2), (EventList{Off(0x21, 74, 100, 3 * kBar), Cc(0x21, 11, 0)}));
}

TEST(MidiStreamSeek, SeeksWithoutAnEnqueueBetweenThemStillReleaseWhatSounded) {
    auto song = velt_core::SongBuilder("Seeks")
                    .Bars(4)
                    .Track(kStrings, "strings", 0, kRange)
                    .Note(kStrings, 0, 60, 100, kBar)
                    .Note(kStrings, 2 * kBar, 70, 101, kBar)
                    .Note(kStrings, 3 * kBar + 500, 80, 102, 1000)
                    .Build();
    RangedMidiStream stream(*song);
    RecordingMidiBuffer buffer(1, 64);
    stream.EnqueueInitialEvents(10, 0, buffer);
    buffer.TakeEvents();
    // Only 60 sounds; 70 belongs to a position that was sought but never played.
    stream.Seek(2 * kBar + 10);
    stream.Seek(3 * kBar + 400);
    stream.EnqueueEventsWithPersistence(3 * kBar + 600, 0, 0, buffer, false);
    EXPECT_EQ(buffer.Events(0), (EventList{Off(kStrings, 60, 100), Bend(kStrings, 0, 64),
                                           On(kStrings, 80, 102, 3 * kBar + 500)}));

    buffer.TakeEvents();
    stream.Seek(kBar / 2);
    stream.Seek(2 * kBar + 10);
    stream.AllNotesOff(0, buffer);
    EXPECT_EQ(buffer.Events(0), (EventList{Off(kStrings, 80, 102, 3 * kBar + 500)}));
}

TEST(MidiStreamSeek, ATranspositionChangeInPlaceReleasesAtTheOldPitchAndStrikesAtTheNew) {
    auto song = velt_core::SongBuilder("Transpose")
                    .Bars(2)
                    .Track(kStrings, "strings", 0, kRange)
                    .Note(kStrings, 0, 60, 100, 1000)
                    .Note(kStrings, 0, 40, 90, 2000)
                    .Build();
    RangedMidiStream stream(*song);
    RecordingMidiBuffer buffer(1, 64);
    stream.EnqueueInitialEvents(100, 2, buffer);
    buffer.TakeEvents();
    // From +2 to -10: 60 moves from 62 to 50; 40 stays on 42 (30 is an octave below the range).
    stream.Seek(stream.GetCurrentTick());
    stream.EnqueueEventsWithPersistence(200, 2, -10, buffer, false);
    EXPECT_EQ(buffer.Events(0),
              (EventList{Off(kStrings, 62, 100), Bend(kStrings, 0, 64), On(kStrings, 50, 100)}));
    buffer.TakeEvents();
    stream.EnqueueEvents(1500, -10, buffer, false);
    stream.AllNotesOff(-10, buffer);
    EXPECT_EQ(buffer.Events(0), (EventList{Off(kStrings, 50, 0x40, 1000), Off(kStrings, 42, 90)}));
}

TEST(MidiStreamEnqueue, WritesEachPeriodsEventsOnceInTrackOrder) {
    auto song = velt_core::SongBuilder("Play")
                    .Bars(2)
                    .Track(0x12, "b", 0, kRange)
                    .Note(0x12, 0, 40, 100, 200)
                    .Track(0x02, "a", 0, kRange)
                    .Note(0x02, 100, 60, 100, 300)
                    .Build();
    RangedMidiStream stream(*song);
    RecordingMidiBuffer buffer(2, 64);
    stream.EnqueueEvents(150, 1, buffer, false);
    EXPECT_EQ(buffer.Events(0), (EventList{On(0x02, 61, 100, 100)}));
    EXPECT_EQ(buffer.Events(1), (EventList{On(0x12, 41, 100, 0)}));
    buffer.TakeEvents();
    stream.EnqueueEvents(400, 1, buffer, true);
    EXPECT_TRUE(buffer.Events(0).empty());  // the note-off at 400 belongs to the next period
    EXPECT_EQ(buffer.Events(1), (EventList{Off(0x12, 41, 0x40, 200)}));
    EXPECT_TRUE(buffer.GetShouldSendAllNotesOff());
    EXPECT_EQ(buffer.GetDoneCount(), 2);
}

TEST(MidiStreamEnqueue, ASecondNoteOnOnASoundingPitchReleasesItFirst) {
    // At +5, 82 and 94 both sound as 87 (99 is above the range and is lowered an octave).
    auto song = velt_core::SongBuilder("Restrike")
                    .Bars(2)
                    .Track(kStrings, "strings", 0, kRange)
                    .Note(kStrings, 0, 82, 100, 400)
                    .Event(kStrings, 10, 0x90, 60, 70)
                    .Event(kStrings, 50, 0x90, 60, 71)  // the same key again, still held
                    .Event(kStrings, 150, 0x80, 60, 64)
                    .Note(kStrings, 100, 94, 90, 200)
                    .Build();
    RangedMidiStream stream(*song);
    RecordingMidiBuffer buffer(1, 64);
    stream.EnqueueEvents(350, 5, buffer, false);
    EXPECT_EQ(
        buffer.Events(0),
        (EventList{On(kStrings, 87, 100, 0), On(kStrings, 65, 70, 10), Off(kStrings, 65, 71, 50),
                   On(kStrings, 65, 71, 50), Off(kStrings, 87, 90, 100), On(kStrings, 87, 90, 100),
                   Off(kStrings, 65, 64, 150), Off(kStrings, 87, 0x40, 300)}));
    // A restored state holding both keys strikes the shared pitch once at a time as well.
    buffer.TakeEvents();
    stream.AllNotesOff(5, buffer);
    buffer.TakeEvents();
    stream.Seek(200);
    stream.EnqueueInitialEvents(210, 5, buffer);
    EXPECT_EQ(buffer.Events(0), (EventList{Bend(kStrings, 0, 64), On(kStrings, 87, 100, 0),
                                           Off(kStrings, 87, 90, 100), On(kStrings, 87, 90, 100)}));

    // The release fits but the strike does not: the strike is retried alone, not released again.
    RangedMidiStream again(*song);
    RecordingMidiBuffer small(1, 3);
    again.EnqueueEvents(60, 5, small, false);
    EXPECT_EQ(small.Events(0), (EventList{On(kStrings, 87, 100, 0), On(kStrings, 65, 70, 10),
                                          Off(kStrings, 65, 71, 50)}));
    small.TakeEvents();
    again.EnqueueEvents(60, 5, small, false);
    EXPECT_EQ(small.Events(0), (EventList{On(kStrings, 65, 71, 50)}));
}

TEST(MidiStreamMutes, MutedTracksAreSilencedInTrackOrderAtTheStartOfThePeriod) {
    auto song = velt_core::SongBuilder("Mutes")
                    .Bars(2)
                    .Track(0x12, "a", 0, kRange)
                    .Note(0x12, 0, 60, 100, 100)
                    .Track(0x25, "b", 0, kRange)
                    .Track(0x20, "c", 0, kRange)
                    .Note(0x20, 0, 61, 100, 100)
                    .Build();
    RangedMidiStream stream(*song);
    RecordingMidiBuffer buffer(3, 64);
    stream.MuteTrack(0x25);
    stream.MuteTrack(0x12);
    stream.SendAllNotesOffForMutedTracks();
    stream.EnqueueEvents(10, 0, buffer, false);
    EXPECT_EQ(buffer.Events(1), (EventList{Cc(0x12, 123, 0), Cc(0x12, 121, 0)}));
    EXPECT_EQ(buffer.Events(2), (EventList{Cc(0x25, 123, 0), Cc(0x25, 121, 0), On(0x20, 61, 100)}));
    buffer.TakeEvents();
    stream.EnqueueEvents(20, 0, buffer, false);  // the request was one-shot
    EXPECT_TRUE(buffer.Events(1).empty());
    EXPECT_TRUE(buffer.Events(2).empty());
}

// Two tracks share port 1, where every message reaches the device on one channel: controller 123
// cannot say which track it means, and some synths ignore it. The muted track's own notes get
// note-offs at the pitch they sound at; the other track's note is left alone, and a stop later
// releases only the notes that still sound.
TEST(MidiStreamMutes, AMuteReleasesTheTracksOwnNotesAndAStopDoesNotReleaseThemAgain) {
    auto song = velt_core::SongBuilder("SharedPort")
                    .Bars(2)
                    .Track(0x12, "a", 0, kRange)
                    .Note(0x12, 0, 60, 100, 1000)
                    .ControlChange(0x12, 0, 7, 90)
                    .Track(0x13, "b", 0, kRange)
                    .Note(0x13, 0, 64, 100, 1000)
                    .Build();
    RangedMidiStream stream(*song);
    RecordingMidiBuffer buffer(2, 64);
    stream.EnqueueEvents(10, 2, buffer, false);
    buffer.TakeEvents();
    stream.MuteTrack(0x12);
    stream.SendAllNotesOffForMutedTracks();
    stream.EnqueueEvents(20, 2, buffer, false);
    EXPECT_EQ(buffer.Events(1),
              (EventList{Cc(0x12, 123, 0), Cc(0x12, 121, 0), Off(0x12, 62, 100)}));
    buffer.TakeEvents();
    stream.AllNotesOff(2, buffer);
    EXPECT_EQ(buffer.Events(1), (EventList{Cc(0x12, 7, 0), Off(0x13, 66, 100)}));
}

TEST(MidiStreamMutes, AMutedTracksEventsAreSkippedAndUnmutingRestoresItsState) {
    auto song = velt_core::SongBuilder("Restore")
                    .Bars(2)
                    .Track(kStrings, "strings", 0, kRange)
                    .Note(kStrings, 0, 60, 100, 1000)
                    .ControlChange(kStrings, 50, 7, 99)
                    .Note(kStrings, 100, 62, 100, 50)
                    .Note(kStrings, 400, 64, 100, 1000)
                    .Build();
    RangedMidiStream stream(*song);
    RecordingMidiBuffer buffer(1, 64);
    stream.UnmuteTrack(kStrings);  // not muted: nothing to restore
    stream.MuteTrack(kStrings);
    stream.EnqueueEvents(300, 0, buffer, false);
    EXPECT_TRUE(buffer.Events(0).empty());
    stream.UnmuteTrack(kStrings);
    EXPECT_TRUE(stream.GetMutedTracks().empty());
    stream.EnqueueEvents(500, 5, buffer, false);
    // The state at 300 (note 62 has come and gone unheard), then the period's own events.
    EXPECT_EQ(buffer.Events(0), (EventList{Cc(kStrings, 7, 99, 50), Bend(kStrings, 0, 64),
                                           On(kStrings, 65, 100, 0), On(kStrings, 69, 100, 400)}));
    // The restored notes are known to the chase state, so that a stop releases them.
    buffer.TakeEvents();
    stream.AllNotesOff(5, buffer);
    EXPECT_EQ(buffer.Events(0), (EventList{Off(kStrings, 65, 100), Off(kStrings, 69, 100, 400),
                                           Cc(kStrings, 7, 0, 50)}));
}

TEST(MidiStreamMutes, UnmuteAllAndReplacingTheSetRestoreNothing) {
    auto song = velt_core::SongBuilder("UnmuteAll")
                    .Bars(2)
                    .Track(kStrings, "strings", 0, kRange)
                    .Note(kStrings, 0, 60, 100, 1000)
                    .Note(kStrings, 600, 62, 100, 100)
                    .Build();
    RangedMidiStream stream(*song);
    RecordingMidiBuffer buffer(1, 64);
    stream.SetMutedTracks(std::map<unsigned short, bool>{{kStrings, true}, {kHorn, false}});
    EXPECT_EQ(stream.GetMutedTracks(), (std::set<unsigned short>{kStrings}));
    stream.EnqueueEvents(300, 0, buffer, false);
    stream.UnmuteAll();
    stream.EnqueueEvents(700, 0, buffer, false);
    // Only the next event; the held note 60 is not restored.
    EXPECT_EQ(buffer.Events(0), (EventList{On(kStrings, 62, 100, 600)}));

    buffer.TakeEvents();
    stream.MuteTrack(kStrings);
    stream.UnmuteTrack(kStrings);                            // a restore is pending ...
    stream.SetMutedTracks(std::set<unsigned short>{kHorn});  // ... and dropped
    stream.EnqueueEvents(701, 0, buffer, false);
    EXPECT_EQ(buffer.Events(0), (EventList{Off(kStrings, 62, 0x40, 700)}));  // no state sent
}

TEST(MidiStreamEnqueue, AFullPortStopsTheRemainingTracksAndRetriesTheEventThatDidNotFit) {
    auto song = velt_core::SongBuilder("Full")
                    .Bars(2)
                    .Track(0x00, "a", 0, kRange)
                    .Note(0x00, 0, 60, 100, 100)
                    .Note(0x00, 0, 61, 100, 100)
                    .Note(0x00, 0, 62, 100, 100)
                    .Track(0x01, "b", 0, kRange)
                    .Note(0x01, 0, 70, 100, 100)
                    .Track(0x12, "c", 0, kRange)
                    .Note(0x12, 0, 40, 100, 100)
                    .Build();
    RangedMidiStream stream(*song);
    RecordingMidiBuffer buffer(2, 2);
    stream.EnqueueEvents(50, 0, buffer, false);
    EXPECT_EQ(buffer.Events(0), (EventList{On(0x00, 60, 100), On(0x00, 61, 100)}));
    // Port 0 is full when track 0x01 comes: the loop ends, so port 1 waits as well.
    EXPECT_TRUE(buffer.Events(1).empty());
    EXPECT_EQ(stream.GetPersistence().at(0x00).GetNotes().size(), 3u);

    buffer.TakeEvents();
    stream.EnqueueEvents(60, 0, buffer, false);
    EXPECT_EQ(buffer.Events(0), (EventList{On(0x00, 62, 100), On(0x01, 70, 100)}));
    EXPECT_EQ(buffer.Events(1), (EventList{On(0x12, 40, 100)}));
}

TEST(MidiStreamEnqueue, AMutedTrackIsSkippedEvenWhenItsPortIsFull) {
    auto song = velt_core::SongBuilder("MutedFull")
                    .Bars(2)
                    .Track(0x00, "a", 0, kRange)
                    .Note(0x00, 0, 60, 100, 100)
                    .Track(0x01, "b", 0, kRange)
                    .Note(0x01, 0, 61, 100, 100)
                    .Track(0x02, "c", 0, kRange)
                    .Note(0x02, 0, 62, 100, 100)
                    .Build();
    RangedMidiStream stream(*song);
    RecordingMidiBuffer buffer(1, 1);
    stream.MuteTrack(0x01);
    stream.EnqueueEvents(50, 0, buffer, false);
    buffer.TakeEvents();
    stream.UnmuteAll();
    stream.EnqueueEvents(60, 0, buffer, false);
    // Track 0x01's note was skipped for good; track 0x02 waited behind the full port.
    EXPECT_EQ(buffer.Events(0), (EventList{On(0x02, 62, 100)}));
}

TEST(MidiStreamPrograms, UserProgramsOverrideTheSongUntilItsProgramsAreFollowedAgain) {
    auto song = velt_core::SongBuilder("Programs")
                    .Bars(2)
                    .Track(0x03, "a", 7, kRange)
                    .ProgramChange(0x03, 10, 20)
                    .ProgramChange(0x03, 200, 21)
                    .Track(0x14, "b", 8, kRange)
                    .ProgramChange(0x14, 10, 30)
                    .Build();
    TamberMidiStream stream(*song);
    EXPECT_EQ(stream.GetCurrentProgramChangesByTrackId(),
              (MidiStream::ProgramMap{{0x03, 7}, {0x14, 8}}));
    RecordingMidiBuffer buffer(2, 64);
    stream.SetUserProgramChange(0x03, 99);
    stream.EnqueueEvents(100, 0, buffer, false);
    EXPECT_TRUE(buffer.Events(0).empty());
    EXPECT_EQ(buffer.Events(1), (EventList{Pc(0x14, 30, 10)}));
    EXPECT_EQ(stream.GetCurrentProgramChangesByTrackId(),
              (MidiStream::ProgramMap{{0x03, 20}, {0x14, 30}}));

    buffer.TakeEvents();
    stream.FollowMidiProgramChanges();
    stream.EnqueueEvents(300, 0, buffer, false);
    // The period's own event, then every track's last program change at the end.
    EXPECT_EQ(buffer.Events(0), (EventList{Pc(0x03, 21, 200), Pc(0x03, 21, 200)}));
    EXPECT_EQ(buffer.Events(1), (EventList{Pc(0x14, 30, 10)}));

    buffer.TakeEvents();
    stream.SetUserProgramChanges({{0x14, 1}});
    stream.Seek(50);
    stream.EnqueueInitialEvents(60, 0, buffer);
    // The restored state skips the overridden program.
    EXPECT_EQ(buffer.Events(0), (EventList{Bend(0x03, 0, 64), Pc(0x03, 20, 10)}));
    EXPECT_EQ(buffer.Events(1), (EventList{Bend(0x14, 0, 64)}));

    stream.FollowMidiProgramChanges();
    stream.ResetProgramChanges();  // drops the pending resend too
    buffer.TakeEvents();
    stream.EnqueueEvents(61, 0, buffer, false);
    EXPECT_TRUE(buffer.Events(0).empty());
    EXPECT_EQ(stream.GetCurrentProgramChangesByTrackId(),
              (MidiStream::ProgramMap{{0x03, 7}, {0x14, 8}}));
}

TEST(MidiStreamEnqueue, AnInvalidEventIsLoggedAndPlaybackGoesOn) {
    CapturedLog log;
    auto song = velt_core::SongBuilder("Invalid")
                    .Bars(2)
                    .Track(0x00, "a", 0, {0, 127})
                    .Note(0x00, 0, 2, 100, 10)  // -5 wraps below 0: not a MIDI note any more
                    .Note(0x00, 1, 60, 100, 10)
                    .Build();
    RangedMidiStream stream(*song);
    RecordingMidiBuffer buffer(1, 64);
    buffer.RejectInvalidEvents(true);
    stream.EnqueueEvents(5, -5, buffer, false);
    EXPECT_EQ(buffer.Events(0), (EventList{On(0x00, 55, 100, 1)}));
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{"InvalidVoiceEvent MidiStream::Enqueue_"}));
    EXPECT_EQ(buffer.GetDoneCount(), 1);
}

TEST(MidiStreamCopy, ACopyPlaysOnIndependentlyFromTheSameState) {
    auto song = velt_core::SongBuilder("Copy")
                    .Bars(2)
                    .Track(0x00, "a", 0, kRange)
                    .Note(0x00, 0, 60, 100, 500)
                    .Build();
    RangedMidiStream original(*song);
    RecordingMidiBuffer first(1, 64);
    original.EnqueueEvents(100, 0, first, false);
    original.Seek(1000);

    RangedMidiStream copy = original;
    RecordingMidiBuffer second(1, 64);
    // The copy knows that what sounded is the state before its seek.
    copy.AllNotesOff(0, second);
    EXPECT_EQ(second.Events(0), (EventList{Off(0x00, 60, 100)}));
    copy.EnqueueEventsWithPersistence(1100, 0, 0, second, false);
    EXPECT_EQ(original.GetCurrentTick(), 1000u);
    EXPECT_EQ(copy.GetCurrentTick(), 1100u);

    original = copy;
    EXPECT_EQ(original.GetCurrentTick(), 1100u);
}

TEST(MidiStreamAttacca, SendsTheStateAtTheCurrentPositionBeforeTheEvents) {
    auto song = velt_core::SongBuilder("Segue")
                    .Bars(2)
                    .Track(0x00, "a", 0, kRange)
                    .ControlChange(0x00, 0, 10, 30)
                    .Note(0x00, 0, 60, 100, 500)
                    .Note(0x00, 300, 64, 100, 500)
                    .Build();
    RangedMidiStream stream(*song);
    RecordingMidiBuffer buffer(1, 64);
    stream.Seek(200);
    stream.EnqueueAttacca(400, -2, buffer);
    EXPECT_EQ(buffer.Events(0), (EventList{Cc(0x00, 10, 30), Bend(0x00, 0, 64), On(0x00, 58, 100),
                                           On(0x00, 62, 100, 300)}));
}
