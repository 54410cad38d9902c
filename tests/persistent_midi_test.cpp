#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "interfaces/kit.h"
#include "midi/persistent_midi.h"
#include "tests/support/captured_log.h"

using velt_midi::VoiceEvent;

namespace {
constexpr unsigned short kTrack = 0x03;

VoiceEvent On(unsigned char note, unsigned char velocity = 100, unsigned int tick = 0) {
    return VoiceEvent(tick, 0x90, kTrack, note, velocity);
}
VoiceEvent Off(unsigned char note, unsigned int tick = 0) {
    return VoiceEvent(tick, 0x80, kTrack, note, 64);
}
VoiceEvent Cc(unsigned char controller, unsigned char value, unsigned int tick = 0) {
    return VoiceEvent(tick, 0xB0, kTrack, controller, value);
}
}  // namespace

TEST(PersistentMIDI, WithoutARangeEveryNoteIsAnUntransposedSwitchAndStaysOneWhenARangeComes) {
    PersistentMIDI state;
    EXPECT_FALSE(state.GetHasRange());
    EXPECT_EQ(state.AddEvent(On(60), 5).data1, 60);
    EXPECT_EQ(state.GetSwitches().count(60), 1u);
    EXPECT_TRUE(state.GetNotes().empty());
    // A range set later does not move what is already held.
    state.SetRange({36, 96});
    EXPECT_EQ(state.GetSwitches().count(60), 1u);
    EXPECT_TRUE(state.GetNotes().empty());
    state.AddEvent(Off(60));
    EXPECT_TRUE(state.GetSwitches().empty());
    // The no-range sentinel is exactly 255 twice, from the constructor and from SetRange.
    for (const auto& [range, hasRange] : std::vector<std::pair<PersistentMIDI::Range, bool>>{
             {{255, 255}, false}, {{255, 254}, true}, {{0, 255}, true}}) {
        EXPECT_EQ(PersistentMIDI(range).GetHasRange(), hasRange);
        state.SetRange(range);
        EXPECT_EQ(state.GetHasRange(), hasRange);
    }
}

TEST(PersistentMIDI, TranspositionCorrectsOneOctaveTowardsTheRange) {
    PersistentMIDI state({36, 96});
    EXPECT_EQ(state.AddEvent(On(60), 5).data1, 65);
    EXPECT_EQ(state.GetNotes().at(60), On(60));      // stored untransposed, under its own key
    EXPECT_EQ(state.AddEvent(On(94), 5).data1, 87);  // 99 > 96: an octave down
    EXPECT_EQ(state.GetTransposedNote(30, -5), 37);  // 25 < 36: an octave up
    EXPECT_EQ(state.GetTransposedNote(10, 5), 27);   // still below the range after one octave
    EXPECT_EQ(state.GetTransposedNote(60, 0), 60);

    // A keyswitch goes out untransposed, but its note-off is transposed like any note-off.
    EXPECT_EQ(state.AddEvent(On(20), 5).data1, 20);
    EXPECT_EQ(state.GetSwitches().count(20), 1u);
    EXPECT_EQ(state.AddEvent(Off(20), 5).data1, 37);
    EXPECT_TRUE(state.GetSwitches().empty());
}

TEST(PersistentMIDI, TranspositionWrapsInByteArithmetic) {
    PersistentMIDI state({0, 127});
    // 2 - 5 wraps to 253, which is above 127, so it is lowered: 241.
    EXPECT_EQ(state.GetTransposedNote(2, -5), 241);
    EXPECT_EQ(state.GetTransposedNote(125, 5), 118);
    const VoiceEvent transposed = state.GetTransposedEvent(VoiceEvent(7, 0x80, kTrack, 2, 9), -5);
    EXPECT_EQ(transposed, VoiceEvent(7, 0x80, kTrack, 241, 9));
}

