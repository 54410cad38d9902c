// Waits for an output device that went away to be listed again, so that the show can go on on it
// without the performer doing anything.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace velt_play {

/// A thread ("device_return_watch") that, while it is told to watch for a device name, looks at
/// the output devices every `interval` and, when one of that product name is listed, calls the
/// reopen callback with the name. The callback answers whether the watch is over (the device is
/// open again, or there is no longer any reason to wait for it); on false the watch looks again
/// after the interval. Device ids move as devices come and go, so only the name is kept.
///
/// Threads: any thread calls Watch and Cancel (the output's clock thread, from the device-lost
/// notification, among them); the watch's own thread runs the callback. Locks: its own mutex,
/// around the name only; the callback runs without it, so it may take the host's locks and call
/// Watch or Cancel. Destroy the watch before anything the callback touches.
class DeviceReturnWatch {
  public:
    using ReopenCallback = std::function<bool(const std::string& deviceName)>;

    DeviceReturnWatch(ReopenCallback reopen, std::chrono::milliseconds interval);
    DeviceReturnWatch(const DeviceReturnWatch&) = delete;
    DeviceReturnWatch& operator=(const DeviceReturnWatch&) = delete;
    /// Ends the thread, waiting for a callback under way.
    ~DeviceReturnWatch();

    /// Watches for `deviceName` (replacing any name watched for before).
    void Watch(const std::string& deviceName);
    /// Watches for nothing.
    void Cancel();

  private:
    void Run_();

    ReopenCallback reopen_;
    std::chrono::milliseconds interval_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<std::string> name_;  // guarded by mutex_
    bool ending_ = false;              // guarded by mutex_
    std::thread thread_;               // last: started once the rest is built
};

}  // namespace velt_play
