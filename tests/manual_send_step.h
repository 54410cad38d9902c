// The send step of one clock period, done by hand: what the clock-driven send step of the
// platform output does with the ring (wait for the play buffer, send it or, for a last buffer,
// silence and stop, release it to the filler, advance), without a device or a clock. Tests and
// benchmarks of the pipeline play the clock with it.
#pragma once

#include <mutex>

#include "midi/midi_output.h"

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
    buffer->SendProgramChanges();
    output.SetBpmAtTickIndex(bpm, buffer->GetTickIndex());
    buffer->SetHasData(false);
    output.IncrementPlayBufferIndex();
    return ManualSendResult::buffer;
}
