// The timing and kernel services of the seam. On POSIX these test our implementation; the
// tests marked POSIX-only check choices Windows does not share.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <sys/resource.h>
#include <unistd.h>
#endif

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/mmsystem.h"

namespace {

// Answers to misuse (an unknown timer id, a missing callback, a bad size, an unpaired period
// request, a bad handle) are the POSIX platform layer's promise, taken from Windows'
// documentation. The Windows build is tested under Wine, which answers several of them
// differently (TIMERR_NOCANDO for an unknown timer id; a timer armed without a callback calls
// address 0), so there only the behaviour of correct calls is checked.
#ifdef _WIN32
constexpr bool kChecksMisuseAnswers = false;
#else
constexpr bool kChecksMisuseAnswers = true;
#endif

// Counts callbacks of one timer event and lets the test wait for a number of them. Optionally
// kills the event from inside its own callback, or arms the next one-shot from it as the clock
// does.
struct CallbackCounter {
    std::mutex mutex;
    std::condition_variable changed;
    int calls = 0;
    UINT killAtCall = 0;  // kill the event from inside its own callback at this call (0: never)
    MMRESULT killResult = ~0u;
    int chainLength = 0;  // one-shots armed from callbacks until this many calls were made
    std::vector<UINT> ids;
    std::vector<UINT> armed;

    static void CALLBACK Callback(UINT id, UINT, DWORD_PTR user, DWORD_PTR, DWORD_PTR) {
        auto* self = reinterpret_cast<CallbackCounter*>(user);
        std::unique_lock lock(self->mutex);
        self->ids.push_back(id);
        if (++self->calls < self->chainLength) {
            self->armed.push_back(self->Start(1, TIME_ONESHOT));
        }
        if (self->killAtCall != 0 && static_cast<UINT>(self->calls) == self->killAtCall) {
            lock.unlock();
            const MMRESULT result = timeKillEvent(id);
            lock.lock();
            self->killResult = result;
        }
        self->changed.notify_all();
    }

    UINT Start(UINT delayMs, UINT flags) {
        return timeSetEvent(delayMs, 0, &Callback, reinterpret_cast<DWORD_PTR>(this), flags);
    }
    bool WaitForCalls(int count) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), [&] { return calls >= count; });
    }
    int Calls() {
        std::scoped_lock lock(mutex);
        return calls;
    }
};

// Callbacks run one after another on the timer thread: once a later one-shot event has fired,
// every callback due before it has returned.
void DrainTimerThread() {
    CallbackCounter barrier;
    ASSERT_NE(barrier.Start(5, TIME_ONESHOT), 0u);
    ASSERT_TRUE(barrier.WaitForCalls(1));
}

TEST(MultimediaTimer, OneShotFiresOnceAndThenNoLongerExists) {
    CallbackCounter counter;
    const UINT id = counter.Start(1, TIME_ONESHOT);
    ASSERT_NE(id, 0u);
    ASSERT_TRUE(counter.WaitForCalls(1));
    DrainTimerThread();
    EXPECT_EQ(counter.Calls(), 1);
    EXPECT_EQ(counter.ids[0], id);
    if (kChecksMisuseAnswers) {
        EXPECT_EQ(timeKillEvent(id), static_cast<MMRESULT>(MMSYSERR_INVALPARAM));
    }
}

TEST(MultimediaTimer, PeriodicFiresUntilKilledAndNeverAfterTheKillReturns) {
    CallbackCounter counter;
    const UINT id = counter.Start(1, TIME_PERIODIC | TIME_KILL_SYNCHRONOUS);
    ASSERT_NE(id, 0u);
    ASSERT_TRUE(counter.WaitForCalls(5));
    EXPECT_EQ(timeKillEvent(id), static_cast<MMRESULT>(TIMERR_NOERROR));
    const int callsAtKill = counter.Calls();
    DrainTimerThread();
    EXPECT_EQ(counter.Calls(), callsAtKill);
    if (kChecksMisuseAnswers) {
        EXPECT_EQ(timeKillEvent(id), static_cast<MMRESULT>(MMSYSERR_INVALPARAM));
    }

    // A periodic event may also kill itself from its own callback.
    CallbackCounter self;
    self.killAtCall = 3;
    ASSERT_NE(self.Start(1, TIME_PERIODIC), 0u);
    ASSERT_TRUE(self.WaitForCalls(3));
    DrainTimerThread();
    EXPECT_EQ(self.Calls(), 3);
    EXPECT_EQ(self.killResult, static_cast<MMRESULT>(TIMERR_NOERROR));
}

