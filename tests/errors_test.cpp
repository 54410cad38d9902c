// The engine's exception tree and the input side's three-byte message.
#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "midi/velt_midi_error.h"
#include "tests/support/captured_log.h"

namespace {

// Each class: constructible from a message and by copy only, no fields of its own, and the
// direct base given.
template <typename Error, typename Base>
void ExpectShape(const char* name) {
    SCOPED_TRACE(name);
    EXPECT_TRUE((std::is_base_of_v<Base, Error>));
    EXPECT_TRUE((std::is_base_of_v<std::runtime_error, Error>));
    EXPECT_TRUE((std::is_constructible_v<Error, const std::string&>));
    EXPECT_TRUE(std::is_copy_constructible_v<Error>);
    EXPECT_FALSE(std::is_default_constructible_v<Error>);
    EXPECT_EQ(sizeof(Error), sizeof(std::runtime_error));
    // Copies keep the text, also when copied through the base.
    std::string text = name;
    text.append(" text");
    Error original(text);
    Error copy(original);
    const Base& asBase = copy;
    EXPECT_EQ(asBase.what(), text);
}

TEST(Errors, EveryClassHasItsBaseAndOnlyTheTwoConstructors) {
    ExpectShape<VeltMidiError, std::runtime_error>("VeltMidiError");
    ExpectShape<MidiImplementationError, VeltMidiError>("MidiImplementationError");
    ExpectShape<MidiDeviceUnavailable, MidiImplementationError>("MidiDeviceUnavailable");
    ExpectShape<SforzandoError, MidiImplementationError>("SforzandoError");
    ExpectShape<InvalidVoiceEvent, VeltMidiError>("InvalidVoiceEvent");
    ExpectShape<MidiPortError, VeltMidiError>("MidiPortError");
    ExpectShape<MidiTimeCodeError, VeltMidiError>("MidiTimeCodeError");
    ExpectShape<InvalidFrameCount, MidiTimeCodeError>("InvalidFrameCount");
    ExpectShape<InvalidSecondCount, MidiTimeCodeError>("InvalidSecondCount");
    ExpectShape<InvalidMinuteCount, MidiTimeCodeError>("InvalidMinuteCount");
    ExpectShape<InvalidHourCount, MidiTimeCodeError>("InvalidHourCount");
    ExpectShape<MidiTimeCodeFrameRateError, MidiTimeCodeError>("MidiTimeCodeFrameRateError");
    ExpectShape<QuarterFrameIndexError, MidiTimeCodeError>("QuarterFrameIndexError");
    // Siblings stay apart: a port error is no implementation error.
    EXPECT_FALSE((std::is_base_of_v<MidiImplementationError, MidiPortError>));
    EXPECT_FALSE((std::is_base_of_v<MidiImplementationError, QuarterFrameIndexError>));
    EXPECT_FALSE((std::is_base_of_v<MidiTimeCodeError, InvalidVoiceEvent>));
}

// Both forms of the common failure path: the text is logged after "[ERROR] " as one line and is
// the text of the VeltMidiError thrown (the root class itself, not a subclass).
TEST(Errors, FailurePathsLogTheTextAndThrowItAsVeltMidiError) {
    const auto expectFailure = [](const std::function<void()>& fail, const std::string& text) {
        SCOPED_TRACE(text);
        CapturedLog log;
        try {
            fail();
            ADD_FAILURE() << "nothing thrown";
        } catch (const VeltMidiError& error) {
            EXPECT_EQ(error.what(), text);
            EXPECT_EQ(typeid(error), typeid(VeltMidiError));
        }
        EXPECT_EQ(log.Lines(), std::vector<std::string>{"[ERROR] " + text});
    };
    expectFailure([] { LogAndThrowFailure("src/a", 57, "calling midiStreamOut", "device busy"); },
                  "src/a line 57: calling midiStreamOut failed. device busy");
    expectFailure([] { LogAndThrowErrorNumber("src/b", 206, 8, "CreateWaitableTimerW"); },
                  "src/b line 206: Error 8 CreateWaitableTimerW.");
    expectFailure([] { LogAndThrowErrorNumber("src/b", 7, -1, ""); }, "src/b line 7: Error -1.");
}

TEST(MidiMessage, SplitsKindAndChannelAndOnlyThreeKindsAreAccepted) {
    EXPECT_EQ(sizeof(MIDIMessage), 3u);
    EXPECT_EQ(offsetof(MIDIMessage, status), 0u);
    EXPECT_EQ(offsetof(MIDIMessage, data1), 1u);
    EXPECT_EQ(offsetof(MIDIMessage, data2), 2u);

    MIDIMessage message{0x9F, 60, 100};
    EXPECT_EQ(message.GetStatus(), 0x90);
    EXPECT_EQ(message.GetChannel(), 15);
    EXPECT_EQ((MIDIMessage{0xB0, 7, 0}).GetChannel(), 0);

    EXPECT_EQ(allowedStatuses, (std::set<std::uint8_t>{0x90, 0xB0, 0xC0}));
    // Membership is by kind, so every channel of an accepted kind is accepted.
    EXPECT_EQ(allowedStatuses.count((MIDIMessage{0xC7, 5, 0}).GetStatus()), 1u);
}

}  // namespace
