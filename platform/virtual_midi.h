// Virtual MIDI devices of the platform layer: outputs that record what the MIDI service sends
// them (and can be told to misbehave), inputs that inject messages into the service, and the
// built-in default output listed when no other output exists.
//
// Virtual devices come first in the device lists of platform/mmsystem.h, in creation order, so
// that a test or host program decides which device ids the engine sees. They exist on POSIX
// only (on Windows the system's own devices are used).
//
// The system's own ports (the ALSA sequencer's and the JACK server's) follow them, unless the
// environment variable VELT_MIDI_SYSTEM_PORTS is "0" when the process first uses this layer: then
// only the virtual devices and the built-in default output are listed, whatever the machine has.
// Tests and scripts that must play into the built-in default output set it.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mmsystem.h"

namespace velt_platform {

namespace detail {
class VirtualOutputState;
class VirtualInputState;
}  // namespace detail

// One message as an output device received it.
struct RecordedMessage {
    std::vector<std::uint8_t> bytes;  // the complete message (1 to 3 bytes, or a whole SysEx)
    std::int64_t timestampNs = 0;     // steady clock, nanoseconds since its epoch
    // Zero-based index, counted per device, of the stream buffer (midiStreamOut) that carried the
    // message; empty for midiOutShortMsg / midiOutLongMsg and for the note-offs of a stop/reset.
    std::optional<std::uint64_t> packet;
};

// A view on a recording output device (a virtual output or the built-in default output).
// Every member may be called from any thread; each takes only the device's own mutex, which the
// MIDI service also takes (briefly, never across a callback) when it delivers a message.
class MidiOutputRecorder {
  public:
    const std::string& Name() const;

    // Everything received since creation or the last ClearMessages, in arrival order.
    std::vector<RecordedMessage> Messages() const;
    void ClearMessages();

    // Blocks until at least count messages are recorded or the limit passes; true when they are.
    // The limit is only a safety net for tests that would otherwise hang.
    bool WaitForMessages(std::size_t count, std::chrono::milliseconds limit) const;

    // Stream buffers handed to the device so far (the next buffer gets this index).
    std::uint64_t PacketCount() const;
    bool IsOpen() const;

    // Fault injection. FailOpen: every open of the device fails with the given result until
    // FailOpen(MMSYSERR_NOERROR). LoseNextCompletions: the next count stream buffers queued are
    // played but never handed back (no MOM_DONE, flags stay MHDR_INQUEUE, not even on stop).
    // LoseCompletionOfPacket: the same for the buffer with that packet index.
    // SetCompletionDelay: each stream buffer is handed back this long after its last event
    // played (the service answers slowly; later buffers wait behind it).
    void FailOpen(MMRESULT result);
    void LoseNextCompletions(unsigned count);
    void LoseCompletionOfPacket(std::uint64_t packetIndex);
    void SetCompletionDelay(std::chrono::nanoseconds delay);

  protected:
    explicit MidiOutputRecorder(std::shared_ptr<detail::VirtualOutputState> state);
    std::shared_ptr<detail::VirtualOutputState> state_;
};

// A virtual output device, listed from construction until destruction. A handle that is open on
// it when it is destroyed keeps working, but plain sends then fail with MIDIERR_NODEVICE and
// nothing more is recorded.
class VirtualMidiOutput : public MidiOutputRecorder {
  public:
    explicit VirtualMidiOutput(std::string name);
    ~VirtualMidiOutput();
    VirtualMidiOutput(const VirtualMidiOutput&) = delete;
    VirtualMidiOutput& operator=(const VirtualMidiOutput&) = delete;

    // Current device id (position in the output list), or empty when not listed.
    std::optional<UINT> DeviceId() const;
};

// A virtual input device, listed from construction until destruction. Messages injected while
// no handle has it open and started are dropped (the calls then return false).
// Thread safety: any thread; takes the device's mutex, then the open handle's queue mutex.
class VirtualMidiInput {
  public:
    explicit VirtualMidiInput(std::string name);
    ~VirtualMidiInput();
    VirtualMidiInput(const VirtualMidiInput&) = delete;
    VirtualMidiInput& operator=(const VirtualMidiInput&) = delete;

    const std::string& Name() const;
    std::optional<UINT> DeviceId() const;
    bool IsOpen() const;

    // Injects a short message (bytes past the message's length are ignored: a note-on takes
    // three, a program change two, a real-time message one). True when an open, started handle
    // took it; it is delivered as MIM_DATA on that handle's service thread.
    bool SendShort(std::uint8_t status, std::uint8_t data1 = 0, std::uint8_t data2 = 0);

    // Injects a complete SysEx message (0xF0 ... 0xF7), delivered through the handle's queued
    // input buffers with MIM_LONGDATA.
    bool SendSysEx(std::vector<std::uint8_t> message);

  private:
    std::shared_ptr<detail::VirtualInputState> state_;
};

// The built-in default output ("Built-in Default Output"), a recorder that exists for the whole
// process and is listed only while no other output device exists.
MidiOutputRecorder& DefaultMidiOutput();

// When set (non-empty), every close of the default output writes the messages it received while
// it was open to this path as a Standard MIDI File (format 0, 1 ms per tick). The environment
// variable VELT_DEFAULT_OUTPUT_SMF sets the path at start-up. An empty path turns writing off.
void SetDefaultOutputMidiFile(std::filesystem::path path);

// Writes messages as a format-0 Standard MIDI File, timed relative to startNs with 1 ms per tick
// (1000 ticks per quarter note at 1000000 microseconds per quarter note). Real-time and system
// common messages are left out (a MIDI file cannot hold them). Throws std::runtime_error when the
// file cannot be written.
void WriteStandardMidiFile(const std::filesystem::path& path,
                           const std::vector<RecordedMessage>& messages, std::int64_t startNs);

}  // namespace velt_platform
