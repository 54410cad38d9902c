// Time limits for tests whose fault would be a hang: a watchdog for deadlocks, and a wait for
// what another thread or process makes true some time later.
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

// Asks `attempt` until its answer tests true, for at most `limit`, and returns its last answer.
// The limit only guards against a hang; it is never a timing assertion.
template <typename Attempt>
auto Eventually(Attempt attempt, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    auto answer = attempt();
    while (!answer && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        answer = attempt();
    }
    return answer;
}
