#include "midi/win32/midi_device_info.h"

#include <cstring>
#include <map>
#include <sstream>

#include "interfaces/kit.h"

namespace {
constexpr UINT errorTextLength = 512;
}  // namespace

std::string GetMidiErrorAsString(MMRESULT code) {
    static const std::map<MMRESULT, const char*> texts = {
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
        {64, "MIDIERR_UNPREPARED header not prepared"},
        {65, "MIDIERR_STILLPLAYING still something playing"},
        {66, "MIDIERR_NOMAP no configured instruments"},
        {67, "MIDIERR_NOTREADY hardware is still busy"},
        {68, "MIDIERR_NODEVICE port no longer connected"},
        {69, "MIDIERR_INVALIDSETUP invalid MIF"},
        {70, "MIDIERR_BADOPENMODE operation unsupported w/ open mode"},
        {71, "MIDIERR_DONT_CONTINUE thru device 'eating' a message"},
    };
    auto it = texts.find(code);
    if (it == texts.end()) {
        return kit::format("Unknown error code %d", static_cast<int>(code));
    }
    return it->second;
}

std::string GetProductName(const WCHAR* name) {
    // UTF-16 to UTF-8; a lone surrogate becomes U+FFFD.
    std::string narrow;
    auto append = [&narrow](char32_t c) {
        if (c < 0x80) {
            narrow += static_cast<char>(c);
        } else if (c < 0x800) {
            narrow += static_cast<char>(0xC0 | (c >> 6));
            narrow += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            narrow += static_cast<char>(0xE0 | (c >> 12));
            narrow += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            narrow += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            narrow += static_cast<char>(0xF0 | (c >> 18));
            narrow += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            narrow += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            narrow += static_cast<char>(0x80 | (c & 0x3F));
        }
    };
    // The name usually lies in a capabilities record packed to one byte, so it may be
    // misaligned: each code unit is copied out rather than read through a WCHAR pointer.
    const auto* bytes = reinterpret_cast<const unsigned char*>(name);
    auto unitAt = [bytes](std::size_t i) {
        WCHAR unit;
        std::memcpy(&unit, bytes + i * sizeof(WCHAR), sizeof(WCHAR));
        return static_cast<char32_t>(static_cast<char16_t>(unit));
    };
    for (std::size_t i = 0; unitAt(i) != 0; ++i) {
        char32_t unit = unitAt(i);
        char32_t next = unitAt(i + 1);
        if (unit >= 0xD800 && unit < 0xDC00 && next >= 0xDC00 && next < 0xE000) {
            ++i;
            append(0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00));
        } else if (unit >= 0xD800 && unit < 0xE000) {
            append(0xFFFD);
        } else {
            append(unit);
        }
    }
    return narrow;
}

std::string GetMidiOutErrorText(MMRESULT code) {
    WCHAR text[errorTextLength] = {};
    MMRESULT result = midiOutGetErrorTextW(code, text, errorTextLength);
    if (result == MMSYSERR_NOERROR) {
        return GetProductName(text);
    }
    if (result == MMSYSERR_INVALPARAM) {
        return "midiOutGetErrorText MMSYSERR_INVALPARAM";
    }
    if (result == MMSYSERR_BADERRNUM) {
        return kit::format("MMSYSERR_BADERRNUM: Unknown error %d", static_cast<int>(code));
    }
    return kit::format("midiOutGetErrorText: Unknown error %d", static_cast<int>(code));
}

std::string GetTechnologyAsString(const MIDIOUTCAPSW& capabilities) {
    switch (capabilities.wTechnology) {
        case 1:
            return "MOD_MIDIPORT: MIDI hardware port.";
        case 2:
            return "MOD_SYNTH: Synthesizer.";
        case 3:
            return "MOD_SQSYNTH: Square wave synthesizer.";
        case 4:
            return "MOD_FMSYNTH: FM synthesizer.";
        case 5:
            return "MOD_MAPPER: Microsoft MIDI mapper.";
        case 6:
            return "MOD_WAVETABLE: Hardware wavetable synthesizer.";
        case 7:
            return "MOD_SWSYNTH: Software synthesizer.";
        default:
            return kit::format("Unknown wTechnology value: %d",
                               static_cast<int>(capabilities.wTechnology));
    }
}

std::string GetMidiOutDevCapsAsString(const MIDIOUTCAPSW& capabilities) {
    std::ostringstream text;
    text << "Midi Output Device:\n"
         << "  Manufacturer Identifier: " << capabilities.wMid << "\n"
         << "  Product Identifier: " << capabilities.wPid << "\n"
         << "  Driver Version: " << capabilities.vDriverVersion << "\n"
         << "  Product Name: " << GetProductName(capabilities.szPname) << "\n"
         << "  Type: " << GetTechnologyAsString(capabilities) << "\n"
         << "  Voices: " << capabilities.wVoices << "\n"
         << "  Notes: " << capabilities.wNotes << "\n"
         << "  ChannelMask: " << capabilities.wChannelMask << "\n"
         << "  Support: " << capabilities.dwSupport << "\n";
    return text.str();
}

std::string GetMidiOutDeviceInformation(UINT index) {
    MIDIOUTCAPSW capabilities{};
    MMRESULT result = midiOutGetDevCapsW(index, &capabilities, sizeof(MIDIOUTCAPSW));
    std::ostringstream text;
    if (result != MMSYSERR_NOERROR) {
        text << "Unable to retrieve device capabilities for midi device " << index << "\n"
             << "Error reported: " << GetMidiErrorAsString(result) << "\n";
        return text.str();
    }
    text << "MIDI device index: " << index << "\n" << GetMidiOutDevCapsAsString(capabilities);
    return text.str();
}

std::optional<std::string> GetMidiOutDeviceName(UINT index) {
    MIDIOUTCAPSW capabilities{};
    if (midiOutGetDevCapsW(index, &capabilities, sizeof(MIDIOUTCAPSW)) != MMSYSERR_NOERROR) {
        return std::nullopt;
    }
    return GetProductName(capabilities.szPname);
}

std::optional<UINT> FindMidiOutDevice(const std::string& name) {
    const UINT count = midiOutGetNumDevs();
    for (UINT index = 0; index < count; ++index) {
        if (GetMidiOutDeviceName(index) == name) {
            return index;
        }
    }
    return std::nullopt;
}

std::string CreateMidiDeviceSummary() {
    UINT count = midiOutGetNumDevs();
    if (count == 0) {
        return "There are no available devices for midi output.";
    }
    std::ostringstream text;
    text << "Device info for " << count << " MIDI devices.\n";
    for (UINT index = 0; index < count; ++index) {
        text << GetMidiOutDeviceInformation(index) << "\n";
    }
    return text.str();
}
