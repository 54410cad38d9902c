// The MIDI Time Code generator on the platform's MIDI output: quarter frames go out with
// midiOutShortMsg, full frames with midiOutLongMsg, on the output device chosen by index.
//
// Timing. The worker thread keeps absolute deadlines: the k-th future message of a stretch is
// due at first + k × interval, where first is the stretch's own first deadline (set by
// SendFutureQuarterFrameMessages), so a late wake-up delays that one message and none after it.
// It sleeps on the condition variable (so that a new stretch or a stop wakes it) until shortly
// before a deadline, then finishes the wait with the platform's high-resolution absolute wait.
// A message that comes due while the thread is held up goes out at once.
//
// Output. The port is opened when an index is first given and re-opened when the index changes
// (a failed open leaves no port and throws; sends without a port are dropped). A full frame
// is handed to the service in a prepared buffer and the call waits until the service hands it
// back, so the buffer's lifetime is the call's. A failed send writes a warning line (once for a
// run of failures, as a lost port fails every message) and the stream goes on.
//
// Threads: one worker thread ("mtc_generator") runs the timer and calls the base's timer
// callback; control threads call the base's public operations and SetOutputPortIndex; the MIDI
// service's thread reports a finished full frame. Locks: the base's mutex (every send and the
// port handle are under it), then the completion mutex (taken alone by the service's callback).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>

#include "midi/mtc_thread.h"
#include "platform/mmsystem.h"

// Final: the worker starts in the constructor and calls the virtual operations, so a class
// derived from this one would be called before it exists and after it is gone.
class MidiTimeCodeThreadWin32 final : public MidiTimeCodeThread {
  public:
    /// The clock and the last stretch of each wait, in nanoseconds of one monotonic clock.
    /// `coarseMargin` is how long before a deadline the thread stops sleeping on the condition
    /// variable and calls `waitUntil`, which need not be interruptible. Tests pass a clock whose
    /// wait moves it to the deadline, with a margin larger than any interval, so that stretches
    /// run at once and the deadlines can be read off the clock.
    struct Timing {
        std::function<std::int64_t()> now;
        std::function<void(std::int64_t deadline)> waitUntil;
        std::chrono::nanoseconds coarseMargin;
        /// The worker asks for time-critical priority (a refusal is logged once).
        bool timeCritical = false;
    };
    /// The platform's high-resolution clock and absolute wait, spinning the last 200 us, at
    /// time-critical priority.
    static Timing PreciseTiming();

    /// Starts the worker thread; no port until SetOutputPortIndex.
    MidiTimeCodeThreadWin32();
    explicit MidiTimeCodeThreadWin32(Timing timing);
    /// Stops and joins the worker, closes the port.
    ~MidiTimeCodeThreadWin32() override;

    /// Opens output device `portIndex` unless it is the one open; MidiPortError with the
    /// service's text if it cannot be opened (no port is open then).
    void SetOutputPortIndex(unsigned int portIndex) override;
    /// The open port's index, if any.
    std::optional<unsigned int> GetOutputPortIndex();
    /// Blocks until the current stretch has been sent or cancelled, or for at most `limit`;
    /// returns whether it has. For a caller that must know the output is quiet.
    bool WaitUntilStretchSent(std::chrono::milliseconds limit);

  private:
    void StopTimer() override;
    void SendQuarterFrameMessages(const std::vector<QuarterFrameMessage>& messages) override;
    void SendFullFrameMessage(const FullFrameMessage& message) override;
    void Run() override;
    double GetCurrentTime() override;

    /// Waits until `deadline` unless the stretch `generation` is stopped first (then false).
    /// Called and returns with the base's mutex held by `lock`.
    bool WaitForDeadline_(std::unique_lock<std::recursive_mutex>& lock, std::int64_t deadline,
                          std::uint64_t generation);
    void ClosePort_();
    /// Writes a warning line for the first failure of a run of failed sends.
    void NoteSendResult_(const char* action, MMRESULT result);
    static void CALLBACK ServiceCallback_(HMIDIOUT, UINT message, DWORD_PTR instance, DWORD_PTR,
                                          DWORD_PTR);

    const Timing timing_;
    // Under the base's mutex.
    HMIDIOUT port_ = nullptr;
    std::optional<unsigned int> portIndex_;
    bool sendFailing_ = false;      // the last send failed (its warning is written)
    std::uint64_t generation_ = 0;  // one more on every StopTimer: a stretch's timer is its value
    // Under completionMutex_: the service has handed the full frame's buffer back.
    std::mutex completionMutex_;
    std::condition_variable completion_;
    bool longMessageDone_ = false;
};
