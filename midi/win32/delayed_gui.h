// Delivers the downbeat of each sent tick to the client a fixed, adjustable time after its MIDI
// was handed to the device, so that the display lines up with what the audience hears.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "platform/mmsystem.h"

/// Threads: the send step's thread schedules ticks, a worker thread delivers them, the client's
/// thread changes the delay, resets and destroys. Locks: the state mutex (guards the run flag,
/// the delay and the pending queue) and the wake mutex (pairs with the wake condition); the wake
/// mutex is taken first when both are held. The callback runs on the worker without any lock; an
/// exception it throws is logged (VeltLogException) and the worker goes on with the next tick.
///
/// One tick is delivered per timer wait, so ticks scheduled together reach the display one delay
/// apart rather than all at once: pacing, not batching.
class DelayedGui {
  public:
    using Callback = std::function<void(std::uint32_t tickIndex)>;

    /// Creates the auto-reset timer "DelayedCallbackTimer" and starts the worker thread.
    /// Logs "[ERROR] " and throws VeltMidiError, both with the error number, when the timer
    /// cannot be created.
    DelayedGui(Callback callback, double secondsDelay);
    DelayedGui(const DelayedGui&) = delete;
    DelayedGui& operator=(const DelayedGui&) = delete;
    /// Ends the worker: at once if it waits for a tick, after at most the delay (or two seconds)
    /// if it waits on the timer. Pending ticks are dropped.
    ~DelayedGui();

    /// Queues a tick for delivery after the delay.
    void SignalDelayedCallback(std::uint32_t tickIndex);
    /// Takes the oldest pending tick; false when there is none.
    bool GetNextTickIndex(std::uint32_t* tickIndex);
    bool HasScheduledCallbacks();
    /// Drops every pending tick; a timer wait in progress then ends without a callback.
    void Reset();
    double GetSecondsDelay();
    void SetSecondsDelay(double seconds);
    bool GetShouldRun();
    /// The state mutex, for callers that drop pending ticks as part of a larger step.
    std::mutex& GetMutex() { return stateMutex_; }
    /// Drops every pending tick; the caller holds GetMutex().
    void ResetLocked() { pendingTicks_.clear(); }

    void RunLoop();

  private:
    std::mutex stateMutex_;
    bool shouldRun_ = true;
    double secondsDelay_;
    std::thread worker_;
    std::mutex wakeMutex_;
    std::condition_variable wakeCondition_;
    HANDLE timer_ = nullptr;
    Callback callback_;
    std::deque<std::uint32_t> pendingTicks_;
};
