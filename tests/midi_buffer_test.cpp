#include <gtest/gtest.h>

#include <thread>

#include "interfaces/notify.h"
#include "tests/recording_midi_buffer.h"

using velt_midi::VoiceEvent;

namespace {
VoiceEvent ProgramChange(unsigned short trackId, unsigned char program) {
    return VoiceEvent(0, 0xC0, trackId, program, 0);
}
}  // namespace

TEST(MidiBuffer, OneShotRequestsAreReadOnceAndIgnoredOnAFirstBuffer) {
    RecordingMidiBuffer buffer(1, 16);
    buffer.SetShouldSendAllNotesOff();
    buffer.SetShouldSendAllCCsOff();
    EXPECT_TRUE(buffer.GetShouldSendAllNotesOff());
    EXPECT_FALSE(buffer.GetShouldSendAllNotesOff());
    EXPECT_TRUE(buffer.GetShouldSendAllCCsOff());
    EXPECT_FALSE(buffer.GetShouldSendAllCCsOff());

    RecordingMidiBuffer first(1, 16);
    first.SetIsFirstBuffer();
    first.SetShouldSendAllNotesOff();
    first.SetShouldSendAllCCsOff();
    EXPECT_FALSE(first.GetShouldSendAllNotesOff());
    EXPECT_FALSE(first.GetShouldSendAllCCsOff());
}

TEST(MidiBuffer, ResetClearsThePeriodButKeepsControllersOffTimeCodeAndPluginIds) {
    RecordingMidiBuffer buffer(2, 16);
    buffer.SetShouldSendAllNotesOff();
    buffer.SetShouldSendAllCCsOff();
    buffer.SetTickIndex(480);
    buffer.SetClockNumber(7);
    buffer.SetIsLastBuffer(true);
    buffer.SetIsFirstBuffer();
    buffer.SetTimeCodeSeconds(1.5);
    buffer.SetNextTimeCodeSeconds(1.75);
    buffer.SetClocksPerClick(24);
    buffer.SetPluginIds({3u, {4u, 5u}});
    buffer.AddEventToBuffer(1, ProgramChange(0x12, 9));
    EXPECT_EQ(buffer.GetPortEventCount(1), 1);

    buffer.Reset();

    EXPECT_FALSE(buffer.GetShouldSendAllNotesOff());
    EXPECT_TRUE(buffer.GetShouldSendAllCCsOff());
    EXPECT_EQ(buffer.GetTickIndex(), 0u);
    EXPECT_EQ(buffer.GetClockNumber(), 0);
    EXPECT_FALSE(buffer.GetIsLastBuffer());
    EXPECT_FALSE(buffer.GetIsFirstBuffer());
    EXPECT_FALSE(buffer.GetHasPluginIds());
    EXPECT_EQ(buffer.GetOnDeckPluginIds().first, 3u);
    EXPECT_EQ(buffer.GetOnDeckPluginIds().second, (std::vector<std::uint32_t>{4, 5}));
    EXPECT_DOUBLE_EQ(buffer.GetTimeCodeSeconds(), 1.5);
    EXPECT_DOUBLE_EQ(buffer.GetNextTimeCodeSeconds(), 1.75);
    EXPECT_DOUBLE_EQ(buffer.GetClockTimeSeconds(120), 1.0 / 48);
    EXPECT_EQ(buffer.GetPortEventCount(1), 0);
    // has-data was cleared: an empty buffer times out.
    EXPECT_FALSE(buffer.WaitUntilReadyForOutput());
}

TEST(MidiBuffer, ProgramChangesAreKeyedByPortAndChannelAndNotifiedOnlyWhenPresent) {
    RecordingMidiBuffer buffer(3, 16);
    std::vector<MidiBuffer::ProgramChangeMap> received;
    int target = 0;
    notify::callbackDispatcher.AddCallback(
        notify::names::currentProgramIds, &target, [&](void* payload) {
            received.push_back(*static_cast<MidiBuffer::ProgramChangeMap*>(payload));
        });

    buffer.SendProgramChanges();
    EXPECT_TRUE(received.empty());

    buffer.AddEventToBuffer(0, ProgramChange(0x03, 10));
    buffer.AddEventToBuffer(0, ProgramChange(0x03, 11));  // replaces 10
    buffer.AddEventToBuffer(2, ProgramChange(0x23, 12));  // same channel, another port
    buffer.AddEventToBuffer(0, VoiceEvent(0, 0xB0, 0x04, 7, 100));
    buffer.SendProgramChanges();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0], (MidiBuffer::ProgramChangeMap{{0x0003, 11}, {0x0203, 12}}));

    buffer.Reset();
    buffer.SendProgramChanges();
    EXPECT_EQ(received.size(), 1u);
    notify::callbackDispatcher.RemoveCallbacksForTarget(&target);
}

TEST(MidiBuffer, TheLastBufferWakesTheSenderAndAnEmptiedBufferWakesTheFiller) {
    RecordingMidiBuffer buffer(1, 16);
    buffer.SetIsLastBuffer(false);
    EXPECT_FALSE(buffer.WaitUntilReadyForOutput());
    EXPECT_TRUE(buffer.WaitUntilNeedsData());  // no data: the filler goes on at once

    bool ready = false;
    std::thread sender([&] { ready = buffer.WaitUntilReadyForOutput(); });
    buffer.SetIsLastBuffer(true);
    sender.join();
    EXPECT_TRUE(ready);

    buffer.SetHasData(true);
    std::thread filler([&] { EXPECT_TRUE(buffer.WaitUntilNeedsData()); });
    buffer.SetHasData(false);  // whether or not the filler waits yet, it must come back
    filler.join();
}

TEST(AddAllNotesOff, WritesNotesOffThenResetPerChannelOnPortZeroOnlyEvenWhenFull) {
    RecordingMidiBuffer buffer(2, 64);
    AddAllNotesOff(buffer);
    const auto& events = buffer.Events(0);
    ASSERT_EQ(events.size(), 32u);
    for (unsigned char channel = 0; channel < 16; ++channel) {
        EXPECT_EQ(events[2 * channel], VoiceEvent(0, 0xB0, channel, 123, 0));
        EXPECT_EQ(events[2 * channel + 1], VoiceEvent(0, 0xB0, channel, 121, 0));
    }
    EXPECT_TRUE(buffer.Events(1).empty());
    EXPECT_EQ(buffer.GetDoneCount(), 1);

    RecordingMidiBuffer controllers(1, 64);
    AddAllCCsOff(controllers);
    ASSERT_EQ(controllers.Events(0).size(), 16u);
    EXPECT_EQ(controllers.Events(0)[15], VoiceEvent(0, 0xB0, 15, 121, 0));
    EXPECT_EQ(controllers.GetDoneCount(), 1);

    // A full buffer does not stop the loop: every message is tried, and the period still ends.
    RecordingMidiBuffer full(1, 5);
    AddAllNotesOff(full);
    ASSERT_EQ(full.Events(0).size(), 5u);
    EXPECT_EQ(full.Events(0)[4], VoiceEvent(0, 0xB0, 2, 123, 0));
    EXPECT_EQ(full.GetAttemptCount(), 32);
    EXPECT_EQ(full.GetDoneCount(), 1);
}
