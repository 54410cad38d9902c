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

/// Time base: the stream counts delta times in microseconds (time division 1000 ticks per quarter
/// note at 1000 microseconds per quarter note, set when the stream opens). A period's length is
/// only known when the clock fires it (tempo scale, conducting, the clock's own corrections), up
/// to four periods after its buffer was filled, so the buffer keeps each event's offset in song
/// ticks and the send step turns those into microseconds with the period's own clock time. A fixed
/// microsecond base needs no tempo events in the packets and no change of the stream's time
/// division (allowed only while it is stopped) when a song of another resolution comes up; one
/// microsecond is far finer than any device can resolve.
///
/// Two ways to send (SetExactTiming): clock timing hands a packet over and waits for it to come
/// back, as every event in it has delta time 0 and plays at once; exact timing hands a timed
/// packet (DataBuffer::GetIsTimed: a period of the ring) over and returns, the packet playing over
/// most of the period, and the wait moves to the packet's next use (see MidiBufferWin32). Untimed
/// packets (panics, single events a client injects) are awaited in both ways, so that what a
/// client sends has reached the device when its call returns; one sent while a timed packet
/// still plays waits for that packet to end (at most a period).
///
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
    /// Microseconds per quarter note and ticks per quarter note of the stream: one tick is one
    /// microsecond.
    static constexpr DWORD streamTempo = 1000;
    static constexpr DWORD streamTimeDivision = 1000;

    /// Opens stream device `deviceId` with the completion callback and sets the microsecond time
    /// base. Throws MidiDeviceUnavailable with the device summary on failure.
    explicit WinSynth(UINT deviceId = 0);
    WinSynth(const WinSynth&) = delete;
    WinSynth& operator=(const WinSynth&) = delete;
    /// Closes the stream.
    ~WinSynth() override;

    /// Clock timing (the default): sends the port's packet of the buffer and waits up to 3
    /// seconds for it to come back; a packet that does not come back is quarantined and replaced.
    /// Exact timing: waits (up to 3 seconds, then quarantines it and sends a fresh copy) if the
    /// packet is still with the service from an earlier send; returns once a timed packet is
    /// queued, and awaits an untimed one as clock timing does.
    /// An empty packet is not sent.
    /// Throws std::logic_error when the packet's header is not prepared, or prepared with
    /// another device; MidiImplementationError when the service refuses it. Blocks. Does nothing
    /// once the device is lost.
    void SendPort(MidiBufferWin32* buffer, unsigned char port);
    /// Starts the stream playing (it opens paused). Throws MidiImplementationError.
    void Restart();
    /// Stops the stream; queued packets come back. The result is ignored.
    void Stop();
    /// Exact timing: drops what is still queued (packets come back, notes sounding are released)
    /// and starts the stream again, so that what is sent next plays at once and nothing queued
    /// earlier plays after it. Used before a panic and when playback stops. Clock timing: nothing
    /// is ever queued between sends, so nothing is done.
    void Flush();
    void SetExactTiming(bool exact) { exactTiming_.store(exact); }
    bool GetExactTiming() const { return exactTiming_.load(); }

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
    std::atomic<bool> exactTiming_{false};
};
