#include <algorithm>
#include <cmath>
#include <exception>

#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "midi/velt_midi_error.h"
#include "midi/win32/midi_buffer_win32.h"
#include "midi/win32/midi_device_info.h"
#include "midi/win32/midi_output_win32.h"
#include "midi/win32/precision_midi_clock_impl.h"

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
    exactTiming_.store(dynamic_cast<PrecisionMidiClockImpl*>(&clock) != nullptr);
    clock.SetMidiClockCallback([this](double bpm) { ProcessMidiClock(bpm); });
}

void MidiOutputWin32::SetExactTiming(bool exact) {
    std::scoped_lock client(*GetClientMutex());
    exactTiming_.store(exact);
    if (connectedSynth_ != nullptr) {
        connectedSynth_->SetExactTiming(exact);
    }
}

void MidiOutputWin32::TimeBuffer_(MidiBuffer& buffer) {
    // Called on the clock's thread from inside its step, before the clock moves on: the state
    // read here is the one of the period this buffer stands for.
    auto* clock = dynamic_cast<StandardMidiClock*>(&GetClock());
    if (clock == nullptr) {
        return;
    }
    const ClockState state = clock->GetClockState();
    dynamic_cast<MidiBufferWin32&>(buffer).WriteDeltaTimes(state.GetClockTime(),
                                                           state.GetTicksPerClock());
}

void MidiOutputWin32::FlushSynth_() {
    if (exactTiming_.load() && connectedSynth_ != nullptr && !connectedSynth_->GetIsLost()) {
        SendGuarded_([this] { connectedSynth_->Flush(); });
    }
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
    ConnectSynth_(0);
}

void MidiOutputWin32::CreateSynthOutput(const std::string& deviceName) {
    const std::optional<UINT> deviceId = FindMidiOutDevice(deviceName);
    if (!deviceId) {
        throw MidiDeviceUnavailable("CreateSynthOutput() error: no MIDI output device named \"" +
                                    deviceName + "\"\n" + CreateMidiDeviceSummary());
    }
    ConnectSynth_(*deviceId);
}

void MidiOutputWin32::ConnectSynth_(UINT deviceId) {
    // Under the client mutex no send step is running, so no packet is in flight while the ports
    // move from one device to the other.
    std::scoped_lock client(*GetClientMutex());
    if (connectedSynth_ != nullptr && !connectedSynth_->GetIsLost() &&
        connectedSynth_->GetDeviceId() == deviceId &&
        GetMidiOutDeviceName(deviceId) == connectedSynth_->GetDeviceName()) {
        return;  // already playing there; a second open would only find the device in use
    }
    auto synth = std::make_unique<WinSynth>(deviceId);
    ports_.ConnectSynth(*synth);
    // The earlier device stays open until it is disconnected: its packets may still be queued.
    if (connectedSynth_ != nullptr) {
        ports_.DisconnectSynth(*connectedSynth_);
    }
    synth->SetExactTiming(exactTiming_.load());
    {
        std::scoped_lock device(deviceMutex_);
        synth_ = std::move(synth);
        connectedSynth_ = synth_.get();
    }
    failureReported_ = false;
    lossReported_ = false;
    lossToPost_ = false;
}

// Read without the client mutex: a send step may hold that for seconds when the device does not
// hand packets back, and the performer's display must not wait for it.
std::string MidiOutputWin32::GetSynthDeviceName() {
    std::scoped_lock device(deviceMutex_);
    return GetConnectedName_();
}

bool MidiOutputWin32::GetSynthIsLost() {
    std::scoped_lock device(deviceMutex_);
    return connectedSynth_ != nullptr && connectedSynth_->GetIsLost();
}

