// Kernel services on POSIX: waitable timers behind process-local handles, thread priority and
// the per-thread last error (guarantees: kernel.h).
#include "platform/posix/kernel.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC

thread_local DWORD lastError = ERROR_SUCCESS;
thread_local int threadPriority = THREAD_PRIORITY_NORMAL;

// A waitable timer. Its signalled state is brought up to date lazily, by whoever looks at it,
// which needs no thread of its own. Threads: any. Locks: its own mutex.
class WaitableTimer {
  public:
    explicit WaitableTimer(bool manualReset) : manualReset_(manualReset) {}

    void Set(Clock::time_point due, Clock::duration period) {
        {
            std::scoped_lock lock(mutex_);
            signalled_ = false;
            deadline_ = due;
            period_ = period;
        }
        changed_.notify_all();
    }

    void Cancel() {
        std::scoped_lock lock(mutex_);
        deadline_.reset();
    }

    /// Waits until signalled or until `limit` (none: no limit). Consumes the signal of an
    /// auto-reset timer.
    DWORD Wait(std::optional<Clock::time_point> limit) {
        std::unique_lock lock(mutex_);
        for (;;) {
            const auto now = Clock::now();
            Update_(now);
            if (signalled_) {
                if (!manualReset_) {
                    signalled_ = false;
                }
                return WAIT_OBJECT_0;
            }
            if (limit && now >= *limit) {
                return WAIT_TIMEOUT;
            }
            std::optional<Clock::time_point> wake = limit;
            if (deadline_ && (!wake || *deadline_ < *wake)) {
                wake = deadline_;
            }
            if (wake) {
                changed_.wait_until(lock, *wake);
            } else {
                changed_.wait(lock);
            }
        }
    }

  private:
    // Signals the timer when its deadline has passed. A periodic timer's next deadline stays on
    // its phase grid; expiries nobody waited for collapse into the one signal, as on Windows.
    void Update_(Clock::time_point now) {
        if (!deadline_ || now < *deadline_) {
            return;
        }
        signalled_ = true;
        if (period_ > Clock::duration::zero()) {
            *deadline_ += ((now - *deadline_) / period_ + 1) * period_;
        } else {
            deadline_.reset();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    const bool manualReset_;
    bool signalled_ = false;
    std::optional<Clock::time_point> deadline_;
    Clock::duration period_{};
};

// Process-local handles. A handle is a number, never the object's address, so that a stale
// handle is refused instead of reaching freed memory. Locks: its own mutex, never held while
// waiting on a timer.
class HandleTable {
  public:
    static HandleTable& Instance() {
        static HandleTable table;
        return table;
    }

    HANDLE Open(const std::u16string* name, bool manualReset, bool* existed) {
        std::scoped_lock lock(mutex_);
        std::shared_ptr<WaitableTimer> timer;
        *existed = false;
        if (name != nullptr) {
            std::erase_if(names_, [](const auto& entry) { return entry.second.expired(); });
            const auto found = names_.find(*name);
            if (found != names_.end()) {
                timer = found->second.lock();
                *existed = true;
            }
        }
        if (!timer) {
            timer = std::make_shared<WaitableTimer>(manualReset);
            if (name != nullptr) {
                names_[*name] = timer;
            }
        }
        const std::uintptr_t value = next_;
        next_ += 4;  // handle values are multiples of four, as on Windows
        handles_[value] = std::move(timer);
        return reinterpret_cast<HANDLE>(value);
    }

    std::shared_ptr<WaitableTimer> Find(HANDLE handle) {
        std::scoped_lock lock(mutex_);
        const auto found = handles_.find(reinterpret_cast<std::uintptr_t>(handle));
        return found == handles_.end() ? nullptr : found->second;
    }

    bool Close(HANDLE handle) {
        std::scoped_lock lock(mutex_);
        return handles_.erase(reinterpret_cast<std::uintptr_t>(handle)) != 0;
    }

  private:
    HandleTable() = default;

    std::mutex mutex_;
    std::map<std::uintptr_t, std::shared_ptr<WaitableTimer>> handles_;
    std::map<std::u16string, std::weak_ptr<WaitableTimer>> names_;
    std::uintptr_t next_ = 0x1000;
};

std::shared_ptr<WaitableTimer> FindTimer(HANDLE handle) {
    auto timer = HandleTable::Instance().Find(handle);
    if (!timer) {
        SetLastError(ERROR_INVALID_HANDLE);
    }
    return timer;
}

// FILETIME counts 100 ns units from 1601-01-01 UTC; the Unix epoch is this many units later.
constexpr LONGLONG kFileTimeOfUnixEpoch = 116'444'736'000'000'000LL;

// Due times further ahead than this are treated as this far ahead (and keep the arithmetic
// below far from overflow); no timer in this process waits a century.
constexpr LONGLONG kLongestDueTime = 100LL * 365 * 24 * 3600 * 10'000'000;  // 100 ns units

// Turns a due time of SetWaitableTimer into a deadline on the monotonic clock.
Clock::time_point DueTimeToDeadline(LONGLONG dueTime) {
    const auto now = Clock::now();
    LONGLONG ahead = 0;  // 100 ns units
    if (dueTime < 0) {
        ahead = dueTime < -kLongestDueTime ? kLongestDueTime : -dueTime;
    } else {
        timespec wall{};
        clock_gettime(CLOCK_REALTIME, &wall);
        const LONGLONG wallNow = kFileTimeOfUnixEpoch +
                                 static_cast<LONGLONG>(wall.tv_sec) * 10'000'000 +
                                 wall.tv_nsec / 100;
        ahead = std::clamp(dueTime - wallNow, LONGLONG{0}, kLongestDueTime);
    }
    return now + std::chrono::nanoseconds(ahead * 100);
}

struct PriorityMapping {
    int realTimePolicy;  // SCHED_FIFO / SCHED_RR, or SCHED_OTHER for none
    int realTimePriority;
    int nice;
};

std::optional<PriorityMapping> MapPriority(int level) {
    switch (level) {
        case THREAD_PRIORITY_TIME_CRITICAL:
            return PriorityMapping{SCHED_FIFO, 60, -15};
        case THREAD_PRIORITY_HIGHEST:
            return PriorityMapping{SCHED_RR, 50, -10};
        case THREAD_PRIORITY_ABOVE_NORMAL:
            return PriorityMapping{SCHED_OTHER, 0, -5};
        case THREAD_PRIORITY_NORMAL:
            return PriorityMapping{SCHED_OTHER, 0, 0};
        case THREAD_PRIORITY_BELOW_NORMAL:
            return PriorityMapping{SCHED_OTHER, 0, 5};
        case THREAD_PRIORITY_LOWEST:
            return PriorityMapping{SCHED_OTHER, 0, 10};
        case THREAD_PRIORITY_IDLE:
            return PriorityMapping{SCHED_OTHER, 0, 19};
        default:
            return std::nullopt;
    }
}

// Sets the calling thread's nice value. Only Linux gives each thread its own nice value.
bool SetThreadNice(int nice) {
#ifdef __linux__
    const auto tid = static_cast<id_t>(syscall(SYS_gettid));
    return setpriority(PRIO_PROCESS, tid, nice) == 0;
#else
    return nice >= 0;
#endif
}

HANDLE const kCurrentThreadPseudoHandle = reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-2));

}  // namespace

