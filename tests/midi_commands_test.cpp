// Learned transport commands end to end: a virtual input device, the dispatcher, the commands
// object and its settings file.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/notify.h"
#include "midi/midi_commands.h"
#include "midi_input_support.h"
#include "platform/virtual_midi.h"
#include "tests/support/captured_log.h"
#include "tests/support/temp_folder.h"

using namespace midi_input_test;
using midi_commands::LearnedCommand;
using midi_commands::MidiCommands;
using velt_platform::VirtualMidiInput;

namespace {

class MidiCommandsTest : public ::testing::Test {
  protected:
    void SetUp() override { notify::guiDispatcher.SetSink(gui_); }
    void TearDown() override { notify::guiDispatcher.SetSink(nullptr); }

    std::vector<std::uint8_t> FileBytes() const { return test_support::ReadBytes(path_); }
    void WriteFile(const std::vector<std::uint8_t>& bytes) const {
        test_support::WriteBytes(path_, bytes);
    }
    std::vector<notify::GuiMessage> GuiCalls(const std::string& operation) const {
        std::vector<notify::GuiMessage> calls;
        for (const auto& message : gui_->GetMessages()) {
            if (message.operation == operation) {
                calls.push_back(message);
            }
        }
        return calls;
    }

    std::shared_ptr<notify::RecordingGuiSink> gui_ = std::make_shared<notify::RecordingGuiSink>();
    test_support::TempFolder folder_;
    std::filesystem::path path_ = folder_.path() / "midi_commands.dat";
};

const std::string& kPlay = notify::names::midiCommandPlay;
const std::string& kPause = notify::names::midiCommandPause;
const std::string& kNextSong = notify::names::midiCommandNextSong;
const std::string& kStop = notify::names::midiCommandStop;

std::vector<std::uint8_t> Header() {
    std::vector<std::uint8_t> bytes{20};
    for (const char c : std::string("MidiCommandsSettings")) {
        bytes.push_back(static_cast<std::uint8_t>(c));
    }
    return bytes;
}

}  // namespace

TEST_F(MidiCommandsTest, ANoteTeachesOneCommandWhichSurvivesARestart) {
    VirtualMidiInput own("VELT Out");
    VirtualMidiInput pads("Pads");
    MidiMessageDispatcher dispatcher;
    NotificationLog log({kPause, kNextSong, kStop, notify::names::midiCommandLearned});
    {
        MidiCommands commands(dispatcher, path_.string());
        EXPECT_THROW(commands.ConnectSourceByIndex(0), MidiPortError);  // the product's own
        EXPECT_FALSE(commands.HasMidiSource());
        commands.ConnectSourceByIndex(1);
        EXPECT_EQ(commands.GetConnectedSourceIndex(), 1);
        EXPECT_EQ(GuiCalls("SendSourceConnected"),
                  (std::vector<notify::GuiMessage>{{"SendSourceConnected", "1"}}));

        commands.LearnMidiCommandNoAssign(3);
        EXPECT_TRUE(commands.IsMidiCommandLearning(3));
        ASSERT_TRUE(pads.SendShort(0x92, 60, 100));
        ASSERT_TRUE(log.WaitFor(notify::names::midiCommandLearned, 1));
        EXPECT_FALSE(commands.IsMidiCommandLearning(3));
        commands.LearnMidiCommandNoAssign(5);
        ASSERT_TRUE(pads.SendShort(0x92, 60, 90));
        ASSERT_TRUE(log.WaitFor(notify::names::midiCommandLearned, 2));
        EXPECT_EQ(commands.GetLearnedCommands(),
                  (std::map<unsigned char, LearnedCommand>{{5, {5, 0x90, 2, 60}}}));
        EXPECT_EQ(GuiCalls("SendMidiCommandCanceled"),
                  (std::vector<notify::GuiMessage>{{"SendMidiCommandCanceled", "3"}}));
        EXPECT_EQ(GuiCalls("SendLearnedMIDICommand"),
                  (std::vector<notify::GuiMessage>{
                      {"SendLearnedMIDICommand", std::to_string(3 * 65536 + 0x92 * 256 + 60)},
                      {"SendLearnedMIDICommand", std::to_string(5 * 65536 + 0x92 * 256 + 60)}}));
        // Learning ran neither command.
        EXPECT_EQ(log.Count(kPause) + log.Count(kNextSong), 0u);

        commands.SetMidiCommand(4, 0xB0, 2, 64);    // a fence bound to Stop
        ASSERT_TRUE(pads.SendShort(0x92, 60, 0));   // velocity 0: a note off
        ASSERT_TRUE(pads.SendShort(0x82, 60, 64));  // note off
        ASSERT_TRUE(pads.SendShort(0x93, 60, 64));  // another channel
        ASSERT_TRUE(pads.SendShort(0xB2, 64, 127));
        ASSERT_TRUE(log.WaitFor(kStop, 1));
        EXPECT_EQ(log.Count(kNextSong), 0u);

        ASSERT_TRUE(pads.SendShort(0x92, 60, 100));
        ASSERT_TRUE(log.WaitFor(kNextSong, 1));
        ASSERT_TRUE(pads.SendShort(0xB2, 64, 127));
        ASSERT_TRUE(log.WaitFor(kStop, 2));
        EXPECT_EQ(log.Count(kNextSong), 1u);
        EXPECT_EQ(log.Count(kPause), 0u);
        EXPECT_NE(log.Threads(kNextSong)[0], std::this_thread::get_id());
    }
    // The commands object is gone; its bindings stay with the dispatcher until it reconnects.
    dispatcher.Disconnect();
    EXPECT_FALSE(dispatcher.GetIsConnected());

    MidiCommands restored(dispatcher, path_.string());
    EXPECT_TRUE(restored.HasMidiSource());
    EXPECT_EQ(restored.GetConnectedSourceIndex(), 1);
    EXPECT_EQ(restored.GetLearnedCommands(), (std::map<unsigned char, LearnedCommand>{
                                                 {4, {4, 0xB0, 2, 64}}, {5, {5, 0x90, 2, 60}}}));
    ASSERT_TRUE(pads.SendShort(0x92, 60, 100));
    ASSERT_TRUE(log.WaitFor(kNextSong, 2));
}

