// Captures the log lines written through kit while it lives. Lines may be written from any
// thread; reading them takes a copy.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "interfaces/kit.h"

class CapturedLog {
  public:
    CapturedLog() {
        previous_ = kit::SetLogSink([this](const std::string& line) {
            {
                std::scoped_lock lock(mutex_);
                lines_.push_back(line);
            }
            added_.notify_all();
        });
    }
    ~CapturedLog() { kit::SetLogSink(previous_); }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

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

    /// How many lines start with `prefix` and end with `suffix`.
    std::size_t CountStartingWith(const std::string& prefix, const std::string& suffix = "") const {
        const auto lines = Lines();
        return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](auto& line) {
            return line.starts_with(prefix) && line.ends_with(suffix);
        }));
    }

  private:
    kit::LogSink previous_;
    mutable std::mutex mutex_;
    std::condition_variable added_;
    std::vector<std::string> lines_;
};
