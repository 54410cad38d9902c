#include "midi/win32/win_synth.h"

#include <stdexcept>

#include "interfaces/kit.h"
#include "midi/velt_midi_error.h"
#include "midi/win32/midi_buffer_win32.h"
#include "midi/win32/midi_device_info.h"

namespace {
// Source positions quoted in failure texts.
constexpr const char* winSynthSource = "midi/Sources/win32/win_synth";
constexpr int streamOutLine = 166;
constexpr int streamRestartLine = 231;
// How long a sent packet may stay with the service before it is quarantined.
constexpr int streamOutDoneSeconds = 3;

std::string ImplementationErrorText(int line, const char* action, MMRESULT result) {
    return kit::format("%s line %d: %s caused error %d, %s.", winSynthSource, line, action,
                       static_cast<int>(result), GetMidiErrorAsString(result).c_str());
}

[[noreturn]] void ThrowImplementationError(int line, const char* action, MMRESULT result) {
    throw MidiImplementationError(ImplementationErrorText(line, action, result));
}
}  // namespace

WinSynth::WinSynth(UINT deviceId)
    : deviceId_(deviceId), deviceName_(GetMidiOutDeviceName(deviceId).value_or("")) {
    MMRESULT result = midiStreamOpen(&stream_, &deviceId, 1,
                                     reinterpret_cast<DWORD_PTR>(&WinSynth::CompletionCallback),
                                     reinterpret_cast<DWORD_PTR>(this), CALLBACK_FUNCTION);
    if (result != MMSYSERR_NOERROR) {
        stream_ = nullptr;
        throw MidiDeviceUnavailable("CreateSynthOutput() error " +
                                    std::to_string(static_cast<int>(result)) + ", " +
                                    GetMidiOutErrorText(result) + "\n" + CreateMidiDeviceSummary());
    }
    // The stream opens stopped, when its time division may still change.
    MIDIPROPTIMEDIV division{sizeof division, streamTimeDivision};
    MIDIPROPTEMPO tempo{sizeof tempo, streamTempo};
    if (midiStreamProperty(stream_, reinterpret_cast<LPBYTE>(&division),
                           MIDIPROP_SET | MIDIPROP_TIMEDIV) != MMSYSERR_NOERROR ||
        midiStreamProperty(stream_, reinterpret_cast<LPBYTE>(&tempo),
                           MIDIPROP_SET | MIDIPROP_TEMPO) != MMSYSERR_NOERROR) {
        // Only exact timing depends on it; clock timing sends every event with delta time 0.
        kit::CoutBuffer() << "WARNING: the stream of \"" << deviceName_
                          << "\" keeps its own time base; exact timing will be off." << kit::endl;
    }
}

WinSynth::~WinSynth() {
    if (stream_ != nullptr) {
        midiStreamClose(stream_);
    }
}

void CALLBACK WinSynth::CompletionCallback(HMIDIOUT, UINT message, DWORD_PTR, DWORD_PTR parameter1,
                                           DWORD_PTR) {
    auto* header = reinterpret_cast<MIDIHDR*>(parameter1);
    if (header == nullptr || message != MOM_DONE) {
        return;
    }
    reinterpret_cast<DataBuffer*>(header->dwUser)->SignalMidiStreamOutDone();
}

void WinSynth::SendPort(MidiBufferWin32* buffer, unsigned char port) {
    std::scoped_lock lock(mutex_);
    if (lost_) {
        return;  // nothing can reach a device that went away; its loss was reported when found
    }
    std::shared_ptr<DataBuffer> dataBuffer = buffer->GetDataBuffer(port);
    if (!dataBuffer->GetHeaderIsPrepared()) {
        kit::CoutBuffer() << "Header is not prepared." << kit::endl;
        throw std::logic_error("Header is not prepared.");
    }
    if (dataBuffer->GetPreparedOutputHandle() != GetOutputHandle()) {
        kit::CoutBuffer() << "Prepared output handle does not match." << kit::endl;
        throw std::logic_error("mismatched output handles.");
    }
    if (dataBuffer->GetEventCount() == 0) {
        return;
    }
    const bool exact = exactTiming_.load();
    if (exact && !dataBuffer->WaitForMidiStreamOutDone(streamOutDoneSeconds)) {
        // Still with the service from an earlier send (a special buffer sent again): a packet
        // that is not back by now is lost, and a fresh copy goes in its place.
        dataBuffer->LogQuarantine();
        buffer->QuarantineDataBufferKeepingEvents(port, GetOutputHandle());
        dataBuffer = buffer->GetDataBuffer(port);
    }
    // Read before the service has the packet: once it is back, the next fill may reset it.
    const bool awaitReturn = !exact || !dataBuffer->GetIsTimed();
    dataBuffer->SetInUse();
    // The header was prepared when the packet may have been empty; the service plays
    // dwBytesRecorded bytes, so it is set to this period's events.
    dataBuffer->SetHeaderLengthsToEventCount();
    MMRESULT result = midiStreamOut(stream_, dataBuffer->GetMidiHeader(), sizeof(MIDIHDR));
    if (result != MMSYSERR_NOERROR) {
        dataBuffer->SignalMidiStreamOutDone();  // the service never took it
        const std::string failure =
            ImplementationErrorText(streamOutLine, "calling midiStreamOut", result);
        if (result == MIDIERR_NODEVICE) {
            lossReason_ = failure;
            lost_ = true;
        }
        throw MidiImplementationError(failure);
    }
    if (!awaitReturn) {
        return;  // the packet's next use waits for it
    }
    if (!dataBuffer->WaitForMidiStreamOutDone(streamOutDoneSeconds)) {
        dataBuffer->LogQuarantine();
        buffer->QuarantineDataBuffer(port, GetOutputHandle());
    }
}

std::string WinSynth::GetLossReason() {
    std::scoped_lock lock(mutex_);
    return lossReason_;
}

void WinSynth::Flush() {
    if (!exactTiming_.load()) {
        return;
    }
    std::scoped_lock lock(mutex_);
    midiStreamStop(stream_);
    Restart();
}

void WinSynth::Restart() {
    MMRESULT result = midiStreamRestart(stream_);
    if (result != MMSYSERR_NOERROR) {
        ThrowImplementationError(streamRestartLine, "calling midiStreamRestart", result);
    }
}

void WinSynth::Stop() {
    midiStreamStop(stream_);
}
