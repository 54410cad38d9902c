// The stream device: one opened multimedia MIDI stream that sends one port's packet at a time and
// waits for the service to hand it back.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "platform/mmsystem.h"

class MidiBufferWin32;

/// Base of the output devices.
class Synth {
  public:
    virtual ~Synth() = default;
};

/// Threads: the clock thread sends (through the output ports' callbacks), the client's thread
/// restarts, stops and closes, and the stream service's callback thread completes packets (it
/// touches only the packet's in-use state). Locks: its own mutex around each send, so that one
/// packet is in flight at a time; the packet's in-use mutex inside.
///
/// A device that goes away while open (unplugged, its port gone) is not closed by the service:
/// the next midiStreamOut answers MIDIERR_NODEVICE. The device then counts as lost for good
/// (GetIsLost) and every later send returns at once without sending: a stop or a panic asked for
/// by the host after the loss must not fail for want of a device. The owner opens the device
/// again, when it is back, as a new WinSynth.
class WinSynth : public Synth {
  public:
    /// Opens stream device `deviceId` with the completion callback; no stream properties are set
    /// (every event has delta time 0). Throws MidiDeviceUnavailable with the device summary on
    /// failure.
    explicit WinSynth(UINT deviceId = 0);
    WinSynth(const WinSynth&) = delete;
    WinSynth& operator=(const WinSynth&) = delete;
    /// Closes the stream.
    ~WinSynth() override;

    /// Sends the port's packet of the buffer and waits up to 3 seconds for it to come back; a
    /// packet that does not come back is quarantined and replaced. An empty packet is not sent.
    /// Throws std::logic_error when the packet's header is not prepared, or prepared with
    /// another device; MidiImplementationError when the service refuses it. Blocks. Does nothing
    /// once the device is lost.
    void SendPort(MidiBufferWin32* buffer, unsigned char port);
    /// Starts the stream playing (it opens paused). Throws MidiImplementationError.
    void Restart();
    /// Stops the stream; queued packets come back. The result is ignored.
    void Stop();

    HMIDISTRM GetStreamHandle() const { return stream_; }
    UINT GetDeviceId() const { return deviceId_; }
    /// The device's product name as it was listed when it was opened.
    const std::string& GetDeviceName() const { return deviceName_; }
    /// The device went away under the open stream (see the class comment). Any thread.
    bool GetIsLost() const { return lost_.load(); }
    /// The failure text of the send that found the device gone ("" while it is not lost).
    std::string GetLossReason();
    /// The stream handle as the output handle headers are prepared with.
    HMIDIOUT GetOutputHandle() const { return reinterpret_cast<HMIDIOUT>(stream_); }

    /// The service's completion callback: MOM_DONE hands a packet back.
    static void CALLBACK CompletionCallback(HMIDIOUT handle, UINT message, DWORD_PTR instance,
                                            DWORD_PTR parameter1, DWORD_PTR parameter2);

  private:
    std::mutex mutex_;
    HMIDISTRM stream_ = nullptr;
    UINT deviceId_;
    std::string deviceName_;
    std::string lossReason_;  // guarded by mutex_; written before lost_ is set
    std::atomic<bool> lost_{false};
};
