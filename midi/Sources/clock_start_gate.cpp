#include "midi/clock_start_gate.h"

bool ClockStartGate::WaitForStart() {
    std::unique_lock lock(mutex_);
    condition_.wait(lock, [this] { return !open_ || startRequested_; });
    if (!open_) {
        return false;
    }
    startRequested_ = false;
    runLive_ = true;
    runEnding_ = false;
    return true;
}

void ClockStartGate::RequestStart() {
    {
        std::scoped_lock lock(mutex_);
        if (runLive_ && !runEnding_) {
            return;
        }
        startRequested_ = true;
    }
    condition_.notify_all();
}

void ClockStartGate::RunEnding() {
    std::scoped_lock lock(mutex_);
    runEnding_ = runLive_;
}

void ClockStartGate::EndRun() {
    {
        std::scoped_lock lock(mutex_);
        runLive_ = false;
        runEnding_ = false;
    }
    condition_.notify_all();
}

void ClockStartGate::Shut() {
    {
        std::scoped_lock lock(mutex_);
        open_ = false;
    }
    condition_.notify_all();
}

bool ClockStartGate::SleepUntil(std::chrono::steady_clock::time_point until) {
    std::unique_lock lock(mutex_);
    return !condition_.wait_until(lock, until, [this] { return !open_; });
}

bool ClockStartGate::WaitUntilIdle(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return condition_.wait_for(lock, timeout, [this] { return !runLive_ && !startRequested_; });
}
