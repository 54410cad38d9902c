// High-resolution absolute waits on POSIX: clock_nanosleep on CLOCK_MONOTONIC with TIMER_ABSTIME.
#include "platform/precise_wait.h"

#include <cerrno>
#include <ctime>

#include "platform/posix/kernel.h"

#ifdef __linux__
#include <sys/prctl.h>
#endif

namespace {

constexpr LONGLONG kNanosecondsPerSecond = 1'000'000'000;

timespec ToTimespec(LONGLONG nanoseconds) {
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(nanoseconds / kNanosecondsPerSecond);
    ts.tv_nsec = static_cast<long>(nanoseconds % kNanosecondsPerSecond);
    return ts;
}

// The kernel adds up to the thread's timer slack to every sleep of a thread at normal priority
// so that wake-ups can be batched; a clock needs its wake-ups where it asked for them.
void TightenTimerSlackOnce() {
#ifdef __linux__
    thread_local bool tightened = false;
    if (!tightened) {
        prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
        tightened = true;
    }
#endif
}

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

}  // namespace

extern "C" {

LONGLONG WINAPI VeltPreciseTimeNow(void) {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<LONGLONG>(ts.tv_sec) * kNanosecondsPerSecond + ts.tv_nsec;
}

BOOL WINAPI VeltPreciseWaitUntil(LONGLONG deadlineNanoseconds, LONGLONG spinNanoseconds) {
    TightenTimerSlackOnce();
    const LONGLONG sleepUntil = deadlineNanoseconds - (spinNanoseconds > 0 ? spinNanoseconds : 0);
    if (sleepUntil > VeltPreciseTimeNow()) {
        const timespec ts = ToTimespec(sleepUntil);
        int result = 0;
        // clock_nanosleep returns the error number itself; EINTR (a signal) resumes the same
        // absolute wait, which is why an absolute time is used.
        while ((result = clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr)) == EINTR) {
        }
        if (result != 0) {
            SetLastError(result == EINVAL ? ERROR_INVALID_PARAMETER : ERROR_NOT_SUPPORTED);
            return FALSE;
        }
    }
    while (VeltPreciseTimeNow() < deadlineNanoseconds) {
        CpuRelax();
    }
    return TRUE;
}

}  // extern "C"
