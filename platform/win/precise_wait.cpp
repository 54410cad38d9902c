// High-resolution absolute waits on Windows: a high-resolution waitable timer per thread, set to
// the time remaining until the deadline (absolute due times of waitable timers follow the wall
// clock, so the deadline on the performance counter is turned into a relative one).
#include "platform/precise_wait.h"

#include <memory>
#include <type_traits>

#ifndef CREATE_WAITABLE_TIMER_HIGH_RESOLUTION
#define CREATE_WAITABLE_TIMER_HIGH_RESOLUTION 0x00000002
#endif

namespace {

constexpr LONGLONG kNanosecondsPerSecond = 1'000'000'000;

struct HandleCloser {
    void operator()(HANDLE handle) const {
        if (handle != nullptr) {
            CloseHandle(handle);
        }
    }
};
using UniqueHandle = std::unique_ptr<std::remove_pointer_t<HANDLE>, HandleCloser>;

// One timer per thread, kept for the thread's life: creating a timer per wait costs more than
// the precision it buys.
HANDLE ThreadTimer() {
    thread_local UniqueHandle timer = [] {
        HANDLE handle = CreateWaitableTimerExW(
            nullptr, nullptr, CREATE_WAITABLE_TIMER_HIGH_RESOLUTION, TIMER_ALL_ACCESS);
        if (handle == nullptr) {
            // Systems before the high-resolution timers: an ordinary timer, as coarse as the
            // system's timer interrupt.
            handle = CreateWaitableTimerExW(nullptr, nullptr, 0, TIMER_ALL_ACCESS);
        }
        return UniqueHandle(handle);
    }();
    return timer.get();
}

LONGLONG Frequency() {
    static const LONGLONG frequency = [] {
        LARGE_INTEGER f{};
        QueryPerformanceFrequency(&f);
        return f.QuadPart;
    }();
    return frequency;
}

}  // namespace

extern "C" {

LONGLONG WINAPI VeltPreciseTimeNow(void) {
    LARGE_INTEGER count{};
    QueryPerformanceCounter(&count);
    const LONGLONG frequency = Frequency();
    if (frequency == 10'000'000) {
        return count.QuadPart * 100;
    }
    return (count.QuadPart / frequency) * kNanosecondsPerSecond +
           ((count.QuadPart % frequency) * kNanosecondsPerSecond) / frequency;
}

BOOL WINAPI VeltPreciseWaitUntil(LONGLONG deadlineNanoseconds, LONGLONG spinNanoseconds) {
    const LONGLONG sleepUntil = deadlineNanoseconds - (spinNanoseconds > 0 ? spinNanoseconds : 0);
    const LONGLONG remaining = sleepUntil - VeltPreciseTimeNow();
    if (remaining > 0) {
        HANDLE timer = ThreadTimer();
        if (timer == nullptr) {
            return FALSE;  // CreateWaitableTimerExW has set the last error
        }
        LARGE_INTEGER dueTime{};
        dueTime.QuadPart = -(remaining / 100);  // relative, in 100 ns units
        if (dueTime.QuadPart == 0) {
            dueTime.QuadPart = -1;
        }
        if (!SetWaitableTimer(timer, &dueTime, 0, nullptr, nullptr, FALSE)) {
            return FALSE;
        }
        if (WaitForSingleObject(timer, INFINITE) != WAIT_OBJECT_0) {
            return FALSE;
        }
    }
    while (VeltPreciseTimeNow() < deadlineNanoseconds) {
        YieldProcessor();
    }
    return TRUE;
}

}  // extern "C"