TEST(MultimediaTimer, CallbacksMayArmTheNextTimer) {
    CallbackCounter chain;
    chain.chainLength = 5;
    ASSERT_NE(chain.Start(1, TIME_ONESHOT), 0u);
    ASSERT_TRUE(chain.WaitForCalls(5));
    DrainTimerThread();
    std::scoped_lock lock(chain.mutex);
    // Each fired id is the one armed just before it.
    ASSERT_EQ(chain.ids.size(), 5u);
    ASSERT_EQ(chain.armed.size(), 4u);
    for (std::size_t i = 0; i < chain.armed.size(); ++i) {
        EXPECT_NE(chain.armed[i], 0u);
        EXPECT_EQ(chain.armed[i], chain.ids[i + 1]);
    }
}

TEST(MultimediaTimer, RefusesWhatWindowsRefuses) {
    if (!kChecksMisuseAnswers) {
        GTEST_SKIP() << "misuse is answered by the system's own timer service here";
    }
    CallbackCounter counter;
    EXPECT_EQ(counter.Start(0, TIME_ONESHOT), 0u);
    EXPECT_EQ(counter.Start(1'000'001, TIME_ONESHOT), 0u);
    EXPECT_EQ(timeSetEvent(1, 0, nullptr, reinterpret_cast<DWORD_PTR>(&counter), TIME_ONESHOT), 0u);
    EXPECT_EQ(counter.Start(1, TIME_CALLBACK_EVENT_SET), 0u);
    EXPECT_EQ(timeKillEvent(0), static_cast<MMRESULT>(MMSYSERR_INVALPARAM));

    TIMECAPS caps{};
    EXPECT_EQ(timeGetDevCaps(&caps, sizeof caps), static_cast<MMRESULT>(TIMERR_NOERROR));
    EXPECT_EQ(caps.wPeriodMin, 1u);
    EXPECT_EQ(caps.wPeriodMax, 1'000'000u);
    EXPECT_EQ(timeGetDevCaps(&caps, 3), static_cast<MMRESULT>(TIMERR_STRUCT));
}

TEST(MultimediaTimer, PeriodRequestsMustPairUp) {
    if (!kChecksMisuseAnswers) {
        GTEST_SKIP() << "unpaired period requests are answered by the system's own service here";
    }
    EXPECT_EQ(timeBeginPeriod(0), static_cast<MMRESULT>(TIMERR_NOCANDO));
    EXPECT_EQ(timeEndPeriod(7), static_cast<MMRESULT>(TIMERR_NOCANDO));
    EXPECT_EQ(timeBeginPeriod(7), static_cast<MMRESULT>(TIMERR_NOERROR));
    EXPECT_EQ(timeBeginPeriod(7), static_cast<MMRESULT>(TIMERR_NOERROR));
    EXPECT_EQ(timeEndPeriod(7), static_cast<MMRESULT>(TIMERR_NOERROR));
    EXPECT_EQ(timeEndPeriod(7), static_cast<MMRESULT>(TIMERR_NOERROR));
    EXPECT_EQ(timeEndPeriod(7), static_cast<MMRESULT>(TIMERR_NOCANDO));
}

