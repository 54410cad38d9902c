// Test helper: captures the log lines written through kit while it lives.
#pragma once

#include <string>
#include <vector>

#include "interfaces/kit.h"

class CapturedLog {
  public:
    CapturedLog()
        : previous_(kit::SetLogSink([this](const std::string& line) { lines_.push_back(line); })) {}
    ~CapturedLog() { kit::SetLogSink(previous_); }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    // Sink calls are serialised by kit; read only after the writing threads have finished.
    const std::vector<std::string>& lines() const { return lines_; }

  private:
    std::vector<std::string> lines_;
    kit::LogSink previous_;
};
