#include "midi/win32/delayed_gui.h"

#include <cmath>

#include "interfaces/kit.h"
#include "midi/velt_midi_error.h"

namespace {
constexpr const char* delayedGuiSource = "midi/Sources/win32/delayed_gui";
// A timer wait never lasts longer than this, so shutdown is never held up for long.
constexpr DWORD maximumTimerWaitMilliseconds = 2000;
}  // namespace

DelayedGui::DelayedGui(Callback callback, double secondsDelay)
    : secondsDelay_(secondsDelay), callback_(std::move(callback)) {
    timer_ = CreateWaitableTimerW(nullptr, FALSE, VELT_WTEXT("DelayedCallbackTimer"));
    if (timer_ == nullptr) {
        LogAndThrowErrorNumber(delayedGuiSource, __LINE__, static_cast<int>(GetLastError()),
                               "CreateWaitableTimerW");
    }
    worker_ = std::thread([this] { RunLoop(); });
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
            callback_(tickIndex);
        }
    }
}
