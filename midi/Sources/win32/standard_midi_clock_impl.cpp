#include "midi/win32/standard_midi_clock_impl.h"

#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "midi/Sources/logged_exceptions.h"
#include "midi/velt_midi_error.h"

namespace {

// This module's name and the lines its log texts have always quoted.
constexpr const char* kSourceName = "midi/Sources/win32/standard_midi_clock_impl";
constexpr unsigned int kTimeSetEventLine = 206;
constexpr int kClockThreadLine = 71;

constexpr UINT kTimerPeriodMilliseconds = 1;

}  // namespace

StandardMidiClockImpl::StandardMidiClockImpl()
    : clockThread_(
          [this] { RunLoggingExceptions(kSourceName, kClockThreadLine, [this] { RunLoop(); }); }) {}

StandardMidiClockImpl::~StandardMidiClockImpl() {
    gate_.Shut();
    UINT pending = 0;
    {
        std::scoped_lock lock(timerMutex_);
        timersStopped_ = true;
        pending = pendingTimer_;
    }
    // Killing waits for the pending timer's callback if it runs; a callback that armed that timer
    // before the stop may still be finishing, hence the wait for callbacks in flight.
    if (pending != 0) {
        timeKillEvent(pending);
    }
    {
        std::unique_lock lock(timerMutex_);
        callbacksDone_.wait(lock, [this] { return callbacksInFlight_ == 0; });
    }
    clockThread_.join();
    std::scoped_lock lock(timerMutex_);
    if (timerPeriodRaised_) {
        timeEndPeriod(kTimerPeriodMilliseconds);
        timerPeriodRaised_ = false;
    }
}

void StandardMidiClockImpl::StartClock() {
    gate_.RequestStart();
}

void StandardMidiClockImpl::RunLoop() {
    while (gate_.WaitForStart()) {
        // A run that fails is logged and ends; the thread stays ready for the next start.
        const bool ok = RunLoggingExceptions(kSourceName, kClockThreadLine, [this] {
            if (timeBeginPeriod(kTimerPeriodMilliseconds) != TIMERR_NOERROR) {
                kit::CoutBuffer() << "timeBeginPeriod(1) failed." << kit::endl;
            } else {
                std::scoped_lock lock(timerMutex_);
                timerPeriodRaised_ = true;
            }
            chrono_.ResetErrorCorrectionForRun();
            DoTimerCallback();  // the first clock of the run fires at once, on this thread
        });
        if (!ok) {
            EndRun_();
        }
    }
}

void CALLBACK StandardMidiClockImpl::DoTimerCallbackFromThread(UINT, UINT, DWORD_PTR user,
                                                               DWORD_PTR, DWORD_PTR) {
    auto* clock = reinterpret_cast<StandardMidiClockImpl*>(user);
    {
        std::scoped_lock lock(clock->timerMutex_);
        if (clock->timersStopped_) {
            return;
        }
        ++clock->callbacksInFlight_;
    }
    // Nothing may escape into the platform's timer thread: a failure ends the run and is logged
    // as a clock-thread failure would be.
    if (!RunLoggingExceptions(kSourceName, __LINE__, [clock] { clock->DoTimerCallback(); })) {
        clock->EndRun_();
    }
    {
        std::scoped_lock lock(clock->timerMutex_);
        --clock->callbacksInFlight_;
    }
    clock->callbacksDone_.notify_all();
}

void StandardMidiClockImpl::DoTimerCallback() {
    chrono_.Start(GetClockState().GetClockTime());
    if (!AdvanceClock()) {
        EndRun_();
    }
}

void StandardMidiClockImpl::EndRun_() {
    {
        std::scoped_lock lock(timerMutex_);
        if (timerPeriodRaised_) {
            timeEndPeriod(kTimerPeriodMilliseconds);
            timerPeriodRaised_ = false;
        }
    }
    gate_.EndRun();
}

void StandardMidiClockImpl::SetClockTimer(double seconds) {
    const double period = chrono_.CorrectClockPeriodForAverageError(seconds);
    // The work of this clock (the callback, the state changes) must not lengthen the period.
    double delay = period - chrono_.GetSecondsSinceStart();
    if (delay < 0.0) {
        delay = 0.0;
    }
    auto delayMilliseconds = static_cast<UINT>(delay * 1000.0);
    if (delayMilliseconds == 0) {
        delayMilliseconds = 1;  // the shortest delay the timer accepts
    }

    const std::string action = "timeSetEvent";
    const bool logCalls = kit::GetPlatformCallLogging();
    kit::LogFilter(kit::LogAttempt, kSourceName, kTimeSetEventLine, action, logCalls);
    std::scoped_lock lock(timerMutex_);
    if (timersStopped_) {
        return;  // being destroyed: the run ends here
    }
    const MMRESULT timer =
        timeSetEvent(delayMilliseconds, 0, &StandardMidiClockImpl::DoTimerCallbackFromThread,
                     reinterpret_cast<DWORD_PTR>(this), TIME_ONESHOT);
    if (timer == 0) {
        LogAndThrowFailure(kSourceName, kTimeSetEventLine, action, "");
    }
    pendingTimer_ = timer;
    kit::LogFilter(kit::LogSuccess, kSourceName, kTimeSetEventLine, action, logCalls);
}
