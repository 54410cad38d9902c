// The start hand-off between the threads that start a clock and the clock's own thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

/// Lets control threads start runs of a clock thread, and its owner end that thread.
///
/// A start request is remembered until the clock thread takes it, so a start made before the
/// thread first waits is not lost, and a spurious wake-up never starts a run. A request made
/// while a run is live is ignored: a run in progress is not restarted, and a clock stopped at a
/// caesura stays stopped until the next request after the stop. The stop is the moment the clock
/// decides its run is over (RunEnding), which comes before the clock thread has wound the run up
/// (EndRun): a request in between is kept and starts the next run once this one has ended, so a
/// start that closely follows the stop is not lost.
///
/// Threads: control threads (RequestStart), the clock thread (WaitForStart, SleepUntil), the
/// thread that ends a run (RunEnding, EndRun: clock or timer thread), the owner's destructor
/// (Shut). Locks: its own mutex only, never held by a caller across other work. RunEnding is
/// called with the clock's mutex held: a control thread that looks at the clock under that mutex
/// (to arm it again, say) and then asks for a start is thereby ordered after the stop.
class ClockStartGate {
  public:
    /// Clock thread: blocks until a start is requested (returns true, the run is now live) or the
    /// gate is shut (returns false).
    bool WaitForStart();
    /// Control thread: asks for a run; ignored while one is live and not yet decided over.
    void RequestStart();
    /// The clock has decided that the live run is over; a request from now on is kept for the
    /// next run.
    void RunEnding();
    /// The run has ended; the next request, or one kept since RunEnding, starts another.
    void EndRun();
    /// Wakes every wait for good; WaitForStart and SleepUntil return false from now on.
    void Shut();
    /// Clock thread: sleeps until `until` (steady clock) unless the gate is shut first. Returns
    /// false when shut.
    bool SleepUntil(std::chrono::steady_clock::time_point until);
    /// Blocks until no run is live or requested, or for at most `timeout`. Returns whether none
    /// is.
    bool WaitUntilIdle(std::chrono::milliseconds timeout);

  private:
    std::mutex mutex_;
    std::condition_variable condition_;
    bool open_ = true;
    bool startRequested_ = false;
    bool runLive_ = false;
    bool runEnding_ = false;  // the live run has been decided over
};
