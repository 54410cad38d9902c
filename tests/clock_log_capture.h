// Captures the log lines written while it lives, for the clock tests.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "interfaces/kit.h"

class ClockLogCapture {
  public:
    ClockLogCapture() {
        previous_ = kit::SetLogSink([this](const std::string& line) {
            {
                std::scoped_lock lock(mutex_);
                lines_.push_back(line);
            }
            added_.notify_all();
        });
    }
    ~ClockLogCapture() { kit::SetLogSink(previous_); }
    ClockLogCapture(const ClockLogCapture&) = delete;
    ClockLogCapture& operator=(const ClockLogCapture&) = delete;

    std::vector<std::string> Lines() const {
        std::scoped_lock lock(mutex_);
        return lines_;
    }

    /// Waits (at most 10 s) until `count` lines have been written; returns whether they were.
    bool WaitForLines(std::size_t count) {
        std::unique_lock lock(mutex_);
        return added_.wait_for(lock, std::chrono::seconds(10),
                               [&] { return lines_.size() >= count; });
    }

  private:
    kit::LogSink previous_;
    mutable std::mutex mutex_;
    std::condition_variable added_;
    std::vector<std::string> lines_;
};
