// The abstract MIDI clock: once per MIDI clock it calls its callback with the current tempo in
// clicks per minute. The output pipeline's send step is that callback.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

/// Threads: the setters come from the playback side (host thread, queue thread); the callback runs
/// on the implementation's timer thread. Locks: `clockMutex_` (recursive) guards the
/// implementation's state; it is taken before any lock of the clock's state.
class MidiClock {
  public:
    MidiClock() = default;
    MidiClock(const MidiClock&) = delete;
    MidiClock& operator=(const MidiClock&) = delete;
    virtual ~MidiClock() = default;

    /// Sets the ticks one clock advances, at once.
    virtual void SetTicksPerClock(unsigned int ticksPerClock) = 0;
    /// Sets the clocks per click, valid at the given tick (0 = at once).
    virtual void SetClocksPerClick(int clocksPerClick, unsigned int validAt) = 0;
    /// Sets the seconds per clock, valid at the given tick (0 = at once).
    virtual void SetClockTime(double clockTime, unsigned int validAt) = 0;
    /// Replaces the whole clock state, at once (validAt 0) or at the given tick.
    virtual void SetTickIndex(unsigned int tickIndex, int clockNumber, unsigned int ticksPerClock,
                              int clocksPerClick, double clockTime, unsigned int validAt) = 0;
    /// Schedules a stop of the clock at the given tick.
    virtual void SetCaesura(unsigned int caesuraTickIndex, double clockTime,
                            int clocksPerClick) = 0;
    /// Enters the armed state with a full clock state.
    virtual void ArmPlayback(unsigned int ticksPerClock, int clocksPerClick, double clockTime,
                             unsigned int tickIndex, int clockNumber) = 0;
    /// Leaves the armed state and drops every pending change.
    virtual void DisarmPlayback() = 0;
    /// Starts the clock running by itself.
    virtual void ContinuousMode() = 0;
    /// Advances the clock by one conducted beat.
    virtual void ConductBeat() = 0;
    virtual void SetConductorClickTimerCallback(std::function<void(void*)> callback,
                                                void* data) = 0;
    virtual void SetDownbeatTimerCallback(std::function<void(void*)> callback, void* data) = 0;
    virtual bool GetPlaybackIsArmed() = 0;

    /// Replaces the clock callback (the old one is destroyed). Not locked: set it before the clock
    /// runs.
    void SetMidiClockCallback(std::function<void(double)> callback) {
        midiClockCallback_ = std::move(callback);
    }
    /// Calls the clock callback with the tempo in clicks per minute; an empty callback raises
    /// std::bad_function_call.
    void DoMidiClockCallback(double bpm) { midiClockCallback_(bpm); }

  protected:
    std::recursive_mutex clockMutex_;

  private:
    std::function<void(double)> midiClockCallback_;
};