extern "C" {

HANDLE WINAPI CreateWaitableTimerW(LPSECURITY_ATTRIBUTES /*lpTimerAttributes*/, BOOL bManualReset,
                                   LPCWSTR lpTimerName) {
    std::optional<std::u16string> name;
    if (lpTimerName != nullptr) {
        name.emplace(lpTimerName);
    }
    bool existed = false;
    HANDLE handle =
        HandleTable::Instance().Open(name ? &*name : nullptr, bManualReset != FALSE, &existed);
    SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
}

BOOL WINAPI SetWaitableTimer(HANDLE hTimer, const LARGE_INTEGER* lpDueTime, LONG lPeriod,
                             PTIMERAPCROUTINE pfnCompletionRoutine,
                             LPVOID /*lpArgToCompletionRoutine*/, BOOL /*fResume*/) {
    const auto timer = FindTimer(hTimer);
    if (!timer) {
        return FALSE;
    }
    if (lpDueTime == nullptr || lPeriod < 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (pfnCompletionRoutine != nullptr) {
        SetLastError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    timer->Set(DueTimeToDeadline(lpDueTime->QuadPart), std::chrono::milliseconds(lPeriod));
    return TRUE;
}

BOOL WINAPI CancelWaitableTimer(HANDLE hTimer) {
    const auto timer = FindTimer(hTimer);
    if (!timer) {
        return FALSE;
    }
    timer->Cancel();
    return TRUE;
}

DWORD WINAPI WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds) {
    // Computed before the look-up so that the time-out counts from the call.
    std::optional<Clock::time_point> limit;
    if (dwMilliseconds != INFINITE) {
        limit = Clock::now() + std::chrono::milliseconds(dwMilliseconds);
    }
    const auto timer = FindTimer(hHandle);
    if (!timer) {
        return WAIT_FAILED;
    }
    return timer->Wait(limit);
}

BOOL WINAPI CloseHandle(HANDLE hObject) {
    if (!HandleTable::Instance().Close(hObject)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return TRUE;
}

HANDLE WINAPI GetCurrentThread(void) {
    return kCurrentThreadPseudoHandle;
}

BOOL WINAPI SetThreadPriority(HANDLE hThread, int nPriority) {
    if (hThread != kCurrentThreadPseudoHandle) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    const auto mapping = MapPriority(nPriority);
    if (!mapping) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    bool granted = false;
    if (mapping->realTimePolicy != SCHED_OTHER) {
        sched_param param{};
        param.sched_priority = mapping->realTimePriority;
        granted = pthread_setschedparam(pthread_self(), mapping->realTimePolicy, &param) == 0;
    } else {
        // Leaving real time is always allowed; the nice value then sets the level.
        sched_param param{};
        pthread_setschedparam(pthread_self(), SCHED_OTHER, &param);
    }
    if (!granted) {
        granted = SetThreadNice(mapping->nice);
    }
    if (!granted) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    threadPriority = nPriority;
    return TRUE;
}

int WINAPI GetThreadPriority(HANDLE hThread) {
    if (hThread != kCurrentThreadPseudoHandle) {
        SetLastError(ERROR_INVALID_HANDLE);
        return THREAD_PRIORITY_ERROR_RETURN;
    }
    return threadPriority;
}

DWORD WINAPI GetLastError(void) {
    return lastError;
}

void WINAPI SetLastError(DWORD dwErrCode) {
    lastError = dwErrCode;
}

}  // extern "C"
