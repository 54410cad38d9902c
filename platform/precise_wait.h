// High-resolution absolute waits, for clocks that keep their own deadlines.
//
// Declared for both systems. Times are nanoseconds of the monotonic clock that
// QueryPerformanceCounter reads (from an arbitrary origin); std::chrono::steady_clock reads the
// same clock on both systems, so its time points may be compared with these after conversion.
//
// POSIX: the wait is clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME), restarted after signals.
// On Linux the first wait of a thread also sets that thread's timer slack to 1 ns (the default,
// 50 us, would otherwise be added to every wake-up of a thread at normal priority).
// Windows: a high-resolution waitable timer (one per thread, created on first use and kept for
// the thread's life) set to the remaining relative time, because absolute due times of waitable
// timers follow the wall clock. Where the system offers no high-resolution timer an ordinary
// waitable timer serves, which wakes on the system's timer interrupt (1 to 15.6 ms).
#pragma once

#ifdef _WIN32
#include <windows.h>
#else
#include "posix/win_types.h"
#endif

extern "C" {

/// The monotonic clock now, in nanoseconds.
LONGLONG WINAPI VeltPreciseTimeNow(void);

/// Blocks the calling thread until VeltPreciseTimeNow() reaches `deadlineNanoseconds`. The last
/// `spinNanoseconds` before the deadline (0 for none) are spent polling the clock instead of
/// sleeping, which removes the wake-up latency of the sleep at the cost of that much processor
/// time. Returns TRUE once the deadline has passed (at once for a deadline in the past), or FALSE
/// with GetLastError set when the system refuses the wait. Not interruptible: callers that must
/// react to other events wait in shorter pieces.
BOOL WINAPI VeltPreciseWaitUntil(LONGLONG deadlineNanoseconds, LONGLONG spinNanoseconds);

}  // extern "C"
