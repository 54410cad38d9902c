#include "midi/win32/delayed_gui.h"

#include <cmath>

#include "interfaces/kit.h"
#include "midi/Sources/logged_exceptions.h"
#include "midi/velt_midi_error.h"

namespace {
// A timer wait never lasts longer than this, so shutdown is never held up for long.
constexpr DWORD maximumTimerWaitMilliseconds = 2000;
// Source positions quoted when the worker logs an exception: the worker's own, which ends it,
// and the downbeat callback's, after which the worker goes on.
constexpr const char* delayedGuiSource = "midi/Sources/win32/delayed_gui";
constexpr int workerLine = 27;
// Quoted when the display timer cannot be created.
constexpr int createTimerLine = 24;
constexpr int callbackLine = 114;
}  // namespace

DelayedGui::DelayedGui(Callback callback, double secondsDelay)
    : secondsDelay_(secondsDelay), callback_(std::move(callback)) {
    timer_ = CreateWaitableTimerW(nullptr, FALSE, VELT_WTEXT("DelayedCallbackTimer"));
    if (timer_ == nullptr) {
        LogAndThrowErrorNumber(delayedGuiSource, createTimerLine, static_cast<int>(GetLastError()),
                               "CreateWaitableTimerW");
    }
    worker_ = std::thread(
        [this] { RunLoggingExceptions(delayedGuiSource, workerLine, [this] { RunLoop(); }); });
}

DelayedGui::~DelayedGui() {
    {
        std::scoped_lock lock(stateMutex_);
        shouldRun_ = false;
    }
    {
        // Under the wake mutex, so the notification cannot fall between the worker's check of
        // the queue and its wait.
        std::scoped_lock lock(wakeMutex_);
        wakeCondition_.notify_all();
    }
    worker_.join();
    CloseHandle(timer_);
    std::scoped_lock lock(stateMutex_);
    pendingTicks_.clear();
}

void DelayedGui::SignalDelayedCallback(std::uint32_t tickIndex) {
    {
        std::scoped_lock lock(stateMutex_);
        pendingTicks_.push_back(tickIndex);
    }
    std::scoped_lock lock(wakeMutex_);
    wakeCondition_.notify_one();
}

bool DelayedGui::GetNextTickIndex(std::uint32_t* tickIndex) {
    std::scoped_lock lock(stateMutex_);
    if (pendingTicks_.empty()) {
        return false;
    }
    *tickIndex = pendingTicks_.front();
    pendingTicks_.pop_front();
    return true;
}

bool DelayedGui::HasScheduledCallbacks() {
    std::scoped_lock lock(stateMutex_);
    return !pendingTicks_.empty();
}

void DelayedGui::Reset() {
    std::scoped_lock lock(stateMutex_);
    pendingTicks_.clear();
}

double DelayedGui::GetSecondsDelay() {
    std::scoped_lock lock(stateMutex_);
    return secondsDelay_;
}

void DelayedGui::SetSecondsDelay(double seconds) {
    std::scoped_lock lock(stateMutex_);
    secondsDelay_ = seconds;
}

bool DelayedGui::GetShouldRun() {
    std::scoped_lock lock(stateMutex_);
    return shouldRun_;
}

void DelayedGui::RunLoop() {
    while (GetShouldRun()) {
        {
            std::unique_lock wakeLock(wakeMutex_);
            if (!HasScheduledCallbacks() && GetShouldRun()) {
                wakeCondition_.wait(wakeLock);  // a single wait: any wake-up re-checks below
            }
        }
        if (!GetShouldRun()) {
            return;
        }
        // Relative due time in 100-nanosecond units (negative = relative to now).
        LARGE_INTEGER dueTime;
        dueTime.QuadPart = -std::llround(GetSecondsDelay() * 10'000'000.0);
        SetWaitableTimer(timer_, &dueTime, 0, nullptr, nullptr, FALSE);
        DWORD waitResult = WaitForSingleObject(timer_, maximumTimerWaitMilliseconds);
        if (waitResult != 0) {
            kit::CoutBuffer() << "WARNING: DelayedGui returned early with waitResult = "
                              << waitResult << kit::endl;
        }
        std::uint32_t tickIndex = 0;
        if (GetNextTickIndex(&tickIndex)) {
            // A display that fails on one downbeat must not cost the next ones.
            RunLoggingExceptions(delayedGuiSource, callbackLine, [&] { callback_(tickIndex); });
        }
    }
}
