// Captures the log lines written through kit while it lives. Lines may be written from any
// thread; reading them takes a copy.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "interfaces/kit.h"
#include "tests/support/recorded.h"

class CapturedLog {
  public:
    CapturedLog() : previous_(kit::SetLogSink([this](const std::string& l) { lines_.Add(l); })) {}
    ~CapturedLog() { kit::SetLogSink(previous_); }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    std::vector<std::string> Lines() const { return lines_.Values(); }

    /// Waits (at most 10 s) until `count` lines have been written; returns whether they were.
    bool WaitForLines(std::size_t count) { return lines_.WaitFor(count); }

    /// How many lines start with `prefix` and end with `suffix`.
    std::size_t CountStartingWith(const std::string& prefix, const std::string& suffix = "") const {
        const auto lines = Lines();
        return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](auto& line) {
            return line.starts_with(prefix) && line.ends_with(suffix);
        }));
    }

  private:
    Recorded<std::string> lines_;  // before the sink that adds to it
    kit::LogSink previous_;
};