TEST(PreciseClock, CounterCountsHundredNanosecondsAndWaitsNeverReturnEarly) {
    LARGE_INTEGER frequency{};
    ASSERT_TRUE(QueryPerformanceFrequency(&frequency));
    ASSERT_EQ(frequency.QuadPart, 10'000'000);  // POSIX always; most Windows systems

    const LONGLONG before = VeltPreciseTimeNow();
    LARGE_INTEGER count{};
    ASSERT_TRUE(QueryPerformanceCounter(&count));
    const LONGLONG after = VeltPreciseTimeNow();
    EXPECT_LE(before / 100, count.QuadPart);
    EXPECT_LE(count.QuadPart, after / 100);
    if (kChecksMisuseAnswers) {
        EXPECT_FALSE(QueryPerformanceCounter(nullptr));
    }

    // The precise wait returns only once the deadline has passed, spinning or not.
    EXPECT_TRUE(VeltPreciseWaitUntil(0, 0));  // long past
    for (const LONGLONG spin : {0LL, 200'000LL}) {
        const LONGLONG deadline = VeltPreciseTimeNow() + 1'000'000;
        ASSERT_TRUE(VeltPreciseWaitUntil(deadline, spin));
        EXPECT_GE(VeltPreciseTimeNow(), deadline);
    }
}

// A waitable timer handle that closes itself.
class Timer {
  public:
    explicit Timer(BOOL manualReset, const WCHAR* name = nullptr)
        : handle_(CreateWaitableTimerW(nullptr, manualReset, name)), error_(GetLastError()) {}
    ~Timer() {
        if (handle_ != nullptr) {
            CloseHandle(handle_);
        }
    }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;
    HANDLE get() const { return handle_; }
    DWORD creationError() const { return error_; }
    BOOL SetRelative(LONGLONG hundredNanoseconds, LONG periodMilliseconds = 0) {
        LARGE_INTEGER due{};
        due.QuadPart = -hundredNanoseconds;
        return SetWaitableTimer(handle_, &due, periodMilliseconds, nullptr, nullptr, FALSE);
    }

  private:
    HANDLE handle_;
    DWORD error_;
};

TEST(WaitableTimer, AutoResetReleasesOneWaitPerExpiryAndAPeriodOneAfterAnother) {
    Timer timer(FALSE);
    ASSERT_NE(timer.get(), nullptr);
    EXPECT_EQ(WaitForSingleObject(timer.get(), 5), WAIT_TIMEOUT);  // not set yet
    ASSERT_TRUE(timer.SetRelative(0));                             // due at once
    EXPECT_EQ(WaitForSingleObject(timer.get(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(timer.get(), 0), WAIT_TIMEOUT);
    ASSERT_TRUE(timer.SetRelative(10'000, 1));  // 1 ms, then every millisecond
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(WaitForSingleObject(timer.get(), INFINITE), WAIT_OBJECT_0);
    }
    ASSERT_TRUE(CancelWaitableTimer(timer.get()));
}

TEST(WaitableTimer, ManualResetStaysSignalledUntilSetAgain) {
    Timer timer(TRUE);
    ASSERT_TRUE(timer.SetRelative(0));
    EXPECT_EQ(WaitForSingleObject(timer.get(), INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(timer.get(), 0), WAIT_OBJECT_0);
    ASSERT_TRUE(timer.SetRelative(36'000'000'000LL));  // an hour: not signalled any more
    EXPECT_EQ(WaitForSingleObject(timer.get(), 0), WAIT_TIMEOUT);
}

TEST(WaitableTimer, AbsoluteDueTimesAreWallClockFileTimes) {
    Timer timer(FALSE);
    LARGE_INTEGER due{};
    due.QuadPart = 1;  // 1601: long past
    ASSERT_TRUE(SetWaitableTimer(timer.get(), &due, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(WaitForSingleObject(timer.get(), 0), WAIT_OBJECT_0);

    const auto sinceUnixEpoch = std::chrono::system_clock::now().time_since_epoch();
    due.QuadPart =
        116'444'736'000'000'000LL +
        std::chrono::duration_cast<std::chrono::nanoseconds>(sinceUnixEpoch).count() / 100 +
        20'000;  // 2 ms from now
    ASSERT_TRUE(SetWaitableTimer(timer.get(), &due, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(WaitForSingleObject(timer.get(), INFINITE), WAIT_OBJECT_0);
}

TEST(WaitableTimer, ANamedTimerIsOpenedAgainByItsName) {
    {
        Timer first(FALSE, VELT_WTEXT("DelayedCallbackTimer"));
        EXPECT_EQ(first.creationError(), static_cast<DWORD>(ERROR_SUCCESS));
        Timer second(FALSE, VELT_WTEXT("DelayedCallbackTimer"));
        EXPECT_EQ(second.creationError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
        EXPECT_NE(first.get(), second.get());
        ASSERT_TRUE(first.SetRelative(0));
        EXPECT_EQ(WaitForSingleObject(second.get(), 0), WAIT_OBJECT_0);
    }
    Timer again(FALSE, VELT_WTEXT("DelayedCallbackTimer"));  // the name died with its last handle
    EXPECT_EQ(again.creationError(), static_cast<DWORD>(ERROR_SUCCESS));
}

TEST(WaitableTimer, BadHandlesAndUnsupportedUsesFailWithTheError) {
    if (!kChecksMisuseAnswers) {
        GTEST_SKIP() << "bad handles are answered by the system's own kernel here";
    }
    HANDLE handle = CreateWaitableTimerW(nullptr, FALSE, nullptr);
    ASSERT_TRUE(CloseHandle(handle));
    SetLastError(0);
    EXPECT_FALSE(CloseHandle(handle));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    SetLastError(0);
    EXPECT_EQ(WaitForSingleObject(handle, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(WaitForSingleObject(GetCurrentThread(), 0), WAIT_FAILED);

    Timer timer(FALSE);
    LARGE_INTEGER due{};
    auto completion = [](LPVOID, DWORD, DWORD) {};
    EXPECT_FALSE(SetWaitableTimer(timer.get(), &due, 0, completion, nullptr, FALSE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_FALSE(SetWaitableTimer(timer.get(), &due, -1, nullptr, nullptr, FALSE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(ThreadPriority, BadArgumentsFailWithTheThreadsOwnLastError) {
    SetLastError(0);
    EXPECT_FALSE(SetThreadPriority(reinterpret_cast<HANDLE>(0x1234), THREAD_PRIORITY_HIGHEST));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_FALSE(SetThreadPriority(GetCurrentThread(), 7));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));

    // Lowering is never refused; done on a thread of its own to leave the test's alone. The last
    // error belongs to each thread: the new one starts from zero and leaves ours untouched.
    SetLastError(42);
    DWORD other = 1;
    std::thread([&] {
        other = GetLastError();
        EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_NORMAL);
        EXPECT_TRUE(SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_LOWEST));
        EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_LOWEST);
        SetLastError(7);
    }).join();
    EXPECT_EQ(other, 0u);
    // On Windows the join itself is a system call that sets the last error.
    if (kChecksMisuseAnswers) {
        EXPECT_EQ(GetLastError(), 42u);
    }
}

#ifndef _WIN32
// Gives up every privilege to raise priorities (real-time and nice allowances, root), asks for
// the highest level and exits 0 when refused with ERROR_ACCESS_DENIED.
[[noreturn]] void AskForHighestPriorityWithoutPrivileges() {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_RTPRIO, &none);
    setrlimit(RLIMIT_NICE, &none);
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) {
        std::_Exit(3);
    }
    SetLastError(0);
    const BOOL granted = SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_HIGHEST);
    std::_Exit(!granted && GetLastError() == ERROR_ACCESS_DENIED ? 0 : 1);
}

// Run in a child process, which may give up its privileges.
TEST(ThreadPriorityDeathTest, ARefusalReturnsFalseAndAccessDenied) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(AskForHighestPriorityWithoutPrivileges(), ::testing::ExitedWithCode(0), "");
}

#endif

}  // namespace
