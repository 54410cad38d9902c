// The display delay: ticks come back in order, one per timer wait, on the worker thread; a reset
// drops what is pending; destruction is prompt. Waits here are for events, never for time.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "midi/win32/delayed_gui.h"
#include "tests/support/captured_log.h"
#include "tests/support/recorded.h"

namespace {

// The ticks delivered, each with the thread it came on.
struct Deliveries : Recorded<std::pair<std::uint32_t, std::thread::id>> {
    void Deliver(std::uint32_t tick) { Add({tick, std::this_thread::get_id()}); }
    std::vector<std::uint32_t> Ticks() const {
        std::vector<std::uint32_t> ticks;
        for (const auto& [tick, thread] : Values())
            ticks.push_back(tick);
        return ticks;
    }
};

}  // namespace

TEST(DelayedGui, ScheduledTicksArriveInOrderOnTheWorkerThread) {
    Deliveries deliveries;
    DelayedGui gui([&](std::uint32_t tick) { deliveries.Deliver(tick); }, 0.0);
    gui.SignalDelayedCallback(10);
    gui.SignalDelayedCallback(11);
    gui.SignalDelayedCallback(12);
    ASSERT_TRUE(deliveries.WaitFor(3));
    EXPECT_EQ(deliveries.Ticks(), (std::vector<std::uint32_t>{10, 11, 12}));
    for (const auto& [tick, thread] : deliveries.Values())
        EXPECT_NE(thread, std::this_thread::get_id()) << tick;
    EXPECT_FALSE(gui.HasScheduledCallbacks());
}

TEST(DelayedGui, AThrowingCallbackIsLoggedAndTheNextTickIsStillDelivered) {
    CapturedLog log;
    Deliveries deliveries;
    {
        DelayedGui gui(
            [&](std::uint32_t tick) {
                if (tick == 1) {
                    throw std::runtime_error("display gone");
                }
                if (tick == 2) {
                    throw 2;
                }
                deliveries.Deliver(tick);
            },
            0.0);
        gui.SignalDelayedCallback(1);
        gui.SignalDelayedCallback(2);
        gui.SignalDelayedCallback(3);
        ASSERT_TRUE(deliveries.WaitFor(1));
    }
    EXPECT_EQ(deliveries.Ticks(), std::vector<std::uint32_t>{3});
    const std::string source = " (midi/Sources/win32/delayed_gui line 114)";
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{"EXCEPTION: display gone" + source,
                                                     "EXCEPTION: Unknown exception." + source}));
}

TEST(DelayedGui, QueueOperationsTakeTheOldestTickAndResetDropsAll) {
    // A long delay keeps the worker in its timer wait while the queue is inspected; destruction
    // then still ends promptly because the pending ticks were dropped.
    DelayedGui gui([](std::uint32_t) {}, 0.25);
    EXPECT_EQ(gui.GetSecondsDelay(), 0.25);
    gui.SetSecondsDelay(1.0);
    EXPECT_EQ(gui.GetSecondsDelay(), 1.0);
    gui.SignalDelayedCallback(1);
    gui.SignalDelayedCallback(2);
    std::uint32_t tick = 0;
    // The worker may already have taken tick 1; whatever is left comes out oldest first.
    if (gui.GetNextTickIndex(&tick)) {
        EXPECT_TRUE(tick == 1 || tick == 2);
    }
    gui.Reset();
    EXPECT_FALSE(gui.HasScheduledCallbacks());
    EXPECT_FALSE(gui.GetNextTickIndex(&tick));
    EXPECT_TRUE(gui.GetShouldRun());
}

TEST(DelayedGui, ResetWhileATimerWaitIsInProgressDeliversNothing) {
    Deliveries deliveries;
    {
        DelayedGui gui([&](std::uint32_t t) { deliveries.Deliver(t); }, 0.2);
        {
            std::scoped_lock lock(gui.GetMutex());
            gui.ResetLocked();
        }
        gui.SignalDelayedCallback(7);
        gui.Reset();
    }  // destruction joins the worker after its timer wait at the latest
    EXPECT_TRUE(deliveries.Ticks().empty());
}

TEST(DelayedGui, DestructionIsPromptWhenIdleAndRepeatedConstructionIsClean) {
    for (int i = 0; i < 50; ++i) {
        Deliveries deliveries;
        DelayedGui gui([&](std::uint32_t t) { deliveries.Deliver(t); }, 0.0);
        if (i % 2 == 0) {
            gui.SignalDelayedCallback(static_cast<std::uint32_t>(i));
            ASSERT_TRUE(deliveries.WaitFor(1));
        }
    }
}

TEST(DelayedGui, ADueTimeOfZeroSignalsTheTimerAtOnce) {
    // The display delay may be 0: the timer it arms must then be signalled already, so that a
    // wait with no time allowed finds it so (a due time of 0 is an absolute time long past).
    HANDLE timer = CreateWaitableTimerW(nullptr, FALSE, nullptr);
    ASSERT_NE(timer, nullptr);
    LARGE_INTEGER dueTime;
    dueTime.QuadPart = 0;
    ASSERT_TRUE(SetWaitableTimer(timer, &dueTime, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(WaitForSingleObject(timer, 0), WAIT_OBJECT_0);
    // Auto-reset: the signal was consumed by that wait.
    EXPECT_EQ(WaitForSingleObject(timer, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    CloseHandle(timer);
}