TEST(PersistentMIDI, TracksEveryKindOfEventAndIgnoresTheRest) {
    PersistentMIDI state({36, 96});
    EXPECT_FALSE(state.HasProgramChange());
    EXPECT_FALSE(state.GetHasPitchBend());
    state.AddEvent(Cc(7, 100));
    state.AddEvent(Cc(7, 90, 10));
    state.AddEvent(Cc(123, 0));  // no controller number is special here
    state.AddEvent(VoiceEvent(4, 0xC0, kTrack, 12, 0));
    state.AddEvent(VoiceEvent(5, 0xE0, kTrack, 0, 80));
    state.AddEvent(VoiceEvent(6, 0xA0, kTrack, 60, 10));  // aftertouch: nothing
    state.AddEvent(On(61, 0));                            // velocity 0 is still a note-on
    state.AddEvent(Off(50));                              // never on: nothing to forget
    EXPECT_EQ(state.GetCCs().size(), 2u);
    EXPECT_EQ(state.GetCCs().at(7).data2, 90);
    EXPECT_TRUE(state.HasProgramChange());
    EXPECT_EQ(state.GetProgramChange().data1, 12);
    EXPECT_TRUE(state.GetHasPitchBend());
    EXPECT_EQ(state.GetPitchBend().data2, 80);
    EXPECT_EQ(state.GetNotes().count(61), 1u);
}

TEST(PersistentMIDI, FiltersForgetWhatIsHeldAndReturnTheOtherSidesEvents) {
    PersistentMIDI state({36, 96});
    state.AddEvent(On(60, 100));
    state.AddEvent(On(64, 100));
    state.AddEvent(On(20, 100));
    state.AddEvent(Cc(7, 100));
    const PersistentMIDI::EventMap other{{60, On(60, 55, 999)}, {67, On(67)}};

    const auto held = state.FilterNotes(other);
    ASSERT_EQ(held.size(), 1u);
    EXPECT_EQ(held.at(60), On(60, 55, 999));
    EXPECT_EQ(state.GetNotes().count(60), 0u);
    EXPECT_TRUE(state.FilterNotes(other).empty());  // already forgotten

    EXPECT_EQ(state.FilterSwitches({{20, On(20, 1)}}).at(20).data2, 1);
    EXPECT_TRUE(state.GetSwitches().empty());

    const auto known = state.FilterCCs({{7, Cc(7, 5)}, {10, Cc(10, 5)}});
    ASSERT_EQ(known.size(), 1u);
    EXPECT_EQ(known.at(7).data2, 5);
    EXPECT_EQ(state.GetCCs().at(7).data2, 100);  // controllers are not forgotten
}

TEST(PersistentMIDI, InversesListReleasesWithoutTouchingTheState) {
    PersistentMIDI state({36, 96});
    state.AddEvent(On(60, 101, 40));
    state.AddEvent(On(62, 102, 41));
    state.AddEvent(On(10, 103, 42));
    state.AddEvent(Cc(7, 100, 43));
    state.AddEvent(Cc(64, 127, 44));

    const auto notes = state.GetInverseNotes({{62, On(62)}});
    ASSERT_EQ(notes.size(), 1u);
    // A note-off on the stored channel at the stored time, with the note-on's velocity.
    EXPECT_EQ(notes.at(60), VoiceEvent(40, 0x80, kTrack, 60, 101));
    EXPECT_EQ(state.GetInverseSwitches({}).at(10), VoiceEvent(42, 0x80, kTrack, 10, 103));

    const auto ccs = state.GetInverseCCs({{7, Cc(7, 1)}});
    ASSERT_EQ(ccs.size(), 1u);
    EXPECT_EQ(ccs.at(64), Cc(64, 0, 44));

    EXPECT_EQ(state.GetNotes().size(), 2u);
    EXPECT_EQ(state.GetCCs().size(), 2u);
    EXPECT_EQ(state.GetInverseNotes({}).size(), 2u);
}

TEST(PersistentMIDI, PrintYourselfListsNotesSwitchesAndControllers) {
    CapturedLog log;
    PersistentMIDI state({36, 96});
    state.AddEvent(On(60, 100, 480));
    state.AddEvent(On(10, 90, 0));
    state.AddEvent(Cc(7, 100, 0));
    state.AddEvent(VoiceEvent(0, 0xC0, kTrack, 5, 0));
    state.PrintYourself();

    const std::vector<std::string> expected{
        "PersistentMidi",           "  Notes:", "    C4      480 0x93 60 100", "  Switches:",
        "    A#-1    0 0x93 10 90", "  CCs:",   "    7       0 0xB3 7 100"};
    EXPECT_EQ(log.Lines(), expected);
}
