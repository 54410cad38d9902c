#include "midi/win32/midi_output_ports_win32.h"

#include "interfaces/kit.h"
#include "midi/velt_midi_error.h"
#include "midi/win32/midi_buffer_win32.h"
#include "midi/win32/midi_device_info.h"
#include "midi/win32/win_synth.h"

MidiOutputPortWin32::MidiOutputPortWin32(unsigned char portIndex) : MidiOutputPort(portIndex) {
    isValid_ =
        midiOutGetDevCapsW(portIndex, &capabilities_, sizeof(MIDIOUTCAPSW)) == MMSYSERR_NOERROR;
}

std::string MidiOutputPortWin32::GetDisplayName() {
    if (!isValid_) {
        return "Not a valid output device.";
    }
    return GetProductName(capabilities_.szPname);
}

void MidiOutputPortWin32::SetMidiOutputCallback(OutputCallback callback) {
    std::scoped_lock lock(mutex_);
    outputCallback_ = std::move(callback);
    hasOutputCallback_ = static_cast<bool>(outputCallback_);
}

void MidiOutputPortWin32::SendMidiBuffer(MidiBuffer& buffer) {
    std::scoped_lock lock(mutex_);
    if (!hasOutputCallback_) {
        return;
    }
    try {
        outputCallback_(&dynamic_cast<MidiBufferWin32&>(buffer), GetPortIndex());
    } catch (const InvalidVoiceEvent&) {
        kit::CoutBuffer() << "InvalidVoiceEvent for port " << static_cast<int>(GetPortIndex())
                          << kit::endl;
        throw;
    }
}

MidiOutputPortsWin32::MidiOutputPortsWin32(unsigned char portCount) {
    for (unsigned char port = 0; port < portCount; ++port) {
        ports_.push_back(std::make_shared<MidiOutputPortWin32>(port));
    }
}

void MidiOutputPortsWin32::SendMidiBuffer(MidiBuffer& buffer) {
    // The ports are fixed at construction, so no lock is needed to walk them.
    for (auto& port : ports_) {
        port->SendMidiBuffer(buffer);
    }
}

void MidiOutputPortsWin32::RegisterMidiBuffer(std::shared_ptr<MidiBuffer> buffer) {
    std::scoped_lock lock(mutex_);
    registeredBuffers_.push_back(std::move(buffer));
}

std::vector<std::shared_ptr<MidiBufferWin32>> MidiOutputPortsWin32::RegisteredBuffers_() {
    std::scoped_lock lock(mutex_);
    std::vector<std::shared_ptr<MidiBufferWin32>> buffers;
    for (auto& buffer : registeredBuffers_) {
        buffers.push_back(std::dynamic_pointer_cast<MidiBufferWin32>(buffer));
    }
    return buffers;
}

void MidiOutputPortsWin32::ConnectSynth(WinSynth& synth) {
    // The ports are pointed at the device only once it is ready: a device that fails here is
    // destroyed by its caller, and a port left pointing at it would send into freed memory.
    try {
        for (auto& buffer : RegisteredBuffers_()) {
            buffer->PrepareHeaders(synth.GetOutputHandle());
        }
        synth.Restart();
    } catch (...) {
        // The ports stay with the device they had; so must the headers.
        if (connected_ != nullptr) {
            try {
                for (auto& buffer : RegisteredBuffers_()) {
                    buffer->PrepareHeaders(connected_->GetOutputHandle());
                }
            } catch (const std::exception& error) {
                kit::CoutBuffer() << "WARNING: the headers could not go back to the device in use: "
                                  << error.what() << kit::endl;
            }
        }
        throw;
    }
    for (auto& port : ports_) {
        port->SetMidiOutputCallback([&synth](MidiBufferWin32* buffer, unsigned char index) {
            synth.SendPort(buffer, index);
        });
    }
    connected_ = &synth;
}

void MidiOutputPortsWin32::DisconnectSynth(WinSynth& synth) {
    if (connected_ == &synth) {
        connected_ = nullptr;
        for (auto& port : ports_) {
            port->SetMidiOutputCallback({});
        }
    }
    synth.Stop();
    for (auto& buffer : RegisteredBuffers_()) {
        buffer->UnprepareHeaders(synth.GetOutputHandle());
        buffer->CleanUpQuarantinedDataBuffers(synth.GetOutputHandle());
        if (buffer->GetHasQuarantinedDataBuffers()) {
            kit::CoutBuffer() << "WARNING: " << buffer->GetName() << " has "
                              << buffer->GetQuarantinedDataBufferCount()
                              << " quarantined data buffers after midiStreamStop." << kit::endl;
        }
    }
}

void MidiOutputPortsWin32::CleanUpQuarantinedDataBuffers(HMIDIOUT handle) {
    for (auto& buffer : RegisteredBuffers_()) {
        buffer->CleanUpQuarantinedDataBuffers(handle);
    }
}

std::unique_ptr<MidiOutputPortsWin32> CreateMidiPorts(unsigned char portCount) {
    return std::make_unique<MidiOutputPortsWin32>(portCount);
}

std::vector<std::shared_ptr<MidiPort>> GetMidiOutputPorts() {
    return {};
}
