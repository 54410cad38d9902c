// Internal pieces of the POSIX MIDI service shared by its source files: the device interfaces
// behind the handles, the device lists, and MIDI byte helpers. Not part of the platform seam.
#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "mm_midi.h"

namespace velt_platform::detail {

using Bytes = std::vector<BYTE>;

// Steady clock, nanoseconds since its epoch (the time base of recordings and input stamps).
std::int64_t NowNs();

// Names the calling thread (at most 15 characters are kept).
void SetCurrentThreadName(const char* name);

// What the device decided about a stream buffer when it was queued.
struct PacketTicket {
    std::uint64_t index = 0;                      // per-device packet number
    bool loseCompletion = false;                  // never hand the buffer back
    std::chrono::nanoseconds completionDelay{0};  // hand it back this long after its last event
};

// One output device. Open/Close are called by the handle layer around a handle's life; Send may
// be called from a handle's service thread and from callers of midiOutShortMsg at the same time,
// so implementations serialise it themselves.
class OutputPort {
  public:
    virtual ~OutputPort() = default;
    virtual std::string Name() const = 0;
    virtual WORD Technology() const { return MOD_MIDIPORT; }
    virtual MMRESULT Open() = 0;
    virtual void Close() = 0;
    // Sends one complete message (1-3 bytes, or a whole SysEx). packet: the stream buffer it came
    // in, if any.
    virtual MMRESULT Send(std::span<const BYTE> message, std::optional<std::uint64_t> packet) = 0;
    // Called once per stream buffer when it is queued, under the handle's mutex.
    virtual PacketTicket QueuePacket() = 0;
};

// Receives messages from an input device, on whatever thread the device produces them.
class InputSink {
  public:
    // message: one complete message. Returns false when the sink dropped it (not started).
    virtual bool Receive(Bytes message, std::int64_t timeNs) = 0;

  protected:
    ~InputSink() = default;
};

// One input device. After Close returns, the sink given to Open is never called again.
class InputPort {
  public:
    virtual ~InputPort() = default;
    virtual std::string Name() const = 0;
    virtual MMRESULT Open(InputSink& sink) = 0;
    virtual void Close() = 0;
};

// The device lists in device-id order (see platform/posix/mm_midi.h). Built afresh per call.
std::vector<std::shared_ptr<OutputPort>> ListOutputs();
std::vector<std::shared_ptr<InputPort>> ListInputs();

// The names the service gives itself on the system's MIDI transports: its client, and the ports
// it opens to reach a device (JACK numbers further ports "VELT Out 2", "VELT Out 3", ...).
inline constexpr const char* kServiceClientName = "VELT";
inline constexpr const char* kServiceOutputPortName = "VELT Out";
inline constexpr const char* kServiceInputPortName = "VELT In";

// The system's ports: the ALSA sequencer's through RtMidi, then the JACK server's. Each part is
// left out when the library was built without it.
void AppendSystemOutputs(std::vector<std::shared_ptr<OutputPort>>& ports);
void AppendSystemInputs(std::vector<std::shared_ptr<InputPort>>& ports);

// The JACK server's MIDI destinations / sources (see platform/posix/jack_midi_ports.cpp).
void AppendJackOutputs(std::vector<std::shared_ptr<OutputPort>>& ports);
void AppendJackInputs(std::vector<std::shared_ptr<InputPort>>& ports);

// Length in bytes of a message that starts with this status byte: 3 for note, aftertouch,
// controller and pitch bend, 2 for program change, channel pressure, MTC quarter frame and song
// select, 3 for song position, 1 for the rest of the system messages. 0 for a data byte and for
// the SysEx bytes 0xF0/0xF7, which have no fixed length.
int ShortMessageLength(BYTE status);

// Unpacks a packed short message (status in the low byte) into its bytes, using and updating
// runningStatus (0 = none). Empty when there is no status to use or the status is SysEx.
Bytes UnpackShortMessage(DWORD packed, BYTE& runningStatus);

// Packs up to the first three bytes of a message, status in the low byte.
DWORD PackShortMessage(std::span<const BYTE> message);

// Writes utf8 as UTF-16 into a WCHAR[MAXPNAMELEN] field, cut to MAXPNAMELEN - 1 code units
// without splitting a surrogate pair, zero-filled.
void CopyDeviceName(const std::string& utf8, WCHAR (&field)[MAXPNAMELEN]);

// Text for a result number, or nullptr when the service has none.
const char* ResultText(MMRESULT result);

// Copies a result text into a caller's buffer as midiOutGetErrorTextW documents.
MMRESULT CopyResultText(MMRESULT result, LPWSTR text, UINT cchText);

// Runs `work` and reports an exception that leaves it as one line on the standard error stream,
// naming `what` failed. No exception may leave a thread of the service, nor reach a thread of a
// system library that calls into it. Returns whether `work` completed.
void ReportFailure(const char* what, const std::exception* error) noexcept;
template <typename Work>
bool RunReportingFailure(const char* what, Work&& work) noexcept {
    try {
        std::forward<Work>(work)();
        return true;
    } catch (const std::exception& error) {
        ReportFailure(what, &error);
    } catch (...) {
        ReportFailure(what, nullptr);
    }
    return false;
}

// Callback target chosen at open. Invoke reports and swallows exceptions thrown by it.
struct CallbackTarget {
    DWORD kind = CALLBACK_NULL;
    DWORD_PTR function = 0;
    DWORD_PTR instance = 0;
    void Invoke(const void* handle, UINT message, DWORD_PTR param1, DWORD_PTR param2) const;
};

// Checks the open flags and fills the target. allowed: flag bits accepted besides the callback
// kind. MMSYSERR_NOTSUPPORTED for window/thread/event callbacks, MMSYSERR_INVALFLAG for others.
MMRESULT MakeCallbackTarget(DWORD flags, DWORD allowed, DWORD_PTR function, DWORD_PTR instance,
                            CallbackTarget& target);

// Every open handle of one kind (output and stream handles, or input handles), by the value
// handed out as the handle. Threads: any. Locks: its own mutex, around the map only; a handle
// removed is destroyed after the lock is released, since closing it may wait for a thread that
// looks handles up.
template <typename Handle>
class HandleTable {
  public:
    void Add(std::shared_ptr<Handle> handle) {
        std::scoped_lock lock(mutex_);
        handles_.emplace(handle.get(), std::move(handle));
    }

    std::shared_ptr<Handle> Find(const void* key) const {
        std::scoped_lock lock(mutex_);
        const auto found = handles_.find(key);
        return found == handles_.end() ? nullptr : found->second;
    }

    void Remove(const void* key) {
        std::shared_ptr<Handle> last;  // destroyed after the table lock is released
        std::scoped_lock lock(mutex_);
        if (const auto found = handles_.find(key); found != handles_.end()) {
            last = std::move(found->second);
            handles_.erase(found);
        }
    }

  private:
    mutable std::mutex mutex_;
    std::unordered_map<const void*, std::shared_ptr<Handle>> handles_;
};

}  // namespace velt_platform::detail
