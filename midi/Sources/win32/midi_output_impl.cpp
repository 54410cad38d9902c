#include <algorithm>
#include <cmath>
#include <exception>

#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "midi/velt_midi_error.h"
#include "midi/win32/midi_output_win32.h"

namespace {
// Source position quoted when the send step logs a failure.
constexpr const char* outputImplSource = "midi/Sources/win32/midi_output_impl";
constexpr int processMidiClockLine = 202;
}  // namespace

MidiOutputWin32::MidiOutputWin32(unsigned char portCount, FillCallback fill,
                                 DownbeatCallback downbeat, StoppedCallback stopped,
                                 ClockIsActiveCallback clockIsActive,
                                 CaesuraCheckCallback caesuraCheck, MidiClock& clock,
                                 std::recursive_mutex* clientMutex)
    : MidiOutput(std::move(fill), std::move(downbeat), std::move(stopped), std::move(clockIsActive),
                 std::move(caesuraCheck), clock, clientMutex),
      ports_(portCount),
      delayedGui_([this](std::uint32_t tick) { DoDownbeatCallback(tick); }, initialGuiDelay) {
    clock.SetMidiClockCallback([this](double bpm) { ProcessMidiClock(bpm); });
}

MidiOutputWin32::~MidiOutputWin32() {
    ExitThreads();
    if (connectedSynth_ != nullptr) {
        try {
            ports_.DisconnectSynth(*connectedSynth_);
        } catch (const std::exception& error) {
            kit::CoutBuffer() << "WARNING: disconnecting the device failed: " << error.what()
                              << kit::endl;
        }
    }
}

void MidiOutputWin32::CreateSynthOutput() {
    auto synth = std::make_unique<WinSynth>();
    ports_.ConnectSynth(*synth);
    // The earlier device stays open until it is disconnected: its packets may still be queued.
    if (connectedSynth_ != nullptr) {
        ports_.DisconnectSynth(*connectedSynth_);
    }
    synth_ = std::move(synth);
    connectedSynth_ = synth_.get();
}

void MidiOutputWin32::DisarmPlayback() {
    MidiOutput::DisarmPlayback();
    if (synth_) {
        ports_.CleanUpQuarantinedDataBuffers(synth_->GetOutputHandle());
    }
    std::scoped_lock lock(delayedGui_.GetMutex());
    delayedGui_.ResetLocked();
}

void MidiOutputWin32::ResetMidiOutput() {
    std::scoped_lock lock(GetMutex());
    std::scoped_lock guiLock(delayedGui_.GetMutex());
    delayedGui_.ResetLocked();
}

void MidiOutputWin32::SetGuiDelay_(double seconds) {
    delayedGui_.SetSecondsDelay(seconds);
    notify::guiDispatcher.SendGuiDelayMessage(static_cast<int>(std::lround(seconds * 1000.0)));
}

void MidiOutputWin32::IncreaseGuiDelay() {
    SetGuiDelay_(std::min(delayedGui_.GetSecondsDelay() + guiDelayStep, maximumGuiDelay));
}

void MidiOutputWin32::DecreaseGuiDelay() {
    SetGuiDelay_(std::max(delayedGui_.GetSecondsDelay() - guiDelayStep, 0.0));
}

void MidiOutputWin32::ProcessMidiClock(double bpm) {
    try {
        std::unique_lock client(*GetClientMutex());
        DoClockIsActiveCallback();
        if (!PlaybackIsActive()) {
            return;
        }
        std::shared_ptr<MidiBuffer> buffer = GetPlayBuffer();
        if (!buffer->WaitUntilReadyForOutput()) {
            return;  // not filled within a second: this period is skipped
        }
        std::unique_lock outputLock(GetMutex(), std::defer_lock);
        std::unique_lock bufferLock(buffer->GetMutex(), std::defer_lock);
        std::lock(outputLock, bufferLock);
        if (!PlaybackIsActive()) {
            return;
        }
        const bool startsTick = buffer->GetClockNumber() == 0;

        if (buffer->GetIsLastBuffer()) {
            // The last buffer's own events are not sent: the song ends in silence.
            AllNotesOff();
            bufferLock.unlock();
            outputLock.unlock();
            DisarmPlayback();
            SignalAsyncStoppedCallback();
            return;
        }
        // A panic goes out before the period's own events, and only one per period.
        if (buffer->GetShouldSendAllNotesOff()) {
            AllNotesOff();
        } else if (buffer->GetShouldSendAllCCsOff()) {
            AllCCsOff();
        }
        try {
            GetPorts().SendMidiBuffer(*buffer);
        } catch (const InvalidVoiceEvent&) {
            kit::CoutBuffer() << "InvalidVoiceEvent "
                              << "MidiOutputWin32::ProcessMidiClock" << kit::endl;
        }
        buffer->SendProgramChanges();
        const unsigned int tick = buffer->GetTickIndex();
        SetBpmAtTickIndex(bpm, tick);
        if (startsTick) {
            delayedGui_.SignalDelayedCallback(tick);
        }
        buffer->SetHasData(false);
        IncrementPlayBufferIndex();
        bufferLock.unlock();
        outputLock.unlock();

        if (DoCheckCaesuraCallback(tick)) {
            DisarmPlayback();
            SignalAsyncStoppedCallback();
        }
    } catch (const std::exception& error) {
        VeltLogException(error.what(), outputImplSource, processMidiClockLine);
    } catch (...) {
        VeltLogException("Unknown exception.", outputImplSource, processMidiClockLine);
    }
}
