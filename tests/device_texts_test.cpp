// The texts of error numbers, technologies and devices, and the output ports' names: one table
// each.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "midi/velt_midi_error.h"
#include "midi/win32/midi_device_info.h"
#include "midi/win32/midi_output_ports_win32.h"
#include "midi/win32/win_synth.h"
#include "tests/support/virtual_devices.h"

TEST(DeviceTexts, ErrorNumbersHaveTheLibrarysOwnTexts) {
    const std::vector<std::pair<MMRESULT, std::string>> table = {
        {0, "Unknown error code 0"},
        {1, "MMSYSERR_ERROR unspecified error"},
        {2, "MMSYSERR_BADDEVICEID device ID out of range"},
        {3, "MMSYSERR_NOTENABLED driver failed enable"},
        {4, "MMSYSERR_ALLOCATED device already allocated"},
        {5, "MMSYSERR_INVALHANDLE device handle is invalid"},
        {6, "MMSYSERR_NODRIVER no device driver present"},
        {7, "MMSYSERR_NOMEM memory allocation error"},
        {8, "MMSYSERR_NOTSUPPORTED function isn't supported"},
        {9, "MMSYSERR_BADERRNUM error value out of range"},
        {10, "MMSYSERR_INVALFLAG invalid flag passed"},
        {11, "MMSYSERR_INVALPARAM invalid parameter passed"},
        {12,
         "MMSYSERR_HANDLEBUSY handle being used simultaneously on another thread (eg callback)"},
        {13, "MMSYSERR_INVALIDALIAS specified alias not found"},
        {14, "MMSYSERR_BADDB bad registry database"},
        {15, "MMSYSERR_KEYNOTFOUND registry key not found"},
        {16, "MMSYSERR_READERROR registry read error"},
        {17, "MMSYSERR_WRITEERROR registry write error"},
        {18, "MMSYSERR_DELETEERROR registry delete error"},
        {19, "MMSYSERR_VALNOTFOUND registry value not found"},
        {20, "MMSYSERR_NODRIVERCB driver does not call DriverCallback"},
        {21, "MMSYSERR_MOREDATA more data to be returned"},
        {22, "Unknown error code 22"},
        {63, "Unknown error code 63"},
        {64, "MIDIERR_UNPREPARED header not prepared"},
        {65, "MIDIERR_STILLPLAYING still something playing"},
        {66, "MIDIERR_NOMAP no configured instruments"},
        {67, "MIDIERR_NOTREADY hardware is still busy"},
        {68, "MIDIERR_NODEVICE port no longer connected"},
        {69, "MIDIERR_INVALIDSETUP invalid MIF"},
        {70, "MIDIERR_BADOPENMODE operation unsupported w/ open mode"},
        {71, "MIDIERR_DONT_CONTINUE thru device 'eating' a message"},
        {72, "Unknown error code 72"},
    };
    for (const auto& [code, text] : table) {
        EXPECT_EQ(GetMidiErrorAsString(code), text) << code;
    }
}

TEST(DeviceTexts, TechnologiesAreNamedAndUnknownOnesNumbered) {
    const std::vector<std::pair<WORD, std::string>> table = {
        {1, "MOD_MIDIPORT: MIDI hardware port."},
        {2, "MOD_SYNTH: Synthesizer."},
        {3, "MOD_SQSYNTH: Square wave synthesizer."},
        {4, "MOD_FMSYNTH: FM synthesizer."},
        {5, "MOD_MAPPER: Microsoft MIDI mapper."},
        {6, "MOD_WAVETABLE: Hardware wavetable synthesizer."},
        {7, "MOD_SWSYNTH: Software synthesizer."},
        {0, "Unknown wTechnology value: 0"},
        {8, "Unknown wTechnology value: 8"},
    };
    for (const auto& [technology, text] : table) {
        MIDIOUTCAPSW capabilities{};
        capabilities.wTechnology = technology;
        EXPECT_EQ(GetTechnologyAsString(capabilities), text) << technology;
    }
}

TEST(DeviceTexts, ServiceErrorTextsAndTheirFallbacks) {
    EXPECT_FALSE(GetMidiOutErrorText(MMSYSERR_ALLOCATED).empty());
    EXPECT_EQ(GetMidiOutErrorText(MMSYSERR_ALLOCATED).find("Unknown error"), std::string::npos);
    EXPECT_EQ(GetMidiOutErrorText(1000), "MMSYSERR_BADERRNUM: Unknown error 1000");

    const WCHAR name[] = {u'O', u'r', u'g', u'\u00E9', 0};  // a non-ASCII product name
    EXPECT_EQ(GetProductName(name), "Org\xC3\xA9");
}

