// Kernel services with the Windows names, types and values, implemented in libvelt_platform for
// POSIX systems: waitable timers, waiting on them, closing handles, thread priority and the
// per-thread last error.
//
// What these calls guarantee here, and where they differ from Windows:
//
// - Handles are process-local numbers, never pointers; a stale or foreign handle is detected and
//   refused with ERROR_INVALID_HANDLE rather than touching freed memory. The only kernel objects
//   are waitable timers; GetCurrentThread's pseudo-handle is understood by SetThreadPriority and
//   GetThreadPriority only.
//
// - A waitable timer is an object with a signalled state. SetWaitableTimer resets it to not
//   signalled and sets its due time: a negative value is relative, in 100-nanosecond units, and
//   is kept on the monotonic clock; a positive value is an absolute wall-clock time (100 ns units
//   since 1601-01-01 UTC, as FILETIME) that is converted to a monotonic deadline when the call is
//   made, so a later change of the system's clock does not move it (on Windows it does). A due
//   time in the past, or a relative 0, signals at once. A period (milliseconds) re-signals the
//   timer every period after the first expiry, on the original phase grid.
//   A manual-reset timer stays signalled until it is set again; a synchronisation (auto-reset)
//   timer is reset by the wait that it satisfies, so one waiter is released per expiry.
//
// - Timers may be named; a name is known within this process only. Creating a timer with the
//   name of a live one opens that timer, returns a new handle to it and sets ERROR_ALREADY_EXISTS
//   (the manual-reset argument is then ignored), as Windows does within one session. The name
//   dies with its last handle.
//
// - Completion routines (asynchronous procedure calls) do not exist here: SetWaitableTimer with
//   a completion routine fails with ERROR_NOT_SUPPORTED. fResume is ignored (there is no system
//   suspend to wake from).
//
// - WaitForSingleObject waits on a waitable timer with a time-out in milliseconds (INFINITE for
//   none). It returns WAIT_OBJECT_0 when the timer is or becomes signalled, WAIT_TIMEOUT when the
//   time-out passes first, WAIT_FAILED (with the last error set) for a handle that is not a
//   timer. Closing a handle while another thread waits on it leaves that wait to finish normally.
//
// - SetThreadPriority maps THREAD_PRIORITY_TIME_CRITICAL to real-time first-in-first-out
//   scheduling at priority 60 and THREAD_PRIORITY_HIGHEST to real-time round-robin at priority 50
//   (above every normal thread; Linux runs threaded interrupt handlers at 50); where the system
//   refuses real time it falls back to a raised nice value of the thread (-15 and -10; Linux only,
//   where nice is per thread). When both are refused it returns FALSE with ERROR_ACCESS_DENIED. The
//   other levels select normal scheduling with nice values -5 (ABOVE_NORMAL), 0, 5, 10 and 19
//   (IDLE); lowering a thread's priority is never refused on Linux. On Windows the levels are
//   relative to the process's priority class and HIGHEST is never refused. Only the pseudo-handle
//   of GetCurrentThread is accepted: any other handle gives ERROR_INVALID_HANDLE. A value that is
//   not one of the levels gives ERROR_INVALID_PARAMETER.
//
// - GetLastError/SetLastError keep one value per thread. Only the calls of this header and
//   precise_wait.h set it; the C library's errno is separate.
#pragma once

#include "win_types.h"

// Wait results.
#define WAIT_OBJECT_0 ((DWORD)0x00000000)
#define WAIT_ABANDONED ((DWORD)0x00000080)
#define WAIT_TIMEOUT ((DWORD)0x00000102)
#define WAIT_FAILED ((DWORD)0xFFFFFFFF)
#define INFINITE 0xFFFFFFFF

// Thread priority levels.
#define THREAD_PRIORITY_IDLE (-15)
#define THREAD_PRIORITY_LOWEST (-2)
#define THREAD_PRIORITY_BELOW_NORMAL (-1)
#define THREAD_PRIORITY_NORMAL 0
#define THREAD_PRIORITY_ABOVE_NORMAL 1
#define THREAD_PRIORITY_HIGHEST 2
#define THREAD_PRIORITY_TIME_CRITICAL 15
#define THREAD_PRIORITY_ERROR_RETURN 0x7FFFFFFF

// System error codes set by these calls.
#define ERROR_SUCCESS 0L
#define NO_ERROR 0L
#define ERROR_ACCESS_DENIED 5L
#define ERROR_INVALID_HANDLE 6L
#define ERROR_NOT_ENOUGH_MEMORY 8L
#define ERROR_NOT_SUPPORTED 50L
#define ERROR_INVALID_PARAMETER 87L
#define ERROR_ALREADY_EXISTS 183L

/// A completion routine for SetWaitableTimer (not supported here; see above).
typedef void(CALLBACK* PTIMERAPCROUTINE)(LPVOID lpArgToCompletionRoutine, DWORD dwTimerLowValue,
                                         DWORD dwTimerHighValue);

extern "C" {

/// Creates (or, by name, opens) a waitable timer, not signalled and not set. Security
/// attributes are ignored. Returns null with the last error set on failure.
HANDLE WINAPI CreateWaitableTimerW(LPSECURITY_ATTRIBUTES lpTimerAttributes, BOOL bManualReset,
                                   LPCWSTR lpTimerName);
/// Sets a timer's due time (negative: relative 100 ns units; positive: absolute FILETIME) and
/// period in milliseconds (0 for a single expiry). Returns FALSE with the last error set for a
/// bad handle, a negative period or a completion routine.
BOOL WINAPI SetWaitableTimer(HANDLE hTimer, const LARGE_INTEGER* lpDueTime, LONG lPeriod,
                             PTIMERAPCROUTINE pfnCompletionRoutine, LPVOID lpArgToCompletionRoutine,
                             BOOL fResume);
/// Stops a timer without changing its signalled state.
BOOL WINAPI CancelWaitableTimer(HANDLE hTimer);
/// Waits until the object is signalled or `dwMilliseconds` pass (INFINITE: no limit; 0: test
/// only). Blocks the calling thread; safe from any thread.
DWORD WINAPI WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);
/// Closes a handle; the object dies with its last handle. FALSE with ERROR_INVALID_HANDLE for a
/// handle that is not open.
BOOL WINAPI CloseHandle(HANDLE hObject);

/// The pseudo-handle that means "the calling thread" (not a real handle; need not be closed).
HANDLE WINAPI GetCurrentThread(void);
/// Sets the scheduling priority of the calling thread (see above for the mapping and refusals).
BOOL WINAPI SetThreadPriority(HANDLE hThread, int nPriority);
/// The level last set successfully on the calling thread through SetThreadPriority
/// (THREAD_PRIORITY_NORMAL if none), or THREAD_PRIORITY_ERROR_RETURN for another handle.
int WINAPI GetThreadPriority(HANDLE hThread);

/// The calling thread's last error, as set by the calls above.
DWORD WINAPI GetLastError(void);
void WINAPI SetLastError(DWORD dwErrCode);

}  // extern "C"
