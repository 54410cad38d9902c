// The multimedia timer and the performance counter on POSIX (guarantees: mm_time.h).
//
// One process-wide timer service owns the timer thread and every live event. Threads: any thread
// adds and kills events; the timer thread runs callbacks. Locks: the service's mutex guards the
// events and is never held while a callback runs, so callbacks may add and kill events.
#include "platform/posix/mm_time.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <exception>
#include <map>
#include <mutex>
#include <thread>

#include "platform/posix/kernel.h"
#include "platform/precise_wait.h"

namespace {

// libstdc++'s steady_clock reads CLOCK_MONOTONIC, the clock of the performance counter, and its
// condition variables wait on it with absolute deadlines.
using Clock = std::chrono::steady_clock;

constexpr UINT kPeriodMin = 1;
constexpr UINT kPeriodMax = 1'000'000;

class TimerService {
  public:
    static TimerService& Instance() {
        static TimerService service;
        return service;
    }

    ~TimerService() {
        std::thread thread;
        {
            std::scoped_lock lock(mutex_);
            stopping_ = true;
            thread = std::move(thread_);
        }
        changed_.notify_all();
        if (thread.joinable()) {
            // The process may end from inside a callback; the timer thread cannot join itself.
            if (thread.get_id() == std::this_thread::get_id()) {
                thread.detach();
            } else {
                thread.join();
            }
        }
    }

    UINT Add(UINT delayMilliseconds, LPTIMECALLBACK callback, DWORD_PTR user, bool periodic) {
        std::scoped_lock lock(mutex_);
        if (stopping_) {
            return 0;
        }
        if (!thread_.joinable()) {
            thread_ = std::thread([this] {
                try {
                    Run_();
                } catch (const std::exception& e) {
                    std::fprintf(stderr, "timer thread ended: %s\n", e.what());
                } catch (...) {
                    std::fprintf(stderr, "timer thread ended: a non-standard exception\n");
                }
            });
        }
        UINT id = nextId_++;
        if (nextId_ == 0) {
            nextId_ = 1;
        }
        const auto period = std::chrono::milliseconds(delayMilliseconds);
        events_[id] = Event{callback, user, periodic, period, Clock::now() + period, false};
        changed_.notify_all();
        return id;
    }

    MMRESULT Kill(UINT id) {
        std::unique_lock lock(mutex_);
        const auto found = events_.find(id);
        if (found == events_.end() || found->second.killed) {
            return MMSYSERR_INVALPARAM;
        }
        if (inFlight_ != id) {
            events_.erase(found);
            changed_.notify_all();
            return TIMERR_NOERROR;
        }
        // Its callback is running: the timer thread removes it when the callback returns.
        found->second.killed = true;
        if (std::this_thread::get_id() != timerThreadId_) {
            callbackDone_.wait(lock, [&] { return inFlight_ != id; });
        }
        return TIMERR_NOERROR;
    }

  private:
    struct Event {
        LPTIMECALLBACK callback;
        DWORD_PTR user;
        bool periodic;
        Clock::duration period;
        Clock::time_point deadline;
        bool killed;
    };

    TimerService() = default;

    void Run_() {
        // Like the multimedia timer thread of Windows, run at the highest priority the system
        // grants; a refusal leaves the thread at normal priority.
        SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL);
        VeltPreciseWaitUntil(0, 0);  // tightens this thread's timer slack
        std::unique_lock lock(mutex_);
        timerThreadId_ = std::this_thread::get_id();
        while (!stopping_) {
            const auto next = std::min_element(
                events_.begin(), events_.end(),
                [](const auto& a, const auto& b) { return a.second.deadline < b.second.deadline; });
            if (next == events_.end()) {
                changed_.wait(lock);
                continue;
            }
            // A copy: the event may be killed while the lock is released by the wait.
            const Clock::time_point deadline = next->second.deadline;
            if (Clock::now() < deadline) {
                // Whether woken by the deadline, a change or spuriously, look again for the
                // earliest event.
                changed_.wait_until(lock, deadline);
                continue;
            }
            Fire_(next->first, lock);
        }
    }

