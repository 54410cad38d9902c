// High-resolution absolute waits, for clocks that keep their own deadlines.
// Declared for both systems; implemented over clock_nanosleep(TIMER_ABSTIME) on POSIX and over a
// high-resolution waitable timer on Windows. (Filled in with the timing layer.)
#pragma once
