#include "apps/device_return_watch.h"

#include <exception>

#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "midi/win32/midi_device_info.h"

namespace velt_play {

DeviceReturnWatch::DeviceReturnWatch(ReopenCallback reopen, std::chrono::milliseconds interval)
    : reopen_(std::move(reopen)), interval_(interval), thread_([this] {
          try {
              kit::threadNames.SetNameOfCurrentThread("device_return_watch");
              Run_();
          } catch (const std::exception& error) {
              VeltLogException(error.what(), __FILE__, __LINE__);
          } catch (...) {
              VeltLogException("Unknown exception.", __FILE__, __LINE__);
          }
      }) {}

DeviceReturnWatch::~DeviceReturnWatch() {
    {
        std::scoped_lock lock(mutex_);
        ending_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void DeviceReturnWatch::Watch(const std::string& deviceName) {
    {
        std::scoped_lock lock(mutex_);
        name_ = deviceName;
    }
    changed_.notify_all();
}

void DeviceReturnWatch::Cancel() {
    {
        std::scoped_lock lock(mutex_);
        name_.reset();
    }
    changed_.notify_all();
}

// A failed look or re-open is logged and tried again after the interval.
void DeviceReturnWatch::Run_() {
    std::unique_lock lock(mutex_);
    while (!ending_) {
        if (!name_) {
            changed_.wait(lock, [this] { return ending_ || name_.has_value(); });
            continue;
        }
        const std::string name = *name_;
        lock.unlock();
        bool over = false;
        try {
            over = FindMidiOutDevice(name).has_value() && reopen_(name);
        } catch (const std::exception& error) {
            VeltLogException(error.what(), __FILE__, __LINE__);
        } catch (...) {
            VeltLogException("Unknown exception.", __FILE__, __LINE__);
        }
        lock.lock();
        if (over && name_ == name) {
            name_.reset();  // unless the callback or another thread asked for a new watch meanwhile
        } else if (!over) {
            changed_.wait_for(lock, interval_, [&] { return ending_ || name_ != name; });
        }
    }
}

}  // namespace velt_play
