// The output ports on this platform: they fan a buffer out port by port to the stream device and
// keep the buffers whose stream headers must be prepared with the device.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "midi/midi_ports.h"
#include "platform/mmsystem.h"

class MidiBufferWin32;
class WinSynth;

/// One output port. Without an output callback (no device connected) sending does nothing.
/// Threads: the clock thread sends, the client's thread connects. Locks: its own mutex, held
/// while the callback is replaced and while it runs, so a connect waits for a send in flight.
class MidiOutputPortWin32 : public MidiOutputPort {
  public:
    using OutputCallback = std::function<void(MidiBufferWin32*, unsigned char port)>;

    /// Reads the device's capabilities; a port whose index has no device is not valid but
    /// still accepts a callback.
    explicit MidiOutputPortWin32(unsigned char portIndex);

    /// Ports on this platform have no persistent id: any value is accepted, nothing stored.
    bool SetUniqueId(int) override { return true; }
    /// "Not a valid output device." or the device's product name.
    std::string GetDisplayName() override;
    int GetUniqueId() override { return 0; }
    /// Hands the buffer (a MidiBufferWin32) and this port's index to the output callback. An
    /// InvalidVoiceEvent is logged ("InvalidVoiceEvent for port <n>") and rethrown.
    void SendMidiBuffer(MidiBuffer& buffer) override;
    void SetMidiOutputCallback(OutputCallback callback);
    bool GetIsValid() const { return isValid_; }

  private:
    std::mutex mutex_;
    bool isValid_ = false;
    MIDIOUTCAPSW capabilities_{};
    bool hasOutputCallback_ = false;
    OutputCallback outputCallback_;
};

/// The ports of an output, by index, and the buffers registered with them.
/// Locks: its own mutex guards the registered list only; it is never held while a buffer's
/// mutex is taken (sending holds a buffer's mutex and must not wait for this one).
class MidiOutputPortsWin32 : public MidiOutputPorts {
  public:
    explicit MidiOutputPortsWin32(unsigned char portCount);

    /// Each port's SendMidiBuffer, in port order.
    void SendMidiBuffer(MidiBuffer& buffer) override;
    /// Keeps the buffer (a MidiBufferWin32) alive and prepares it at the next connect.
    void RegisterMidiBuffer(std::shared_ptr<MidiBuffer> buffer) override;

    /// Prepares every registered buffer's headers with the device's handle (a packet the
    /// previous device still holds is quarantined and a fresh one takes its place), starts the
    /// stream, then points every port at the device. When preparing or starting fails the ports
    /// and headers stay with the device they had, and the failure is rethrown.
    void ConnectSynth(WinSynth& synth);
    /// Stops the stream, unprepares every registered buffer's headers and cleans up their
    /// quarantined packets, warning about any that remain. Ports that point at the device send
    /// nothing afterwards.
    void DisconnectSynth(WinSynth& synth);
    void CleanUpQuarantinedDataBuffers(HMIDIOUT handle);

    std::size_t GetPortCount() const { return ports_.size(); }
    MidiOutputPortWin32& GetPort(unsigned char port) { return *ports_.at(port); }

  private:
    std::vector<std::shared_ptr<MidiBufferWin32>> RegisteredBuffers_();

    std::mutex mutex_;
    // The device the ports point at; connects and disconnects come from one thread at a time
    // (the output's, under its client mutex).
    WinSynth* connected_ = nullptr;
    std::vector<std::shared_ptr<MidiOutputPortWin32>> ports_;
    std::vector<std::shared_ptr<MidiBuffer>> registeredBuffers_;
};

/// A new set of `portCount` output ports; the caller owns it.
std::unique_ptr<MidiOutputPortsWin32> CreateMidiPorts(unsigned char portCount);
/// Output port listing is not offered on this platform: always empty.
std::vector<std::shared_ptr<MidiPort>> GetMidiOutputPorts();