void MidiOutputWin32::SendGuarded_(const std::function<void()>& send) {
    const bool lostBefore = connectedSynth_ != nullptr && connectedSynth_->GetIsLost();
    if (lostBefore) {
        ++droppedSends_;
    } else {
        try {
            send();
        } catch (const std::exception& error) {
            ++droppedSends_;
            if ((connectedSynth_ == nullptr || !connectedSynth_->GetIsLost()) &&
                !failureReported_) {
                // A fault that repeats would otherwise write a line per period, hundreds a second.
                failureReported_ = true;
                kit::CoutBuffer() << "[ERROR] Sending to MIDI output device \""
                                  << GetConnectedName_() << "\" failed: " << error.what()
                                  << " The period is dropped; later failures are only counted."
                                  << kit::endl;
            }
        }
    }
    // The loss is reported once, by whichever send found it: this step's, or one the host made
    // from its own thread (a stop, a trim) while nothing was playing.
    if (connectedSynth_ != nullptr && connectedSynth_->GetIsLost() && !lossReported_) {
        lossReported_ = true;
        lossToPost_ = true;
        kit::CoutBuffer() << "[ERROR] MIDI output device \"" << GetConnectedName_()
                          << "\" is no longer connected (" << connectedSynth_->GetLossReason()
                          << ") Playback goes on without it until it is opened again." << kit::endl;
    }
}

std::string MidiOutputWin32::GetConnectedName_() const {
    return connectedSynth_ != nullptr ? connectedSynth_->GetDeviceName() : std::string();
}

void MidiOutputWin32::PostDeviceLost_() {
    if (!lossToPost_) {
        return;
    }
    lossToPost_ = false;
    std::string device = GetConnectedName_();
    notify::callbackDispatcher.Notify(notify::names::midiOutputDeviceLost, &device);
}

void MidiOutputWin32::DisarmPlayback() {
    DisarmPlayback_(true);
}

void MidiOutputWin32::DisarmPlayback_(bool flush) {
    if (flush) {
        // The clock is told first, without the client mutex: it then asks for no further step,
        // so the wait below ends with the step under way. Without this a device that keeps each
        // step waiting for its packets leaves the clock behind, calling the next step the moment
        // the last lets go, and the client never gets the mutex.
        GetClock().DisarmPlayback();
        // Dropped first, under the client mutex so that no send step queues more meanwhile: the
        // queue thread, which the disarm waits for, may itself be waiting for a packet to come
        // back before it refills it.
        std::scoped_lock client(*GetClientMutex());
        FlushSynth_();
        MidiOutput::DisarmPlayback();
    } else {
        MidiOutput::DisarmPlayback();
    }
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
            FlushSynth_();
            SendGuarded_([this] { AllNotesOff(); });
            bufferLock.unlock();
            outputLock.unlock();
            DisarmPlayback_(false);
            SignalAsyncStoppedCallback();
            PostDeviceLost_();
            return;
        }
        // A panic goes out before the period's own events, and only one per period.
        if (buffer->GetShouldSendAllNotesOff()) {
            FlushSynth_();
            SendGuarded_([this] { AllNotesOff(); });
        } else if (buffer->GetShouldSendAllCCsOff()) {
            SendGuarded_([this] { AllCCsOff(); });
        }
        if (exactTiming_.load()) {
            TimeBuffer_(*buffer);
        }
        SendGuarded_([&] {
            try {
                GetPorts().SendMidiBuffer(*buffer);
            } catch (const InvalidVoiceEvent&) {
                kit::CoutBuffer() << "InvalidVoiceEvent "
                                  << "MidiOutputWin32::ProcessMidiClock" << kit::endl;
            }
        });
        // The host hears of the program changes only once the output's locks are let go: its
        // callback may wait for a thread that needs the output.
        MidiBuffer::ProgramChangeMap programChanges = buffer->GetProgramChanges();
        const unsigned int tick = buffer->GetTickIndex();
        SetBpmAtTickIndex(bpm, tick);
        if (startsTick) {
            delayedGui_.SignalDelayedCallback(tick);
        }
        buffer->SetHasData(false);
        IncrementPlayBufferIndex();
        bufferLock.unlock();
        outputLock.unlock();
        MidiBuffer::NotifyProgramChanges(programChanges);
        PostDeviceLost_();

        if (DoCheckCaesuraCallback(tick)) {
            DisarmPlayback_(false);
            SignalAsyncStoppedCallback();
        }
    } catch (const std::exception& error) {
        VeltLogException(error.what(), outputImplSource, processMidiClockLine);
    } catch (...) {
        VeltLogException("Unknown exception.", outputImplSource, processMidiClockLine);
    }
}