    // Runs one due event's callback without the lock, then reschedules or removes the event.
    void Fire_(UINT id, std::unique_lock<std::mutex>& lock) {
        const Event event = events_.at(id);
        inFlight_ = id;
        lock.unlock();
        try {
            event.callback(id, 0, event.user, 0, 0);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "timer callback %u threw: %s\n", id, e.what());
        } catch (...) {
            std::fprintf(stderr, "timer callback %u threw a non-standard exception\n", id);
        }
        lock.lock();
        inFlight_ = 0;
        const auto found = events_.find(id);
        if (found != events_.end()) {
            Event& live = found->second;
            if (!live.periodic || live.killed) {
                events_.erase(found);
            } else {
                // The next expiry is one period after the previous deadline, not after now, so
                // that the event keeps its phase; whole periods already missed are skipped.
                live.deadline += live.period;
                const auto now = Clock::now();
                if (live.deadline < now) {
                    live.deadline += ((now - live.deadline) / live.period + 1) * live.period;
                }
            }
        }
        callbackDone_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;       // an event was added or removed, or stopping
    std::condition_variable callbackDone_;  // a callback returned
    std::map<UINT, Event> events_;
    UINT nextId_ = 1;
    UINT inFlight_ = 0;  // the event whose callback runs now, 0 for none
    bool stopping_ = false;
    std::thread thread_;
    std::thread::id timerThreadId_;
};

// Outstanding timeBeginPeriod requests, per period.
std::mutex periodMutex;
std::map<UINT, unsigned> periodRequests;

LONGLONG MonotonicNanoseconds() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<LONGLONG>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

}  // namespace

extern "C" {

MMRESULT WINAPI timeBeginPeriod(UINT uPeriod) {
    if (uPeriod < kPeriodMin || uPeriod > kPeriodMax) {
        return TIMERR_NOCANDO;
    }
    std::scoped_lock lock(periodMutex);
    ++periodRequests[uPeriod];
    return TIMERR_NOERROR;
}

MMRESULT WINAPI timeEndPeriod(UINT uPeriod) {
    std::scoped_lock lock(periodMutex);
    const auto found = periodRequests.find(uPeriod);
    if (found == periodRequests.end()) {
        return TIMERR_NOCANDO;
    }
    if (--found->second == 0) {
        periodRequests.erase(found);
    }
    return TIMERR_NOERROR;
}

MMRESULT WINAPI timeGetDevCaps(LPTIMECAPS ptc, UINT cbtc) {
    if (ptc == nullptr || cbtc != sizeof(TIMECAPS)) {
        return TIMERR_STRUCT;
    }
    ptc->wPeriodMin = kPeriodMin;
    ptc->wPeriodMax = kPeriodMax;
    return TIMERR_NOERROR;
}

MMRESULT WINAPI timeSetEvent(UINT uDelay, UINT /*uResolution*/, LPTIMECALLBACK fptc,
                             DWORD_PTR dwUser, UINT fuEvent) {
    if (uDelay < kPeriodMin || uDelay > kPeriodMax || fptc == nullptr ||
        (fuEvent & (TIME_CALLBACK_EVENT_SET | TIME_CALLBACK_EVENT_PULSE)) != 0) {
        return 0;
    }
    return TimerService::Instance().Add(uDelay, fptc, dwUser, (fuEvent & TIME_PERIODIC) != 0);
}

MMRESULT WINAPI timeKillEvent(UINT uTimerID) {
    return TimerService::Instance().Kill(uTimerID);
}

DWORD WINAPI timeGetTime(void) {
    return static_cast<DWORD>(MonotonicNanoseconds() / 1'000'000);
}

BOOL WINAPI QueryPerformanceCounter(LARGE_INTEGER* lpPerformanceCount) {
    if (lpPerformanceCount == nullptr) {
        return FALSE;
    }
    lpPerformanceCount->QuadPart = MonotonicNanoseconds() / 100;
    return TRUE;
}

BOOL WINAPI QueryPerformanceFrequency(LARGE_INTEGER* lpFrequency) {
    if (lpFrequency == nullptr) {
        return FALSE;
    }
    lpFrequency->QuadPart = 10'000'000;
    return TRUE;
}

}  // extern "C"
