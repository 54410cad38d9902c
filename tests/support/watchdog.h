// A time limit for tests whose fault would be a deadlock.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

// Ends the test program when the scope it guards has not been left within the limit: a
// deadlocked thread cannot be joined, so failing the one test is not possible.
class Watchdog {
  public:
    Watchdog(std::string what, std::chrono::seconds limit)
        : thread_([this, what = std::move(what), limit] {
              std::unique_lock lock(mutex_);
              if (!done_condition_.wait_for(lock, limit, [this] { return done_; })) {
                  std::fprintf(stderr, "DEADLOCK: %s did not finish within %lld s\n", what.c_str(),
                               static_cast<long long>(limit.count()));
                  std::fflush(stderr);
                  std::_Exit(3);
              }
          }) {}
    ~Watchdog() {
        {
            std::scoped_lock lock(mutex_);
            done_ = true;
        }
        done_condition_.notify_all();
        thread_.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

  private:
    std::mutex mutex_;
    std::condition_variable done_condition_;
    bool done_ = false;
    std::thread thread_;
};
