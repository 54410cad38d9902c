// Timing pieces shared by the clocks that wait for their own deadlines on a thread of their own.
// Private to the engine sources.
#pragma once

#include <cstdint>

#include "platform/mmsystem.h"
#include "platform/precise_wait.h"

/// The system timer resolution raised to 1 ms for the life of a clock's run. An interruptible
/// sleep is only as fine as this resolution on Windows (15.6 ms by default); on POSIX it is fine
/// already and the request costs nothing.
class OneMillisecondTimerResolution {
  public:
    OneMillisecondTimerResolution() : raised_(timeBeginPeriod(1) == TIMERR_NOERROR) {}
    ~OneMillisecondTimerResolution() {
        if (raised_) {
            timeEndPeriod(1);
        }
    }
    OneMillisecondTimerResolution(const OneMillisecondTimerResolution&) = delete;
    OneMillisecondTimerResolution& operator=(const OneMillisecondTimerResolution&) = delete;

  private:
    const bool raised_;
};

/// Waits until `deadline` (nanoseconds of VeltPreciseTimeNow) with the platform's precise wait,
/// its last `spinNanoseconds` spent polling. When the system refuses the precise wait, the
/// caller's sleep has brought the thread close, so the last stretch is spent spinning.
inline void PreciseWaitUntil(std::int64_t deadline, std::int64_t spinNanoseconds) {
    if (!VeltPreciseWaitUntil(deadline, spinNanoseconds)) {
        VeltPreciseWaitUntil(deadline, deadline - VeltPreciseTimeNow());
    }
}
