// The time-code switch: its settings file byte for byte, what a damaged file leaves, the user
// interface notifications, and the generator's life from switching on to shutdown.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "interfaces/notify.h"
#include "midi/time_code_controller.h"
#include "midi/win32/midi_time_code_thread_win32.h"
#include "tests/support/captured_log.h"
#include "tests/support/temp_folder.h"
#include "tests/support/virtual_devices.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using test_support::ReadBytes;
using test_support::WriteBytes;
using velt_platform::VirtualMidiOutput;

struct Folder : test_support::TempFolder {
    std::string File() const { return Path("mtc.settings"); }
};

Bytes SettingsBytes(unsigned char active, unsigned char hasPort, unsigned int port,
                    unsigned char rate) {
    Bytes bytes{20};
    for (char c : std::string("MidiTimeCodeSettings")) {
        bytes.push_back(static_cast<unsigned char>(c));
    }
    bytes.insert(bytes.end(), {active, hasPort, static_cast<unsigned char>(port & 0xFF),
                               static_cast<unsigned char>(port >> 8 & 0xFF),
                               static_cast<unsigned char>(port >> 16 & 0xFF),
                               static_cast<unsigned char>(port >> 24), rate});
    return bytes;
}

struct RecordedGui {
    std::shared_ptr<notify::RecordingGuiSink> sink = std::make_shared<notify::RecordingGuiSink>();
    RecordedGui() { notify::guiDispatcher.SetSink(sink); }
    ~RecordedGui() { notify::guiDispatcher.SetSink(nullptr); }
};

void ExpectDefaults(MidiTimeCodeController& controller) {
    EXPECT_FALSE(controller.GetIsActive());
    EXPECT_FALSE(controller.GetHasOutputPortIndex());
    EXPECT_EQ(controller.GetOutputPortIndex(), 0u);
    EXPECT_EQ(controller.GetFrameRate(), FrameRate::Fps30);
}

TEST(TimeCodeSettings, SavedFileLayoutAndReload) {
    Folder folder;
    RecordedGui gui;
    {
        CapturedLog log;  // no settings file yet
        MidiTimeCodeController controller(folder.File());
        controller.SetOutputPortIndex(0x01020304);
        controller.SetFrameRate(FrameRate::Fps2997Drop);
    }
    EXPECT_EQ(ReadBytes(folder.File()), SettingsBytes(0, 1, 0x01020304, 2));
    const std::vector<notify::GuiMessage> expected{
        {"SendMtcOutputPortNotification", std::to_string(0x01020304)},
        {"SendMtcFrameRateNotification", "29.97 fps drop"}};
    EXPECT_EQ(gui.sink->GetMessages(), expected);

    MidiTimeCodeController reloaded(folder.File());
    EXPECT_FALSE(reloaded.GetIsActive());
    EXPECT_TRUE(reloaded.GetHasOutputPortIndex());
    EXPECT_EQ(reloaded.GetOutputPortIndex(), 0x01020304u);
    EXPECT_EQ(reloaded.GetFrameRate(), FrameRate::Fps2997Drop);
}

TEST(TimeCodeSettings, DamagedFilesLeaveTheDefaultsAndAreLogged) {
    Folder folder;
    Bytes wrongTag = SettingsBytes(0, 1, 7, 1);
    wrongTag[20] = 'S';  // "MidiTimeCodeSettingS"
    Bytes shortFile = SettingsBytes(0, 1, 7, 1);
    shortFile.pop_back();
    struct Case {
        const char* what;
        Bytes bytes;
        std::string logged;
    };
    std::vector<Case> cases{
        {"tag differs in its last character", wrongTag, "Unrecognized command settings file."},
        {"unknown rate", SettingsBytes(0, 1, 7, 4), "Unsupported frame rate"},
    };
    // Cut short at any byte (a crash while saving, a full disk): no port or rate of it is taken.
    for (std::size_t size = 0; size < shortFile.size() + 1; ++size) {
        cases.push_back({"cut short",
                         Bytes(shortFile.begin(), shortFile.begin() + static_cast<long>(size)),
                         ""});
    }
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.what) + ", " + std::to_string(c.bytes.size()) + " bytes");
        WriteBytes(folder.File(), c.bytes);
        CapturedLog log;
        MidiTimeCodeController controller(folder.File());
        ExpectDefaults(controller);
        ASSERT_EQ(log.Lines().size(), 1u);
        EXPECT_EQ(log.Lines()[0].rfind("MidiTimeCodeController::LoadFromFile failed with ", 0), 0u)
            << log.Lines()[0];
        EXPECT_NE(log.Lines()[0].find(c.logged), std::string::npos) << log.Lines()[0];
    }
    // A file saying "on" loads as off, with its port and rate.
    WriteBytes(folder.File(), SettingsBytes(1, 1, 9, 0));
    MidiTimeCodeController controller(folder.File());
    EXPECT_FALSE(controller.GetIsActive());
    EXPECT_EQ(controller.GetOutputPortIndex(), 9u);
    EXPECT_EQ(controller.GetFrameRate(), FrameRate::Fps24);
}

