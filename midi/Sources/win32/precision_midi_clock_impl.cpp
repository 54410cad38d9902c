#include "midi/win32/precision_midi_clock_impl.h"

#include <algorithm>
#include <cmath>
#include <exception>

#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "platform/mmsystem.h"

namespace {

constexpr const char* kSourceName = "midi/Sources/win32/precision_midi_clock_impl";

// The bulk of each wait is an interruptible sleep that ends this long before the deadline; the
// rest is the precise wait. It must exceed the sleep's worst wake-up latency under load.
constexpr std::int64_t kPreciseWaitNanoseconds = 2'000'000;

}  // namespace

PrecisionMidiClockImpl::PrecisionMidiClockImpl(std::chrono::nanoseconds spin)
    : spinNanoseconds_(spin.count()), clockThread_([this] { RunLoop(); }) {}

PrecisionMidiClockImpl::~PrecisionMidiClockImpl() {
    gate_.Shut();
    clockThread_.join();
}

void PrecisionMidiClockImpl::StartClock() {
    gate_.RequestStart();
}

void PrecisionMidiClockImpl::SetClockTimer(double seconds) {
    const auto period = static_cast<std::int64_t>(std::llround(seconds * 1e9));
    const std::int64_t now = VeltPreciseTimeNow();
    nextDeadline_ = deadline_ + period;
    if (now - deadline_ > period) {
        // Stalled for more than a whole period: start a new grid here rather than catch up.
        nextDeadline_ = now + period;
    }
}

void PrecisionMidiClockImpl::RunLoop() {
    if (!SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL)) {
        kit::CoutBuffer() << "WARNING: PrecisionMidiClockImpl runs at normal priority, "
                          << "SetThreadPriority error " << GetLastError() << kit::endl;
    }
    while (gate_.WaitForStart()) {
        // A failing run is logged and ends; the thread stays ready for the next start.
        try {
            Run_();
        } catch (const std::exception& e) {
            VeltLogException(e.what(), kSourceName, __LINE__);
        } catch (...) {
            VeltLogException("Unknown exception.", kSourceName, __LINE__);
        }
        gate_.EndRun();
    }
}

void PrecisionMidiClockImpl::Run_() {
    nextDeadline_ = VeltPreciseTimeNow();  // the first clock fires at once
    for (;;) {
        deadline_ = nextDeadline_;
        if (!WaitForDeadline_(deadline_)) {
            return;
        }
        if (!AdvanceClock()) {
            return;
        }
    }
}

bool PrecisionMidiClockImpl::WaitForDeadline_(std::int64_t deadline) {
    const std::int64_t sleepFor =
        std::max<std::int64_t>(0, deadline - kPreciseWaitNanoseconds - VeltPreciseTimeNow());
    if (!gate_.SleepUntil(std::chrono::steady_clock::now() + std::chrono::nanoseconds(sleepFor))) {
        return false;
    }
    if (!VeltPreciseWaitUntil(deadline, spinNanoseconds_)) {
        // The system refused the precise wait; the sleep above has brought the thread close, so
        // the last stretch is spent spinning.
        VeltPreciseWaitUntil(deadline, deadline - VeltPreciseTimeNow());
    }
    return true;
}
