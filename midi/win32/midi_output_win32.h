// The platform output: owns the output ports, the stream device and the display delay, and
// sends one buffer of the ring per MIDI clock.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "midi/midi_output.h"
#include "midi/win32/delayed_gui.h"
#include "midi/win32/midi_output_ports_win32.h"
#include "midi/win32/win_synth.h"

/// Threads: the clock thread runs the send step (ProcessMidiClock, registered as the clock's
/// callback at construction); the client's thread creates the device, disarms, resets and
/// changes the display delay. Locks, in order: the client mutex (the whole send step, and every
/// change of device), then the output mutex together with the play buffer's mutex; the
/// DelayedGui's state mutex is taken after the output mutex; the device mutex (only around
/// replacing the device and reading its name and state) is taken last and never waits for a step.
/// No host callback runs while the output mutex or a buffer's mutex is held: the period's program
/// changes are posted (notify::names::currentProgramIds) once both are released, under the client
/// mutex only.
///
/// Send failures never stop the ring: a period whose packets cannot be sent is dropped and counted
/// (GetDroppedSendCount); the first failure on a device is logged, later ones only counted; the
/// song keeps its time and ends as usual. A device that went away is
/// reported once, by a log line and the notification notify::names::midiOutputDeviceLost (its
/// payload is a const std::string* with the device's name, valid during the call), posted on the
/// clock's thread after the output's locks are released, as disarmedPlayback is; when a send of
/// the host's own (a stop's note-offs, a trim) found the loss, the next send step reports it.
/// Nothing more is sent to that device, and the host's sends to it return without effect; the host
/// opens it again by name (CreateSynthOutput(name)) from its own thread once FindMidiOutDevice
/// lists it again, and playback goes on there.
///
/// Timing (SetExactTiming): with clock timing, the written behaviour, every event of a period
/// goes out at the period's start. With exact timing each event plays at its own place inside
/// the period: the send step writes the packets' delta times from the period's ticks per clock
/// and clock time (read from the clock, which must be a StandardMidiClock; with another clock the
/// deltas stay 0) and hands the packets over without waiting for them (see WinSynth). A stop by
/// the client (DisarmPlayback) and a panic of the send step first drop what is still queued, so
/// that nothing of an earlier period plays after them. Exact timing is on from construction when
/// the clock is a PrecisionMidiClockImpl, whose periods are kept on an exact grid; off with any
/// other clock.
class MidiOutputWin32 : public MidiOutput {
  public:
    /// The display delay at construction, in seconds.
    static constexpr double initialGuiDelay = 0.22;
    static constexpr double guiDelayStep = 0.01;
    static constexpr double maximumGuiDelay = 0.25;

    MidiOutputWin32(unsigned char portCount, FillCallback fill, DownbeatCallback downbeat,
                    StoppedCallback stopped, ClockIsActiveCallback clockIsActive,
                    CaesuraCheckCallback caesuraCheck, MidiClock& clock,
                    std::recursive_mutex* clientMutex);
    /// Ends the threads, disconnects and closes the device. The clock calls into this object,
    /// so destroy it only once the clock has stopped: PrepareForExit, then wait for the clock
    /// (for instance StandardMidiClockImpl::WaitUntilStopped).
    ~MidiOutputWin32() override;

    /// Opens stream device 0 and connects the ports to it, replacing (and only then
    /// disconnecting) an earlier device. When device 0 is the device already connected and it
    /// still works, playback simply goes on there. Takes the client mutex. Throws
    /// MidiDeviceUnavailable.
    void CreateSynthOutput() override;
    /// The same for the output device listed now under the product name `deviceName`. Throws
    /// MidiDeviceUnavailable when none is listed or it cannot be opened.
    void CreateSynthOutput(const std::string& deviceName);
    /// The product name of the connected device ("" before one is connected). Never waits for a
    /// send step.
    std::string GetSynthDeviceName();
    /// Whether the connected device went away (see the class comment). Never waits for a send
    /// step.
    bool GetSynthIsLost();
    /// Sends of the send step that failed or were skipped for a lost device, since construction.
    std::uint64_t GetDroppedSendCount() const { return droppedSends_.load(); }
    void CreateAudioUnitOutput(const velt_midi::VoiceData&) override {}
    void CreateKeysOutput() override {}
    /// Disarms, then (exact timing) drops what the device still has queued, cleans up
    /// quarantined packets and drops pending display callbacks. The clock is disarmed before the
    /// client mutex is awaited, so at most the send step already under way runs after the call
    /// begins.
    void DisarmPlayback() override;
    /// Switches between exact timing (true) and clock timing; see the class comment. Takes the
    /// client mutex, so it never changes in the middle of a send step.
    void SetExactTiming(bool exact);
    bool GetExactTiming() const { return exactTiming_.load(); }
    /// Drops pending display callbacks.
    void ResetMidiOutput() override;
    /// Display delay ± 0.01 s within [0, 0.25]; the host is told the new delay in milliseconds.
    void IncreaseGuiDelay() override;
    void DecreaseGuiDelay() override;
    MidiOutputPorts& GetPorts() override { return ports_; }

    /// The send step of one clock period (bpm: the tempo the clock reports). Never throws: any
    /// failure is logged.
    void ProcessMidiClock(double bpm);
    double GetGuiDelay() { return delayedGui_.GetSecondsDelay(); }

  private:
    void SetGuiDelay_(double seconds);
    // The disarm of the client's stop (flush true) or of the send step (false: the period just
    // sent, or the all-notes-off that ends the song, still plays out).
    void DisarmPlayback_(bool flush);
    // Exact timing: the delta times of the buffer about to be sent, from the clock's period.
    void TimeBuffer_(MidiBuffer& buffer);
    // Exact timing: drops what the device still has queued.
    void FlushSynth_();
    void ConnectSynth_(UINT deviceId);
    // One send of the step (a panic or the period's packets). A failure is counted and reported,
    // never thrown: the step must go on so that the ring keeps moving.
    void SendGuarded_(const std::function<void()>& send);
    // Posts the device-lost notification owed by a send of this step, if any. Called with only
    // the client mutex held.
    void PostDeviceLost_();
    std::string GetConnectedName_() const;

    MidiOutputPortsWin32 ports_;
    // The device. Changed under the client mutex and the device mutex together, so the send step
    // reads it under the client mutex and the name and lost queries under the device mutex alone.
    mutable std::mutex deviceMutex_;
    std::unique_ptr<WinSynth> synth_;
    WinSynth* connectedSynth_ = nullptr;
    DelayedGui delayedGui_;
    // Send-failure state of the connected device; the send step and device changes touch it,
    // both under the client mutex.
    bool failureReported_ = false;
    bool lossReported_ = false;
    bool lossToPost_ = false;
    std::atomic<std::uint64_t> droppedSends_{0};
    std::atomic<bool> exactTiming_{false};
};
