// The send step of one clock period, done by hand: what the clock-driven send step of the
// platform output does with the ring (wait for the play buffer, send it or, for a last buffer,
// silence and stop, release it to the filler, advance), without a device or a clock. Tests and
// benchmarks of the pipeline play the clock with it (and ManualClock).
#pragma once

#include <atomic>
#include <functional>
#include <mutex>

#include "midi/midi_clock.h"
#include "midi/midi_output.h"

// The clock of an output whose send step is played by hand: only disarming matters to the
// output, and it is counted.
class ManualClock : public MidiClock {
  public:
    void SetTicksPerClock(unsigned int) override {}
    void SetClocksPerClick(int, unsigned int) override {}
    void SetClockTime(double, unsigned int) override {}
    void SetTickIndex(unsigned int, int, unsigned int, int, double, unsigned int) override {}
    void SetCaesura(unsigned int, double, int) override {}
    void ArmPlayback(unsigned int, int, double, unsigned int, int) override {}
    void DisarmPlayback() override { ++disarms; }
    void ContinuousMode() override {}
    void ConductBeat() override {}
    void SetConductorClickTimerCallback(std::function<void(void*)>, void*) override {}
    void SetDownbeatTimerCallback(std::function<void(void*)>, void*) override {}
    bool GetPlaybackIsArmed() override { return false; }
    std::atomic<int> disarms{0};
};

enum class ManualSendResult { nothing, buffer, stopped };

inline ManualSendResult SendOnePeriod(MidiOutput& output, double bpm = 120.0) {
    std::scoped_lock client(*output.GetClientMutex());
    if (!output.PlaybackIsActive()) {
        return ManualSendResult::nothing;
    }
    auto buffer = output.GetPlayBuffer();
    if (!buffer->WaitUntilReadyForOutput()) {
        return ManualSendResult::nothing;
    }
    std::unique_lock outputLock(output.GetMutex(), std::defer_lock);
    std::unique_lock bufferLock(buffer->GetMutex(), std::defer_lock);
    std::lock(outputLock, bufferLock);
    if (!output.PlaybackIsActive()) {
        return ManualSendResult::nothing;
    }
    if (buffer->GetIsLastBuffer()) {
        output.AllNotesOff();
        bufferLock.unlock();
        outputLock.unlock();
        output.DisarmPlayback();
        output.SignalAsyncStoppedCallback();
        return ManualSendResult::stopped;
    }
    output.GetPorts().SendMidiBuffer(*buffer);
    MidiBuffer::ProgramChangeMap programChanges = buffer->GetProgramChanges();
    output.SetBpmAtTickIndex(bpm, buffer->GetTickIndex());
    buffer->SetHasData(false);
    output.IncrementPlayBufferIndex();
    bufferLock.unlock();
    outputLock.unlock();
    MidiBuffer::NotifyProgramChanges(programChanges);
    return ManualSendResult::buffer;
}
