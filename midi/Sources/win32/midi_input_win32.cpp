#include "midi/win32/midi_input_win32.h"

#include <cstring>

#include "interfaces/kit.h"
#include "midi/midi_message_dispatcher.h"
#include "midi/velt_midi_error.h"

namespace {

/// The failure check shared by the input calls: "<operation>: <code> <C runtime text>".
void CheckMidiInResult(const char* operation, MMRESULT result) {
    if (result == MMSYSERR_NOERROR) {
        return;
    }
    char text[256] = {};
#ifdef _WIN32
    strerror_s(text, sizeof text, static_cast<int>(result));
#else
    // The GNU strerror_r may hand back its own static text instead of filling the buffer.
    const char* message = strerror_r(static_cast<int>(result), text, sizeof text);
    if (message != text) {
        std::strncpy(text, message, sizeof text - 1);
    }
#endif
    throw MidiPortError(kit::format("%s: %d %s", operation, static_cast<int>(result), text));
}

}  // namespace

MidiInputPortWin32::MidiInputPortWin32(unsigned char index)
    : MidiInputPort(index), MidiPortWin32(index, false) {
    capsValid_ = midiInGetDevCapsW(index, &capabilities_, sizeof(MIDIINCAPSW)) == MMSYSERR_NOERROR;
}

MidiInputPortWin32::MidiInputPortWin32(unsigned char index, LPMIDICALLBACK callback,
                                       void* callbackTarget)
    : MidiInputPortWin32(index) {
    callbackTarget_ = callbackTarget;
    HMIDIIN handle = nullptr;
    CheckMidiInResult("midiInOpen",
                      midiInOpen(&handle, index, reinterpret_cast<DWORD_PTR>(callback),
                                 reinterpret_cast<DWORD_PTR>(this), CALLBACK_FUNCTION));
    handle_ = handle;
    isOpen_ = true;
    for (SysExBuffer& buffer : sysExBuffers_) {
        buffer.header.lpData = buffer.bytes.data();
        buffer.header.dwBufferLength = static_cast<DWORD>(buffer.bytes.size());
        // A buffer the device refuses is left out; short messages still arrive.
        if (midiInPrepareHeader(handle_, &buffer.header, sizeof(MIDIHDR)) == MMSYSERR_NOERROR) {
            midiInAddBuffer(handle_, &buffer.header, sizeof(MIDIHDR));
        }
    }
}

MidiInputPortWin32::~MidiInputPortWin32() {
    KillIt();
}

std::string MidiInputPortWin32::GetDisplayName() {
    if (!capsValid_) {
        return "Not a valid input device.";
    }
    // One byte per code unit, as the device list has always shown names.
    std::string name;
    for (const WCHAR* unit = capabilities_.szPname;
         unit != std::end(capabilities_.szPname) && *unit != 0; ++unit) {
        name += static_cast<char>(static_cast<unsigned>(*unit) & 0xFF);
    }
    return name;
}

void MidiInputPortWin32::Start() {
    CheckMidiInResult("midiInStart", midiInStart(handle_));
    std::scoped_lock lock(portMutex_);
    running_ = true;
}

bool MidiInputPortWin32::GetIsRunning() {
    std::scoped_lock lock(portMutex_);
    return running_;
}

void MidiInputPortWin32::KillIt() {
    {
        std::scoped_lock lock(portMutex_);
        running_ = false;
    }
    if (isOpen_) {
        midiInReset(handle_);  // hands back the buffers; not running, they stay back
        for (SysExBuffer& buffer : sysExBuffers_) {
            if ((buffer.header.dwFlags & MHDR_PREPARED) != 0) {
                midiInUnprepareHeader(handle_, &buffer.header, sizeof(MIDIHDR));
            }
        }
        midiInClose(handle_);
        isOpen_ = false;
        handle_ = nullptr;
    }
}

std::span<const std::uint8_t> MidiInputPortWin32::SysExOf(const MIDIHDR& header) const {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(header.lpData);
    const std::size_t count = header.dwBytesRecorded;
    if (count < 2 || bytes[0] != 0xF0 || bytes[count - 1] != 0xF7) {
        return {};
    }
    return {bytes, count};
}

void MidiInputPortWin32::Requeue(MIDIHDR& header) {
    // Cleared by KillIt before the reset that hands every buffer back, so none is queued again
    // after it.
    if (GetIsRunning()) {
        midiInAddBuffer(handle_, &header, sizeof(MIDIHDR));
    }
}

MIDIMessage UnpackMidiInMessage(DWORD_PTR packed) {
    return MIDIMessage{static_cast<std::uint8_t>(packed & 0xFF),
                       static_cast<std::uint8_t>((packed >> 8) & 0xFF),
                       static_cast<std::uint8_t>((packed >> 16) & 0xFF)};
}

template class MidiInputWin32<MidiMessageDispatcher>;

std::vector<std::shared_ptr<MidiPort>> GetMidiInputPorts() {
    std::vector<std::shared_ptr<MidiPort>> ports;
    const UINT count = midiInGetNumDevs();
    for (UINT index = 0; index < count && index <= 0xFF; ++index) {
        auto port = std::make_shared<MidiInputPortWin32>(static_cast<unsigned char>(index));
        ports.push_back(std::shared_ptr<MidiPort>(port, static_cast<MidiInputPort*>(port.get())));
    }
    return ports;
}
