// MIDI input devices on this platform: the device wrapper and the input a dispatcher owns.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "midi/midi_ports.h"
#include "midi/velt_midi_error.h"
#include "platform/mmsystem.h"

class MidiMessageDispatcher;

/// One input device. The enumeration constructor only reads the device's name; the opening
/// constructor also opens it (stopped) with a callback that receives this port as instance data,
/// and queues its System Exclusive buffers with the device.
///
/// Buffer lifecycle: kSysExBufferCount buffers of kSysExBufferSize bytes, prepared and queued at
/// open; the device fills one per System Exclusive message and hands it to the callback
/// (MIM_LONGDATA), which reads it and queues it again while the port runs. KillIt stops the
/// re-queueing, resets the device (which hands back every queued buffer), unprepares them and
/// closes the device. A message longer than one buffer arrives in pieces; the callback passes on
/// only buffers that hold a whole message (0xF0 ... 0xF7).
///
/// Threads: the caller's thread constructs, starts and kills; the platform's input delivery
/// thread runs the callback, which asks GetIsRunning. Locks: the recursive port mutex of
/// MidiPortWin32, guarding `running`; held only to read or write it, never across a call into
/// the target, so KillIt (which clears it before resetting the device) drops whatever arrives
/// during shutdown without waiting for the target.
class MidiInputPortWin32 : public MidiInputPort, public MidiPortWin32 {
  public:
    explicit MidiInputPortWin32(unsigned char index);
    /// Throws MidiPortError "midiInOpen: <code> <text>" when the device cannot be opened.
    MidiInputPortWin32(unsigned char index, LPMIDICALLBACK callback, void* callbackTarget);
    ~MidiInputPortWin32() override;
    MidiInputPortWin32(const MidiInputPortWin32&) = delete;
    MidiInputPortWin32& operator=(const MidiInputPortWin32&) = delete;

    bool SetUniqueId(int uniqueId) override { return MidiPortWin32::SetUniqueId(uniqueId); }
    int GetUniqueId() override { return MidiPortWin32::GetUniqueId(); }
    /// The device's product name, one byte per UTF-16 code unit (its low byte), or "Not a valid
    /// input device." when its capabilities could not be read.
    std::string GetDisplayName() override;
    /// Starts delivery; throws MidiPortError "midiInStart: <code> <text>" on failure.
    void Start() override;
    bool GetIsRunning();
    /// Stops delivery, then resets and closes the device if it is open. Safe to call twice.
    void KillIt();
    void* GetCallbackTarget() const { return callbackTarget_; }
    unsigned char GetPortIndex() const { return MidiInputPort::GetPortIndex(); }

    /// From the callback: the whole message a returned buffer holds (empty when it holds none
    /// or a piece of one), and the buffer queued again while the port runs.
    std::span<const std::uint8_t> SysExOf(const MIDIHDR& header) const;
    void Requeue(MIDIHDR& header);

    static constexpr std::size_t kSysExBufferCount = 4;
    static constexpr std::size_t kSysExBufferSize = 256;

  private:
    struct SysExBuffer {
        MIDIHDR header{};
        std::array<char, kSysExBufferSize> bytes{};
    };

    bool capsValid_ = false;
    bool isOpen_ = false;
    MIDIINCAPSW capabilities_{};
    HMIDIIN handle_ = nullptr;
    void* callbackTarget_ = nullptr;
    bool running_ = false;  // guarded by portMutex_
    std::array<SysExBuffer, kSysExBufferCount> sysExBuffers_{};
};

/// One open input tied to its target; the dispatcher owns one. Each short message (MIM_DATA) is
/// handed to Target::ProcessMessage on the delivery thread, each whole System Exclusive message
/// (MIM_LONGDATA) to Target::ProcessSystemExclusive; open/close notices and errors are ignored.
/// PacketStart/PacketEnd are never called from here.
template <typename Target>
class MidiInputWin32 : public MidiInputInterface {
  public:
    MidiInputWin32(unsigned char index, Target* target)
        : port_(index, &MidiInputWin32::Callback_, target) {}
    ~MidiInputWin32() override { port_.KillIt(); }

    void Start() override { port_.Start(); }
    unsigned char GetPortIndex() override { return port_.GetPortIndex(); }

  private:
    static void CALLBACK Callback_(HDRVR, UINT message, DWORD_PTR instance, DWORD_PTR first,
                                   DWORD_PTR);

    MidiInputPortWin32 port_;
};

/// The short message packed into a callback's first parameter: status in the lowest byte, then
/// the two data bytes.
MIDIMessage UnpackMidiInMessage(DWORD_PTR packed);

template <typename Target>
void CALLBACK MidiInputWin32<Target>::Callback_(HDRVR, UINT message, DWORD_PTR instance,
                                                DWORD_PTR first, DWORD_PTR) {
    auto* port = reinterpret_cast<MidiInputPortWin32*>(instance);
    auto* target = static_cast<Target*>(port->GetCallbackTarget());
    if (message == MIM_DATA) {
        if (port->GetIsRunning()) {
            target->ProcessMessage(UnpackMidiInMessage(first));
        }
    } else if (message == MIM_LONGDATA) {
        auto& header = *reinterpret_cast<MIDIHDR*>(first);
        if (const auto bytes = port->SysExOf(header); !bytes.empty() && port->GetIsRunning()) {
            target->ProcessSystemExclusive(bytes);
        }
        port->Requeue(header);
    }
}

extern template class MidiInputWin32<MidiMessageDispatcher>;

/// One enumeration port per input device, in device order.
std::vector<std::shared_ptr<MidiPort>> GetMidiInputPorts();
