#include <gtest/gtest.h>

#include "tests/stream_test_support.h"
#include "velt_core/song_builder.h"

using namespace stream_test;
using EventList = RecordingMidiBuffer::EventList;

TEST(MidiScaler, ScalesByAPercentageOfAtMost127) {
    MidiScaler scaler;
    EXPECT_EQ(scaler.GetScaledMidiValue(127), 127);
    scaler.SetScale(127);
    EXPECT_EQ(scaler.GetScaledMidiValue(100), 127);
    EXPECT_EQ(scaler.GetScaledMidiValue(64), 81);
    scaler.SetScale(50);
    EXPECT_EQ(scaler.GetScaledMidiValue(127), 63);
    scaler.SetScale(200);
    EXPECT_EQ(scaler.GetScale(), 127);
}

TEST(MidiVolumeScaler, RemembersWhichTracksChangedUntilAsked) {
    MidiVolumeScaler scaler;
    EXPECT_EQ(scaler.GetScale(0x05), 100);
    EXPECT_FALSE(scaler.GetHasRecentlyAffectedTrackIds());
    scaler.SetTrackTrim(0x05, 255);
    scaler.SetAllTracksTrim({{0x01, 50}, {0x22, 80}});
    EXPECT_EQ(scaler.GetScale(0x05), 127);
    EXPECT_EQ(scaler.GetScaledMidiValue(0x01, 127), 63);
    EXPECT_TRUE(scaler.GetHasRecentlyAffectedTrackIds());
    EXPECT_EQ(scaler.GetRecentlyAffectedTrackIds(), (std::set<unsigned short>{0x01, 0x05, 0x22}));
    EXPECT_TRUE(scaler.GetRecentlyAffectedTrackIds().empty());
}

TEST(TamberMidiStream, TransposesEveryChannelButPercussion) {
    auto song = velt_core::SongBuilder("Tamber")
                    .Bars(2)
                    .Track(0x09, "drums", 0, {36, 60})
                    .Note(0x09, 0, 38, 100, 10)
                    .Track(0x01, "bass", 33, {40, 50})  // the track's own range is not used
                    .Note(0x01, 0, 20, 100, 10)
                    .Build();
    TamberMidiStream stream(*song);
    EXPECT_EQ(stream.GetTrackNamesByTrackId(),
              (std::map<unsigned short, std::string>{{0x01, "bass"}, {0x09, "drums"}}));
    EXPECT_EQ(stream.GetCurrentProgramChangesByTrackId(),
              (MidiStream::ProgramMap{{0x01, 33}, {0x09, 0}}));
    RecordingMidiBuffer buffer(1, 64);
    stream.EnqueueEvents(20, 2, buffer, false);
    EXPECT_EQ(buffer.Events(0), (EventList{On(0x01, 22, 100), Off(0x01, 22, 0x40, 10),
                                           On(0x09, 38, 100), Off(0x09, 38, 0x40, 10)}));
    EXPECT_FALSE(stream.GetCheckpoints().at(0).at(0x09).GetHasRange());
    EXPECT_EQ(stream.GetCheckpoints().at(0).at(0x01).GetRange(), PersistentMIDI::Range(0, 127));
}

TEST(ParvelMidiStream, ScalesChannelVolumeAndSendsTrimChangesAtTheNextPeriod) {
    auto song = velt_core::SongBuilder("Parvel")
                    .Bars(2)
                    .Track(0x01, "strings", 5, {36, 96})
                    .ControlChange(0x01, 0, 7, 100)
                    .ControlChange(0x01, 0, 11, 100)
                    .Track(0x12, "horn", 0, {36, 96})
                    .Note(0x12, 0, 60, 100, 10)
                    .Build();
    MidiVolumeScaler scaler;
    ParvelMidiStream stream(*song, scaler);
    EXPECT_EQ(stream.GetTrackNamesByTrackId().at(0x12), "horn");
    EXPECT_TRUE(stream.GetCurrentProgramChangesByTrackId().empty());  // no defaults kept

    RecordingMidiBuffer buffer(2, 64);
    scaler.SetTrackTrim(0x01, 50);
    stream.EnqueueEvents(5, 0, buffer, false);
    // The trim change comes first, before the song's state has a volume: a nominal volume.
    EXPECT_EQ(buffer.Events(0), (EventList{Cc(0x01, 7, 50), Cc(0x01, 7, 50), Cc(0x01, 11, 100)}));

    buffer.TakeEvents();
    scaler.SetAllTracksTrim({{0x01, 127}, {0x12, 80}});
    stream.EnqueueEvents(6, 0, buffer, false);
    EXPECT_EQ(buffer.Events(0), (EventList{Cc(0x01, 7, 127)}));  // 100 scaled by 127 per cent
    EXPECT_EQ(buffer.Events(1), (EventList{Cc(0x12, 7, 80)}));

    // Restored controllers pass through the trim as well.
    buffer.TakeEvents();
    stream.Seek(3);
    stream.EnqueueInitialEvents(4, 0, buffer);
    EXPECT_EQ(buffer.Events(0),
              (EventList{Cc(0x01, 7, 127), Cc(0x01, 11, 100), Bend(0x01, 0, 64)}));
}
