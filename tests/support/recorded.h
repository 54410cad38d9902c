// A list that any thread adds to and a test reads or waits on.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

template <typename T>
class Recorded {
  public:
    void Add(T value) {
        {
            std::scoped_lock lock(mutex_);
            values_.push_back(std::move(value));
        }
        added_.notify_all();
    }

    /// Waits (at most `limit`) until `count` values have been added; returns whether they were.
    bool WaitFor(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        return WaitUntil([count](const std::vector<T>& values) { return values.size() >= count; },
                         limit);
    }
    /// Waits (at most `limit`) until the values satisfy `done`; returns whether they did.
    template <typename Done>
    bool WaitUntil(Done done, std::chrono::milliseconds limit) const {
        std::unique_lock lock(mutex_);
        return added_.wait_for(lock, limit, [&] { return done(values_); });
    }

    std::vector<T> Values() const {
        std::scoped_lock lock(mutex_);
        return values_;
    }
    std::size_t Size() const {
        std::scoped_lock lock(mutex_);
        return values_.size();
    }

  private:
    mutable std::mutex mutex_;
    mutable std::condition_variable added_;
    std::vector<T> values_;
};
