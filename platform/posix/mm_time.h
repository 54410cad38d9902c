// The multimedia timer and the performance counter, with the Windows names, types and values,
// implemented in libvelt_platform for POSIX systems.
//
// What these calls guarantee here, and where they differ from Windows:
//
// - The performance counter is CLOCK_MONOTONIC counted in 100-nanosecond units:
//   QueryPerformanceFrequency always reports 10,000,000, the value current Windows systems report
//   too, so code that converts counts to time takes the same path on both systems. The counter
//   never goes backwards and does not jump with changes of the wall clock. It is the same clock
//   that std::chrono::steady_clock and the precise waits of precise_wait.h read.
//
// - timeSetEvent runs callbacks on one timer thread per process (as Windows does), started on
//   first use and ended when the library is unloaded. Deadlines are kept on the monotonic clock
//   as absolute times with nanosecond resolution; the delay is counted from the moment of the
//   call. A periodic event's next deadline is its previous deadline plus the period, never "now
//   plus the period", so a periodic event does not accumulate error: it keeps its phase however
//   late single callbacks run. When a callback overruns by whole periods the missed expiries are
//   skipped (the next one falls on the original phase grid) rather than delivered in a burst.
//   The timer thread asks for real-time scheduling and, on Linux, a timer slack of 1 ns; when the
//   system refuses real-time scheduling it runs at normal priority, so its wake-ups are then only
//   as punctual as the scheduler allows under load.
//
// - Callbacks never overlap, neither for one event nor across events: they run one after the
//   other on the timer thread, so a callback that blocks delays every other event (as on
//   Windows). A callback may call timeSetEvent and timeKillEvent, including timeKillEvent on its
//   own event. An exception escaping a callback is caught, written to the standard error stream,
//   and the timer thread goes on.
//
// - timeKillEvent is always synchronous: when it returns, the event's callback is not running on
//   another thread and will not be called again, whether or not TIME_KILL_SYNCHRONOUS was given.
//   Called from inside a callback it cannot wait for that callback (its own thread); it then only
//   guarantees that the event does not fire again.
//
// - A one-shot event ceases to exist once its callback has returned; killing it afterwards
//   returns MMSYSERR_INVALPARAM (as on Windows). Killing it while its callback runs succeeds.
//
// - timeBeginPeriod/timeEndPeriod keep a per-period count of requests and check that they pair
//   up (an unpaired timeEndPeriod returns TIMERR_NOCANDO) but change nothing: the monotonic
//   clock's timers already have the system's finest resolution. On Windows they raise the
//   resolution of the whole system's timer interrupt.
//
// - The resolution argument of timeSetEvent is accepted and ignored. The event kinds that signal
//   an event object (TIME_CALLBACK_EVENT_SET, TIME_CALLBACK_EVENT_PULSE) are not offered;
//   timeSetEvent returns 0 for them.
#pragma once

#include "win_types.h"

#define TIMERR_BASE 96
#define TIMERR_NOERROR 0
#define TIMERR_NOCANDO (TIMERR_BASE + 1)
#define TIMERR_STRUCT (TIMERR_BASE + 33)

// timeSetEvent flags: the kind of event (low bit) ...
#define TIME_ONESHOT 0x0000
#define TIME_PERIODIC 0x0001
// ... how it is delivered ...
#define TIME_CALLBACK_FUNCTION 0x0000
#define TIME_CALLBACK_EVENT_SET 0x0010
#define TIME_CALLBACK_EVENT_PULSE 0x0020
// ... and whether killing it waits for a callback in flight (always so here).
#define TIME_KILL_SYNCHRONOUS 0x0100

/// A timer callback: the event's id, a reserved message (0), the user data given to
/// timeSetEvent, and two reserved values (0).
typedef void(CALLBACK* LPTIMECALLBACK)(UINT uTimerID, UINT uMsg, DWORD_PTR dwUser, DWORD_PTR dw1,
                                       DWORD_PTR dw2);

/// The range of delays and periods timeSetEvent accepts, in milliseconds.
typedef struct timecaps_tag {
    UINT wPeriodMin;
    UINT wPeriodMax;
} TIMECAPS, *PTIMECAPS, *LPTIMECAPS;

extern "C" {

/// Requests a minimum timer resolution in milliseconds. Returns TIMERR_NOCANDO for a period
/// outside TIMECAPS' range, else TIMERR_NOERROR. Counted, without further effect (see above).
MMRESULT WINAPI timeBeginPeriod(UINT uPeriod);
/// Ends a request made by timeBeginPeriod with the same period; TIMERR_NOCANDO when there is
/// none outstanding.
MMRESULT WINAPI timeEndPeriod(UINT uPeriod);
/// Fills in the accepted range of delays: 1 to 1,000,000 ms. TIMERR_STRUCT for a null pointer or
/// a size other than sizeof(TIMECAPS).
MMRESULT WINAPI timeGetDevCaps(LPTIMECAPS ptc, UINT cbtc);

/// Starts a timer event that calls `fptc` on the timer thread after `uDelay` milliseconds, once
/// (TIME_ONESHOT) or every `uDelay` milliseconds (TIME_PERIODIC). Returns the event's id, never
/// 0, or 0 when the delay is outside 1 … 1,000,000 ms, the callback is null or the flags ask for
/// an event object. Thread-safe; may be called from inside a callback. Never blocks on a
/// callback.
MMRESULT WINAPI timeSetEvent(UINT uDelay, UINT uResolution, LPTIMECALLBACK fptc, DWORD_PTR dwUser,
                             UINT fuEvent);
/// Cancels a timer event. Returns TIMERR_NOERROR, or MMSYSERR_INVALPARAM for an id that is not
/// (or no longer) live. Blocks while the event's callback runs on the timer thread, unless
/// called from that thread.
MMRESULT WINAPI timeKillEvent(UINT uTimerID);

/// Milliseconds of the monotonic clock, wrapping at 2^32 (about 49.7 days).
DWORD WINAPI timeGetTime(void);

/// The performance counter: the monotonic clock in units of 1 / QueryPerformanceFrequency
/// seconds. Returns FALSE only for a null pointer.
BOOL WINAPI QueryPerformanceCounter(LARGE_INTEGER* lpPerformanceCount);
/// Counts per second of the performance counter: always 10,000,000 here. Returns FALSE only for
/// a null pointer.
BOOL WINAPI QueryPerformanceFrequency(LARGE_INTEGER* lpFrequency);

}  // extern "C"