TEST_F(MidiCommandsTest, TheSettingsFileHasItsExactLayout) {
    VirtualMidiInput own("VELT Out");
    VirtualMidiInput keys("Keys");
    auto pads = std::make_unique<VirtualMidiInput>("Pads");
    MidiMessageDispatcher dispatcher;
    {
        MidiCommands commands(dispatcher, path_.string());
        commands.ConnectSourceByIndex(2);
        commands.SetMidiCommand(9, 0xC0, 15, 127);
        commands.SetMidiCommand(0, 0x90, 0, 36);
        commands.SetMidiCommand(2, 0xB0, 1, 64);
        EXPECT_TRUE(commands.GetHasConductBeat());
        commands.UnsetMidiCommand(0);
        EXPECT_FALSE(commands.GetHasConductBeat());
        commands.SetMidiCommand(0, 0x90, 0, 37);
        // Re-learning a command on another message drops the old one.
        commands.SetMidiCommand(2, 0xB0, 1, 65);
        EXPECT_THROW(commands.SetMidiCommand(12, 0x90, 0, 1), std::out_of_range);
    }
    std::vector<std::uint8_t> expected = Header();
    expected.insert(expected.end(),
                    {1, 2, 0, 0, 0, 3, 0, 0, 0x90, 0, 37, 2, 0xB0, 1, 65, 9, 0xC0, 15, 127});
    EXPECT_EQ(FileBytes(), expected);

    // A source that is gone: the commands load unbound and nothing is connected.
    dispatcher.Disconnect();
    pads.reset();
    CapturedLog lines;
    WriteFile([] {
        std::vector<std::uint8_t> bytes = Header();
        bytes.insert(bytes.end(), {1, 7, 0, 0, 0, 2, 0, 4, 0x90, 3, 50, 4, 0x90, 3, 51});
        return bytes;
    }());
    MidiCommands orphan(dispatcher, path_.string());
    EXPECT_EQ(
        lines.Lines(),
        (std::vector<std::string>{"WARNING: VeltMidiError on LoadFromFile: Invalid MIDI source."}));
    EXPECT_FALSE(orphan.HasMidiSource());
    // A later entry of the same id wins.
    EXPECT_EQ(orphan.GetLearnedCommands(),
              (std::map<unsigned char, LearnedCommand>{{4, {4, 0x90, 3, 51}}}));
}

