// The stream device: one opened multimedia MIDI stream that sends one port's packet at a time and
// waits for the service to hand it back.
#pragma once

#include <mutex>

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
class WinSynth : public Synth {
  public:
    /// Opens stream device 0 with the completion callback; no stream properties are set (every
    /// event has delta time 0). Throws MidiDeviceUnavailable with the device summary on failure.
    WinSynth();
    WinSynth(const WinSynth&) = delete;
    WinSynth& operator=(const WinSynth&) = delete;
    /// Closes the stream.
    ~WinSynth() override;

    /// Sends the port's packet of the buffer and waits up to 3 seconds for it to come back; a
    /// packet that does not come back is quarantined and replaced. An empty packet is not sent.
    /// Throws std::logic_error when the packet's header is not prepared, or prepared with
    /// another device; MidiImplementationError when the service refuses it. Blocks.
    void SendPort(MidiBufferWin32* buffer, unsigned char port);
    /// Starts the stream playing (it opens paused). Throws MidiImplementationError.
    void Restart();
    /// Stops the stream; queued packets come back. The result is ignored.
    void Stop();

    HMIDISTRM GetStreamHandle() const { return stream_; }
    /// The stream handle as the output handle headers are prepared with.
    HMIDIOUT GetOutputHandle() const { return reinterpret_cast<HMIDIOUT>(stream_); }

    /// The service's completion callback: MOM_DONE hands a packet back.
    static void CALLBACK CompletionCallback(HMIDIOUT handle, UINT message, DWORD_PTR instance,
                                            DWORD_PTR parameter1, DWORD_PTR parameter2);

  private:
    std::mutex mutex_;
    HMIDISTRM stream_ = nullptr;
};
