// Host notifications: named callbacks under concurrent posting and removal, the GUI sink, and the
// exception log line.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "tests/support/captured_log.h"

namespace {

TEST(CallbackDispatcher, DeliversByNameInRegistrationOrderAndRemovesByTargetOrId) {
    notify::CallbackDispatcher dispatcher;
    std::vector<std::string> calls;
    int first = 0, second = 0;
    int payload = 42;
    dispatcher.AddCallback("play", &first, [&](void* p) {
        calls.push_back("first " + std::to_string(*static_cast<int*>(p)));
    });
    auto secondId =
        dispatcher.AddCallback("play", &second, [&](void*) { calls.push_back("second"); });
    dispatcher.AddCallback("stop", &first, [&](void*) { calls.push_back("stop"); });
    dispatcher.AddCallback("play", &second, [&](void*) { calls.push_back("second again"); });

    dispatcher.Notify("play", &payload);
    EXPECT_EQ(calls, (std::vector<std::string>{"first 42", "second", "second again"}));

    calls.clear();
    dispatcher.RemoveCallback(secondId);
    dispatcher.Notify("play", &payload);
    EXPECT_EQ(calls, (std::vector<std::string>{"first 42", "second again"}));

    calls.clear();
    dispatcher.RemoveCallbacksForTarget(&first);  // both of its names
    dispatcher.Notify("play", &payload);
    dispatcher.Notify("stop", nullptr);
    EXPECT_EQ(calls, (std::vector<std::string>{"second again"}));
    EXPECT_EQ(dispatcher.GetCallbackCount("stop"), 0u);
    dispatcher.Notify("nobody listens", nullptr);  // simply not delivered
}

TEST(CallbackDispatcher, CallbacksMayRemoveThemselvesAndThrowWithoutStoppingDelivery) {
    CapturedLog log;
    notify::CallbackDispatcher dispatcher;
    int self = 0, other = 0;
    int selfCalls = 0, otherCalls = 0;
    dispatcher.AddCallback("tick", &self, [&](void*) {
        ++selfCalls;
        dispatcher.RemoveCallbacksForTarget(&self);  // must not wait for its own call
        throw std::runtime_error("boom");
    });
    dispatcher.AddCallback("tick", &other, [&](void*) { ++otherCalls; });
    dispatcher.Notify("tick", nullptr);
    dispatcher.Notify("tick", nullptr);
    EXPECT_EQ(selfCalls, 1);
    EXPECT_EQ(otherCalls, 2);
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{"WARNING: callback for tick threw: boom"}));
}

TEST(CallbackDispatcher, RemovalWaitsForACallRunningOnAnotherThread) {
    notify::CallbackDispatcher dispatcher;
    int target = 0;
    std::atomic<bool> entered{false};
    std::atomic<bool> removalReturned{false};
    bool returnedWhileRunning = true;
    dispatcher.AddCallback("play", &target, [&](void*) {
        entered = true;
        // The registration disappears as soon as the removal has taken it out; the removal must
        // still not return while this call runs.
        while (dispatcher.GetCallbackCount("play") != 0)
            std::this_thread::yield();
        returnedWhileRunning = removalReturned.load();
    });
    std::thread poster([&] { dispatcher.Notify("play", nullptr); });
    while (!entered)
        std::this_thread::yield();
    std::thread remover([&] {
        dispatcher.RemoveCallbacksForTarget(&target);
        removalReturned = true;
    });
    poster.join();
    remover.join();
    EXPECT_FALSE(returnedWhileRunning);
    EXPECT_TRUE(removalReturned);
}

