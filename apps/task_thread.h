// A thread of the host's own that runs posted tasks one at a time, in the order posted. For work
// that an engine thread may not do itself because it needs a lock a host thread may hold while
// it waits for that engine thread (the session's transport mutex, for one).
//
// Threads: any thread posts; the task thread runs the tasks. Locks: its own mutex, around the
// queue only; a task runs with no lock of this class held. Tasks still queued when the object is
// destroyed are dropped; the one running is finished first. A task that throws is logged and
// the thread goes on.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace velt_play {

class TaskThread {
  public:
    explicit TaskThread(std::string name);
    ~TaskThread();
    TaskThread(const TaskThread&) = delete;
    TaskThread& operator=(const TaskThread&) = delete;

    void Post(std::function<void()> task);

  private:
    void Run_();

    std::string name_;
    std::mutex mutex_;
    std::condition_variable posted_;
    std::deque<std::function<void()>> tasks_;
    bool ending_ = false;
    std::thread thread_;  // last: started once the members above exist
};

}  // namespace velt_play