VIRTUAL_DEVICE_TEST(DeviceTexts, DeviceSummaryAndPortNamesComeFromTheDevices) {
    velt_platform::VirtualMidiOutput device("Summary Test Out");
    MIDIOUTCAPSW capabilities{};
    ASSERT_EQ(midiOutGetDevCapsW(0, &capabilities, sizeof(capabilities)), MMSYSERR_NOERROR);

    const std::string caps = GetMidiOutDevCapsAsString(capabilities);
    EXPECT_EQ(caps.rfind("Midi Output Device:\n  Manufacturer Identifier: ", 0), 0u);
    EXPECT_NE(caps.find("\n  Product Name: Summary Test Out\n  Type: "), std::string::npos);
    EXPECT_NE(caps.find("\n  Support: " + std::to_string(capabilities.dwSupport) + "\n"),
              std::string::npos);

    const std::string summary = CreateMidiDeviceSummary();
    EXPECT_EQ(summary.rfind("Device info for " + std::to_string(midiOutGetNumDevs()) +
                                " MIDI devices.\nMIDI device index: 0\nMidi Output Device:",
                            0),
              0u);
    const UINT missing = midiOutGetNumDevs() + 5;
    EXPECT_EQ(GetMidiOutDeviceInformation(missing),
              "Unable to retrieve device capabilities for midi device " + std::to_string(missing) +
                  "\nError reported: MMSYSERR_BADDEVICEID device ID out of range\n");

    MidiOutputPortWin32 port(0);
    EXPECT_EQ(port.GetDisplayName(), "Summary Test Out");
    MidiOutputPortWin32 nowhere(static_cast<unsigned char>(missing));
    EXPECT_EQ(nowhere.GetDisplayName(), "Not a valid output device.");
    EXPECT_TRUE(nowhere.SetUniqueId(42));
    EXPECT_EQ(nowhere.GetUniqueId(), 0);
    EXPECT_TRUE(GetMidiOutputPorts().empty());
}

// The numbers the engine's texts and branches name are the multimedia service's own: on Windows
// these are checked against the system headers, elsewhere against the platform layer's copies.
static_assert(MMSYSERR_NOERROR == 0 && MMSYSERR_BADDEVICEID == 2 && MMSYSERR_ALLOCATED == 4 &&
              MMSYSERR_INVALHANDLE == 5 && MMSYSERR_INVALPARAM == 11 && MMSYSERR_BADERRNUM == 9);
static_assert(MIDIERR_UNPREPARED == 64 && MIDIERR_STILLPLAYING == 65 && MIDIERR_NODEVICE == 68);
static_assert(MOM_DONE == 0x3C9 && MHDR_DONE == 1 && MHDR_PREPARED == 2 && MHDR_INQUEUE == 4);
static_assert((sizeof(void*) != 8 || sizeof(MIDIHDR) == 112) && sizeof(MIDIOUTCAPSW) == 84);

// Opening the first id past the device list fails in the service with MMSYSERR_BADDEVICEID, and
// the stream device turns that into the unavailable-device text: the number, the service's own
// text for it, then the device summary. On a machine without MIDI outputs (Wine in CI) that id
// is 0, the device a host opens by default.
TEST(DeviceTexts, OpeningAnUnlistedDeviceIsUnavailableWithTheServicesNumberAndText) {
    const UINT unlisted = midiOutGetNumDevs();
    UINT deviceId = unlisted;
    HMIDISTRM stream = nullptr;
    EXPECT_EQ(midiStreamOpen(&stream, &deviceId, 1, 0, 0, CALLBACK_NULL), MMSYSERR_BADDEVICEID);

    const std::string serviceText = GetMidiOutErrorText(MMSYSERR_BADDEVICEID);
    EXPECT_FALSE(serviceText.empty());
    EXPECT_EQ(serviceText.find("Unknown error"), std::string::npos) << serviceText;
    try {
        WinSynth synth(unlisted);
        FAIL() << "device " << unlisted << " opened";
    } catch (const MidiDeviceUnavailable& error) {
        const std::string text = error.what();
        EXPECT_EQ(text.rfind("CreateSynthOutput() error 2, " + serviceText + "\n", 0), 0u) << text;
        if (unlisted == 0) {
            EXPECT_EQ(text.substr(text.find('\n') + 1),
                      "There are no available devices for midi output.");
        } else {
            EXPECT_NE(text.find("Device info for " + std::to_string(unlisted) + " MIDI devices."),
                      std::string::npos);
        }
    }
    EXPECT_EQ(GetMidiOutDeviceInformation(unlisted),
              "Unable to retrieve device capabilities for midi device " + std::to_string(unlisted) +
                  "\nError reported: MMSYSERR_BADDEVICEID device ID out of range\n");
    EXPECT_EQ(MidiOutputPortWin32(static_cast<unsigned char>(unlisted)).GetDisplayName(),
              "Not a valid output device.");
}
