#include "apps/task_thread.h"

#include <exception>

#include "interfaces/kit.h"
#include "interfaces/notify.h"

namespace velt_play {

TaskThread::TaskThread(std::string name) : name_(std::move(name)), thread_([this] { Run_(); }) {}

TaskThread::~TaskThread() {
    {
        std::scoped_lock lock(mutex_);
        ending_ = true;
        tasks_.clear();
    }
    posted_.notify_all();
    thread_.join();
}

void TaskThread::Post(std::function<void()> task) {
    {
        std::scoped_lock lock(mutex_);
        if (ending_) {
            return;
        }
        tasks_.push_back(std::move(task));
    }
    posted_.notify_all();
}

void TaskThread::Run_() {
    kit::threadNames.SetNameOfCurrentThread(name_);
    std::unique_lock lock(mutex_);
    while (true) {
        posted_.wait(lock, [this] { return ending_ || !tasks_.empty(); });
        if (ending_) {
            return;
        }
        std::function<void()> task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        try {
            task();
        } catch (const std::exception& error) {
            VeltLogException(error.what(), __FILE__, __LINE__);
        } catch (...) {
            VeltLogException("Unknown exception.", __FILE__, __LINE__);
        }
        lock.lock();
    }
}

}  // namespace velt_play