TEST(TimeCodeSettings, UnwritableFileRaisesIoErrorWithItsPath) {
    Folder folder;
    const std::string path = (folder.path() / "missing" / "mtc.settings").string();
    CapturedLog log;  // the missing file's load failure
    MidiTimeCodeController controller(path);
    try {
        controller.SetFrameRate(FrameRate::Fps25);
        ADD_FAILURE() << "no error";
    } catch (const kit::IoError& error) {
        EXPECT_EQ(std::string(error.what()), path + " is not writable.");
    }
}

VIRTUAL_DEVICE_TEST(TimeCodeController, SwitchingOnForwardsToTheGeneratorAndOffIgnoresCalls) {
    Folder folder;
    RecordedGui gui;
    VirtualMidiOutput port("MTC Desk");
    CapturedLog log;  // no settings file yet
    MidiTimeCodeController controller(folder.File());
    controller.SetOutputPortIndex(*port.DeviceId());
    controller.SetFrameRate(FrameRate::Fps25);
    controller.SendMidiTimeCodeWithSeconds(5.0);  // off: nothing goes out
    EXPECT_FALSE(port.IsOpen());

    controller.StartMidiTimeCode();
    EXPECT_TRUE(controller.GetIsActive());
    EXPECT_TRUE(port.IsOpen());
    controller.SendMidiTimeCodeWithSeconds(5.0);
    controller.SetMidiTimeCodeInterval(5.0, 5.0 + 0.01, 0.01);  // one quarter frame at 25 fps
    ASSERT_TRUE(port.WaitForMessages(3, std::chrono::seconds(5)));
    const auto messages = port.Messages();
    EXPECT_EQ(messages[0].bytes, (std::vector<std::uint8_t>{0xF0, 0x7F, 0x7F, 0x01, 0x01, 0x20,
                                                            0x00, 0x05, 0x00, 0xF7}));
    EXPECT_EQ(messages[2].bytes, (std::vector<std::uint8_t>{0xF1, 0x00}));

    controller.CancelMidiTimeCode();
    EXPECT_FALSE(controller.GetIsActive());
    EXPECT_FALSE(port.IsOpen());  // the generator is gone and its port closed
    controller.SetMidiTimeCodeInterval(6.0, 7.0, 1.0);
    controller.SendMidiTimeCodeWithSeconds(6.0);
    EXPECT_EQ(port.Messages().size(), 3u);

    const auto sent = gui.sink->GetMessages();
    const std::vector<notify::GuiMessage> tail(sent.end() - 3, sent.end());
    const std::vector<notify::GuiMessage> expected{
        {"SendMtcOutputPortNotification", std::to_string(*port.DeviceId())},
        {"SendMtcActiveStateNotification", "true"},
        {"SendMtcActiveStateNotification", "false"}};
    EXPECT_EQ(tail, expected);
    controller.Shutdown();
}

VIRTUAL_DEVICE_TEST(TimeCodeController, APortThatCannotOpenIsLoggedAndStillNotified) {
    Folder folder;
    RecordedGui gui;
    VirtualMidiOutput port("MTC Busy");
    port.FailOpen(MMSYSERR_ALLOCATED);
    CapturedLog missingFile;
    MidiTimeCodeController controller(folder.File());
    controller.StartMidiTimeCode();
    gui.sink->Clear();
    {
        CapturedLog log;
        controller.SetOutputPortIndex(*port.DeviceId());
        ASSERT_EQ(log.Lines().size(), 1u);
        EXPECT_EQ(log.Lines()[0].rfind("[ERROR] ", 0), 0u);
    }
    EXPECT_TRUE(controller.GetIsActive());
    EXPECT_EQ(gui.sink->GetMessages(),
              (std::vector<notify::GuiMessage>{
                  {"SendMtcOutputPortNotification", std::to_string(*port.DeviceId())}}));
    // Once the port is free, choosing it again opens it.
    port.FailOpen(MMSYSERR_NOERROR);
    controller.SetOutputPortIndex(*port.DeviceId());
    EXPECT_TRUE(port.IsOpen());
    controller.Shutdown();
    EXPECT_FALSE(port.IsOpen());
    EXPECT_FALSE(controller.GetIsActive());
}

}  // namespace
