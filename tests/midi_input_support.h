// Helpers for the MIDI input and command tests: waiting for named notifications posted on the
// input's delivery thread, and capturing the standard error stream.
#pragma once

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/notify.h"
#include "tests/support/recorded.h"

namespace midi_input_test {

// Generous limit for waits that only guard against a hung test; never a timing assertion.
inline constexpr std::chrono::seconds kHangLimit{10};

// Only the virtual devices a test creates are listed, whatever the machine has.
inline const bool kSystemPortsHidden = (setenv("VELT_MIDI_SYSTEM_PORTS", "0", 1), true);

// Records which thread posted each notification of the given names, and lets the test wait.
class NotificationLog {
  public:
    explicit NotificationLog(const std::vector<std::string>& names) {
        for (const std::string& name : names) {
            auto& threads = threads_[name];  // every name is in the map before any callback
            notify::callbackDispatcher.AddCallback(
                name, this, [&threads](void*) { threads.Add(std::this_thread::get_id()); });
        }
    }
    ~NotificationLog() { notify::callbackDispatcher.RemoveCallbacksForTarget(this); }
    NotificationLog(const NotificationLog&) = delete;
    NotificationLog& operator=(const NotificationLog&) = delete;

    bool WaitFor(const std::string& name, std::size_t count) {
        return threads_.at(name).WaitFor(count, kHangLimit);
    }
    std::size_t Count(const std::string& name) const { return threads_.at(name).Size(); }
    std::vector<std::thread::id> Threads(const std::string& name) const {
        return threads_.at(name).Values();
    }

  private:
    std::map<std::string, Recorded<std::thread::id>> threads_;
};

// Captures what is written to std::cerr while it lives.
class CapturedStderr {
  public:
    CapturedStderr() : previous_(std::cerr.rdbuf(text_.rdbuf())) {}
    ~CapturedStderr() { std::cerr.rdbuf(previous_); }
    CapturedStderr(const CapturedStderr&) = delete;
    CapturedStderr& operator=(const CapturedStderr&) = delete;
    std::string Text() const { return text_.str(); }

  private:
    std::ostringstream text_;
    std::streambuf* previous_;
};

}  // namespace midi_input_test