TEST_F(MidiCommandsTest, EveryLoadFailureLeavesAUsableObject) {
    MidiMessageDispatcher dispatcher;
    const auto firstLine = [&](const std::vector<std::uint8_t>& bytes) {
        WriteFile(bytes);
        CapturedLog lines;
        MidiCommands commands(dispatcher, path_.string());
        commands.SetMidiCommand(7, 0x90, 0, 1);  // still works
        EXPECT_EQ(commands.GetLearnedCommands().size(), 1u);
        return lines.Lines().empty() ? std::string("(none)") : lines.Lines().front();
    };
    std::vector<std::uint8_t> otherTag{20};
    for (const char c : std::string("MidiTimeCodeSettings")) {
        otherTag.push_back(static_cast<std::uint8_t>(c));
    }
    otherTag.insert(otherTag.end(), {0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(firstLine(otherTag),
              "WARNING: VeltMidiError on LoadFromFile: Unrecognized command settings file.");
    EXPECT_TRUE(firstLine({}).starts_with("WARNING: LoadFromFile error: "));
    std::vector<std::uint8_t> shortList = Header();
    shortList.insert(shortList.end(), {0, 0, 0, 0, 0, 2, 0, 3, 0x90, 0, 1, 4});
    EXPECT_TRUE(firstLine(shortList).starts_with("WARNING: LoadFromFile error: "));
    std::filesystem::remove(path_);
    {
        CapturedLog lines;
        MidiCommands missing(dispatcher, path_.string());
        ASSERT_EQ(lines.Lines().size(), 1u);
        EXPECT_TRUE(lines.Lines()[0].starts_with("WARNING: LoadFromFile error: "));
    }

    // Saving into a folder that does not exist.
    const std::string unwritable = (path_ / "no" / "such" / "file").string();
    CapturedLog lines;
    { MidiCommands commands(dispatcher, unwritable); }
    ASSERT_EQ(lines.Lines().size(), 2u);
    EXPECT_EQ(lines.Lines()[1], "WARNING: Unable to save settings to " + unwritable);
}

TEST_F(MidiCommandsTest, NameTablesPerEdition) {
    using midi_commands::commandNames;
    using midi_commands::keysCommandNames;
    using midi_commands::parvelCommandNames;
    EXPECT_EQ(commandNames.size(), 8u);
    EXPECT_EQ(commandNames.begin()->first, 2);
    EXPECT_EQ(parvelCommandNames.size(), 10u);
    EXPECT_EQ(parvelCommandNames.at(1), "Continuous Mode");
    EXPECT_EQ(keysCommandNames.size(), 12u);
    EXPECT_EQ(keysCommandNames.at(10), "NextPatch");
    EXPECT_EQ(keysCommandNames.at(11), "PreviousPatch");
    EXPECT_EQ(midi_commands::commandIds.size(), 12u);
    // Every action posts its own notification.
    NotificationLog log({notify::names::midiCommandPreviousPatch, kPlay});
    midi_commands::commandIds.at(11)();
    midi_commands::commandIds.at(2)();
    EXPECT_EQ(log.Count(notify::names::midiCommandPreviousPatch), 1u);
    EXPECT_EQ(log.Count(kPlay), 1u);
}

// A settings file cut short anywhere (a crash while saving, a full disk) is refused whole with
// one warning: no command of it is half taken, and the object still learns.
TEST_F(MidiCommandsTest, AFileCutShortAtAnyByteIsRefusedWholeWithAWarning) {
    MidiMessageDispatcher dispatcher;
    {
        MidiCommands commands(dispatcher, path_.string());
        commands.SetMidiCommand(2, 0x90, 0, 60);
        commands.SetMidiCommand(5, 0xB0, 3, 64);
        commands.SetMidiCommand(7, 0xC0, 15, 9);
    }
    const std::vector<std::uint8_t> whole = FileBytes();
    ASSERT_GT(whole.size(), Header().size() + 3 * 4);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        SCOPED_TRACE("cut to " + std::to_string(size) + " bytes");
        WriteFile({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)});
        CapturedLog lines;
        MidiCommands commands(dispatcher, path_.string());
        ASSERT_EQ(lines.Lines().size(), 1u);
        EXPECT_TRUE(lines.Lines()[0].starts_with("WARNING: ")) << lines.Lines()[0];
        EXPECT_TRUE(commands.GetLearnedCommands().empty());
        commands.SetMidiCommand(4, 0x90, 1, 62);
        EXPECT_EQ(commands.GetLearnedCommands().size(), 1u);
    }
    WriteFile(whole);
    MidiCommands commands(dispatcher, path_.string());
    EXPECT_EQ(commands.GetLearnedCommands().size(), 3u);
}