TEST(CallbackDispatcher, NoCallbackReachesATargetAfterItsRemovalUnderConcurrentPosting) {
    notify::CallbackDispatcher dispatcher;
    std::atomic<bool> stop{false};
    std::atomic<int> lateCalls{0};
    std::vector<std::thread> posters;
    for (int i = 0; i < 2; ++i) {
        posters.emplace_back([&] {
            while (!stop)
                dispatcher.Notify("clock", nullptr);
        });
    }
    // A bystander registered throughout must keep receiving.
    std::atomic<int> bystanderCalls{0};
    int bystander = 0;
    dispatcher.AddCallback("clock", &bystander, [&](void*) { ++bystanderCalls; });

    for (int round = 0; round < 100; ++round) {
        struct Target {
            std::atomic<bool> alive{true};
            std::atomic<int> calls{0};
        } target;
        dispatcher.AddCallback("clock", &target, [&target, &lateCalls](void*) {
            if (!target.alive)
                ++lateCalls;
            ++target.calls;
        });
        dispatcher.AddCallback("other", &target, [](void*) {});
        while (target.calls == 0)
            std::this_thread::yield();
        dispatcher.RemoveCallbacksForTarget(&target);
        target.alive = false;  // what destruction would do
        ASSERT_EQ(dispatcher.GetCallbackCount("other"), 0u);
    }
    stop = true;
    for (auto& poster : posters)
        poster.join();
    EXPECT_EQ(lateCalls, 0);
    EXPECT_GT(bystanderCalls, 0);
    EXPECT_EQ(dispatcher.GetCallbackCount("clock"), 1u);
}

TEST(GuiDispatcher, ForwardsEveryCallToTheInstalledSinkInOrder) {
    CapturedLog log;
    notify::GuiDispatcher dispatcher;
    dispatcher.SendMidiNotification();  // no sink: dropped
    auto sink = std::make_shared<notify::RecordingGuiSink>();
    dispatcher.SetSink(sink);
    dispatcher.SendGuiDelayMessage(220);
    dispatcher.SendMidiClockDebugMessage("late 3 ms");
    dispatcher.SendMtcActiveStateNotification(true);
    dispatcher.SendMtcOutputPortNotification(2);
    dispatcher.SendMtcFrameRateNotification("25 fps");
    dispatcher.SendMidiNotification();
    dispatcher.SendSourceConnected(1);
    dispatcher.SendMidiCommandCanceled(4);
    dispatcher.SendLearnedMIDICommand(4 * 65536 + 0x90 * 256 + 60);
    using M = notify::GuiMessage;
    EXPECT_EQ(sink->GetMessages(), (std::vector<M>{{"SendGuiDelayMessage", "220"},
                                                   {"SendMidiClockDebugMessage", "late 3 ms"},
                                                   {"SendMtcActiveStateNotification", "true"},
                                                   {"SendMtcOutputPortNotification", "2"},
                                                   {"SendMtcFrameRateNotification", "25 fps"},
                                                   {"SendMidiNotification", ""},
                                                   {"SendSourceConnected", "1"},
                                                   {"SendMidiCommandCanceled", "4"},
                                                   {"SendLearnedMIDICommand", "299068"}}));
    dispatcher.SetSink(nullptr);
    dispatcher.SendSourceConnected(3);  // removed: dropped too, and nothing logged
    EXPECT_EQ(sink->GetMessages().size(), 9u);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(HostServices, NotificationNamesAreDistinctAndTheExceptionLineNamesTheThread) {
    using namespace notify::names;
    const std::string* all[] = {
        &disarmedPlayback,          &currentProgramIds,         &midiSourceConnected,
        &midiCommandLearned,        &midiCommandPlay,           &midiCommandPause,
        &midiCommandStop,           &midiCommandNextSong,       &midiCommandPreviousSong,
        &midiCommandNextMarker,     &midiCommandPreviousMarker, &midiCommandContinue,
        &midiCommandContinuousMode, &midiCommandConductBeat,    &midiCommandNextPatch,
        &midiCommandPreviousPatch};
    std::set<std::string> values{""};
    for (const std::string* name : all)
        EXPECT_TRUE(values.insert(*name).second) << "empty or twice: '" << *name << "'";

    CapturedLog log;
    std::thread worker([] {
        VeltLogException("Unknown exception.", "midi/Sources/midi_queue_thread", 88);
        kit::threadNames.SetNameOfCurrentThread("midi_queue_run");
        VeltLogException("boom", "midi/Sources/midi_queue_thread", 88);
    });
    worker.join();
    EXPECT_EQ(log.Lines(),
              (std::vector<std::string>{
                  "EXCEPTION: Unknown exception. (midi/Sources/midi_queue_thread line 88)",
                  "EXCEPTION: boom (midi/Sources/midi_queue_thread line 88) in thread "
                  "midi_queue_run"}));
}

}  // namespace
