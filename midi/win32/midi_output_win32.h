// The platform output: owns the output ports, the stream device and the display delay, and
// sends one buffer of the ring per MIDI clock.
#pragma once

#include <memory>
#include <mutex>

#include "midi/midi_output.h"
#include "midi/win32/delayed_gui.h"
#include "midi/win32/midi_output_ports_win32.h"
#include "midi/win32/win_synth.h"

/// Threads: the clock thread runs the send step (ProcessMidiClock, registered as the clock's
/// callback at construction); the client's thread creates the device, disarms, resets and
/// changes the display delay. Locks, in order: the client mutex (the whole send step), then the
/// output mutex together with the play buffer's mutex; the DelayedGui's state mutex is taken
/// after the output mutex.
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

    /// Opens the stream device and connects the ports to it, replacing (and only then
    /// disconnecting) an earlier device. Throws MidiDeviceUnavailable.
    void CreateSynthOutput() override;
    void CreateAudioUnitOutput(const velt_midi::VoiceData&) override {}
    void CreateKeysOutput() override {}
    /// Disarms, then cleans up quarantined packets and drops pending display callbacks.
    void DisarmPlayback() override;
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

    MidiOutputPortsWin32 ports_;
    std::unique_ptr<WinSynth> synth_;
    WinSynth* connectedSynth_ = nullptr;
    DelayedGui delayedGui_;
};
