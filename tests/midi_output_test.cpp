// The output pipeline with its real threads: the queue thread fills the ring through the fill
// callback while the test plays the clock, calling a send step by hand that does what the
// clock-driven send step does. Ports record every buffer they are handed.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "manual_send_step.h"
#include "midi/midi_output.h"
#include "midi/velt_midi_error.h"
#include "recording_midi_buffer.h"
#include "tests/support/captured_log.h"

namespace {

struct SentBuffer {
    std::string name;
    unsigned int tick;
    std::vector<velt_midi::VoiceEvent> events;  // port 0 then port 1 ...
};

class RecordingPorts : public MidiOutputPorts {
  public:
    void SendMidiBuffer(MidiBuffer& buffer) override {
        auto& recording = dynamic_cast<RecordingMidiBuffer&>(buffer);
        SentBuffer sent{buffer.GetName(), buffer.GetTickIndex(), {}};
        for (unsigned char port = 0; port < buffer.GetPortCount(); ++port) {
            auto events = recording.Events(port);
            sent.events.insert(sent.events.end(), events.begin(), events.end());
        }
        std::scoped_lock lock(mutex_);
        sent_.push_back(std::move(sent));
    }
    void RegisterMidiBuffer(std::shared_ptr<MidiBuffer> buffer) override {
        std::string name = buffer->GetName();  // the buffer's lock before ours, as when sending
        std::scoped_lock lock(mutex_);
        registered_.push_back(std::move(name));
    }
    std::vector<SentBuffer> Sent() {
        std::scoped_lock lock(mutex_);
        return sent_;
    }
    std::vector<std::string> Registered() {
        std::scoped_lock lock(mutex_);
        return registered_;
    }
    void Clear() {
        std::scoped_lock lock(mutex_);
        sent_.clear();
    }

  private:
    std::mutex mutex_;
    std::vector<SentBuffer> sent_;
    std::vector<std::string> registered_;
};

class TestOutput : public MidiOutput {
  public:
    using MidiOutput::MidiOutput;
    ~TestOutput() override { ExitThreads(); }
    void CreateSynthOutput() override {}
    void CreateAudioUnitOutput(const velt_midi::VoiceData&) override {}
    void CreateKeysOutput() override {}
    MidiOutputPorts& GetPorts() override { return ports; }
    RecordingPorts ports;

  protected:
    std::shared_ptr<MidiBuffer> CreateBuffer(unsigned char portCount, unsigned short capacity,
                                             const std::string& name) override {
        return std::make_shared<RecordingMidiBuffer>(portCount, capacity, name);
    }
};

// The host side of a play: a song of numbered periods. Each fill writes the period number as the
// buffer's tick and one note carrying it, and marks the buffer filled; a fill at `lastPeriod`
// marks the buffer last instead.
struct Host {
    std::mutex mutex;
    unsigned int nextPeriod = 0;
    unsigned int lastPeriod = 1'000'000;
    std::vector<bool> firstFlags;
    std::atomic<int> fills{0};
    std::atomic<int> stops{0};
    unsigned int failingPeriod = 1'000'000;  // its fill throws once the tick is set
    std::atomic<bool> failNextStop{false};   // the stopped callback throws after counting
    std::thread::id stoppedThread;
    std::string stoppedThreadName;
    std::condition_variable stoppedCondition;
    std::recursive_mutex clientMutex;

    void Fill(MidiBuffer& buffer) {
        std::scoped_lock lock(mutex);
        ++fills;
        firstFlags.push_back(buffer.GetIsFirstBuffer());
        unsigned int period = nextPeriod++;
        buffer.SetTickIndex(period);
        if (period == failingPeriod) {
            throw std::runtime_error("fill failed");
        }
        if (period >= lastPeriod) {
            buffer.SetIsLastBuffer(true);
            return;
        }
        buffer.AddEventToBuffer(
            0, velt_midi::VoiceEvent(period, 0x90, 0, static_cast<std::uint8_t>(period % 128), 1));
        buffer.SetHasData(true);
    }
    void Stopped() {
        std::scoped_lock lock(mutex);
        stoppedThread = std::this_thread::get_id();
        stoppedThreadName = kit::threadNames.GetNameOfCurrentThread();
        ++stops;
        stoppedCondition.notify_all();
        if (failNextStop.exchange(false)) {
            throw 7;
        }
    }
    bool WaitForStops(int count) {
        std::unique_lock lock(mutex);
        return stoppedCondition.wait_for(lock, std::chrono::seconds(10),
                                         [&] { return stops.load() >= count; });
    }
    void SeekTo(unsigned int period) {
        std::scoped_lock lock(mutex);
        nextPeriod = period;
    }
};

std::unique_ptr<TestOutput> MakeOutput(Host& host, ManualClock& clock, unsigned char ports = 1) {
    auto output = std::make_unique<TestOutput>(
        [&host](MidiBuffer& b) { host.Fill(b); }, [](unsigned int) {}, [&host] { host.Stopped(); },
        [] {}, [](unsigned int) { return false; }, clock, &host.clientMutex);
    output->Initialize(ports);
    return output;
}

void Prime(MidiOutput& output) {
    std::unique_lock lock(output.GetMutex());
    output.PrimeBuffers(lock);
}

using Sent = ManualSendResult;

std::vector<unsigned int> MainTicks(const std::vector<SentBuffer>& sent) {
    std::vector<unsigned int> ticks;
    for (const auto& buffer : sent) {
        if (buffer.name.rfind("Main Buffer", 0) == 0)
            ticks.push_back(buffer.tick);
    }
    return ticks;
}

std::vector<unsigned int> Range(unsigned int from, unsigned int to) {
    std::vector<unsigned int> values;
    for (unsigned int v = from; v < to; ++v)
        values.push_back(v);
    return values;
}

}  // namespace

TEST(MidiOutput, InitializeBuildsTheRingAndThePreparedPanicBuffers) {
    Host host;
    ManualClock clock;
    auto output = MakeOutput(host, clock, 2);
    EXPECT_EQ(output->ports.Registered(),
              (std::vector<std::string>{"Main Buffer 0", "Main Buffer 1", "Main Buffer 2",
                                        "Main Buffer 3", "allNotesOffBuffer", "allCCsOffBuffer",
                                        "oneShotBuffer"}));
    output->AllNotesOff();
    output->AllCCsOff();
    output->AllNotesOff();  // the same prepared content every time
    auto sent = output->ports.Sent();
    ASSERT_EQ(sent.size(), 3u);
    ASSERT_EQ(sent[0].events.size(), 32u);
    EXPECT_EQ(sent[0].events[0], velt_midi::VoiceEvent(0, 0xB0, 0, 123, 0));
    EXPECT_EQ(sent[0].events[1], velt_midi::VoiceEvent(0, 0xB0, 0, 121, 0));
    EXPECT_EQ(sent[0].events[31], velt_midi::VoiceEvent(0, 0xBF, 15, 121, 0));
    EXPECT_EQ(sent[1].events.size(), 16u);
    EXPECT_EQ(sent[2].events, sent[0].events);
}

TEST(MidiOutput, ArmingNeedsPrimingAndPrimingFillsFourBuffersFirstOneFlagged) {
    Host host;
    ManualClock clock;
    auto output = MakeOutput(host, clock);
    EXPECT_FALSE(output->ArmPlayback());
    Prime(*output);
    EXPECT_EQ(host.fills.load(), 4);
    EXPECT_EQ(host.firstFlags, (std::vector<bool>{true, false, false, false}));
    EXPECT_EQ(output->GetFillBufferIndex(), 0);
    EXPECT_EQ(output->GetPlayBufferIndex(), 0);
    EXPECT_TRUE(output->ArmPlayback());
    EXPECT_TRUE(output->ArmPlayback());

    try {
        Prime(*output);
        ADD_FAILURE() << "primed while armed";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "PrimeBuffers() must only be called when playback is stopped.");
    }

    output->DisarmPlayback();
    EXPECT_FALSE(output->ArmPlayback());
    Prime(*output);
    EXPECT_TRUE(output->ArmPlayback());
}

TEST(MidiOutput, PrimingWithALockThatDoesNotHoldTheOutputMutexFails) {
    Host host;
    ManualClock clock;
    auto output = MakeOutput(host, clock);
    std::unique_lock lock(output->GetMutex(), std::defer_lock);
    EXPECT_THROW(output->PrimeBuffers(lock), std::system_error);
}

TEST(MidiOutput, EveryFilledPeriodIsSentExactlyOnceAndInOrder) {
    Host host;
    ManualClock clock;
    auto output = MakeOutput(host, clock);
    Prime(*output);
    ASSERT_TRUE(output->ArmPlayback());
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(SendOnePeriod(*output), Sent::buffer) << "period " << i;
    }
    auto sent = output->ports.Sent();
    EXPECT_EQ(MainTicks(sent), Range(0, 200));
    for (const auto& buffer : sent) {
        ASSERT_EQ(buffer.events.size(), 1u);
        EXPECT_EQ(buffer.events[0].data1, buffer.tick % 128);
    }
    double bpm = 0;
    EXPECT_TRUE(output->GetBpmAtTickIndex(199, &bpm));
    EXPECT_EQ(bpm, 120.0);
    EXPECT_EQ(output->GetTickIndex(), 199u);
}

TEST(MidiOutput, DisarmStopsSendingAndFillingAndRePrimingContinuesFromTheSeek) {
    Host host;
    ManualClock clock;
    auto output = MakeOutput(host, clock);
    std::atomic<int> disarmedNotifications{0};
    notify::callbackDispatcher.AddCallback(notify::names::disarmedPlayback, &disarmedNotifications,
                                           [&](void*) { ++disarmedNotifications; });
    Prime(*output);
    ASSERT_TRUE(output->ArmPlayback());
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(SendOnePeriod(*output), Sent::buffer);

    output->DisarmPlayback();
    EXPECT_EQ(clock.disarms.load(), 1);
    EXPECT_EQ(disarmedNotifications.load(), 1);
    int fillsAtDisarm = host.fills.load();
    // Disarmed: the send step sends nothing, and the parked queue thread fills nothing although
    // the buffers now need data.
    EXPECT_EQ(SendOnePeriod(*output), Sent::nothing);
    output->GetFillBuffer()->SetHasData(false);
    EXPECT_EQ(SendOnePeriod(*output), Sent::nothing);
    EXPECT_EQ(host.fills.load(), fillsAtDisarm);
    EXPECT_EQ(MainTicks(output->ports.Sent()), Range(0, 10));

    host.SeekTo(500);
    output->ports.Clear();
    Prime(*output);
    ASSERT_TRUE(output->ArmPlayback());
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(SendOnePeriod(*output), Sent::buffer);
    EXPECT_EQ(MainTicks(output->ports.Sent()), Range(500, 510));
    notify::callbackDispatcher.RemoveCallbacksForTarget(&disarmedNotifications);
}

TEST(MidiOutput, ALastBufferSilencesDisarmsAndReportsStoppedOnTheAsyncThread) {
    Host host;
    host.lastPeriod = 6;
    ManualClock clock;
    auto output = MakeOutput(host, clock);
    Prime(*output);
    ASSERT_TRUE(output->ArmPlayback());
    Sent result = Sent::buffer;
    int periods = 0;
    while (result == Sent::buffer && periods < 20) {
        result = SendOnePeriod(*output);
        ++periods;
    }
    ASSERT_EQ(result, Sent::stopped);
    ASSERT_TRUE(host.WaitForStops(1));
    auto sent = output->ports.Sent();
    // The last buffer's own content is never sent; the all-notes-off buffer goes out instead.
    EXPECT_EQ(MainTicks(sent), Range(0, 6));
    EXPECT_EQ(sent.back().name, "allNotesOffBuffer");
    EXPECT_FALSE(output->PlaybackIsActive());
    EXPECT_FALSE(output->ArmPlayback());
    EXPECT_NE(host.stoppedThread, std::this_thread::get_id());
    EXPECT_EQ(host.stoppedThreadName, "MidiOutput::AsyncStoppedThread");
}

TEST(MidiOutput, StopSignalsGivenWhileTheStoppedCallbackRunsAreAllDelivered) {
    Host host;
    ManualClock clock;
    auto output = MakeOutput(host, clock);
    for (int i = 0; i < 5; ++i)
        output->SignalAsyncStoppedCallback();
    EXPECT_TRUE(host.WaitForStops(5));
}

TEST(MidiOutput, HostCallbacksThatThrowAreLoggedAndTheirThreadsGoOn) {
    CapturedLog log;
    Host host;
    host.failingPeriod = 5;
    host.failNextStop = true;
    ManualClock clock;
    auto output = MakeOutput(host, clock);
    Prime(*output);
    ASSERT_TRUE(output->ArmPlayback());
    // The failed fill's period goes out as far as it was filled (its tick, no note), and the
    // filler goes on with the next.
    for (int i = 0; i < 12; ++i) {
        ASSERT_EQ(SendOnePeriod(*output), Sent::buffer) << "period " << i;
    }
    const auto sent = output->ports.Sent();
    EXPECT_EQ(MainTicks(sent), Range(0, 12));
    EXPECT_TRUE(sent[5].events.empty());
    EXPECT_EQ(sent[6].events.size(), 1u);

    output->SignalAsyncStoppedCallback();
    ASSERT_TRUE(host.WaitForStops(1));
    output->SignalAsyncStoppedCallback();  // the first stop's failure does not cost this one
    EXPECT_TRUE(host.WaitForStops(2));
    output->ExitThreads();
    EXPECT_EQ(log.Lines(),
              (std::vector<std::string>{"EXCEPTION: fill failed (midi/Sources/midi_queue_thread "
                                        "line 122) in thread midi_queue_run",
                                        "EXCEPTION: Unknown exception. (midi/Sources/midi_output "
                                        "line 624) in thread MidiOutput::AsyncStoppedThread"}));
}

TEST(MidiOutput, InjectedAndSetTrackMessagesLeaveInOneShotPackets) {
    Host host;
    ManualClock clock;
    auto output = MakeOutput(host, clock, 4);
    output->SendAllNotesOff(0x23);
    auto sent = output->ports.Sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].name, "oneShotBuffer");
    ASSERT_EQ(sent[0].events.size(), 1u);
    EXPECT_EQ(sent[0].events[0], velt_midi::VoiceEvent(0, 0xB3, 0x23, 123, 0));
    EXPECT_EQ(sent[0].events[0].port, 2);
    EXPECT_EQ(sent[1].events, (std::vector{velt_midi::VoiceEvent(0, 0xB3, 0x23, 121, 0)}));

    output->ports.Clear();
    output->SetTrackVolume(0x01, 90);
    output->SetTrackPan(0x01, 64);
    output->SetTrackProgramId(0x12, 41);
    sent = output->ports.Sent();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0].events, (std::vector{velt_midi::VoiceEvent(0, 0xB1, 0x01, 7, 90)}));
    EXPECT_EQ(sent[1].events, (std::vector{velt_midi::VoiceEvent(0, 0xB1, 0x01, 10, 64)}));
    EXPECT_EQ(sent[2].events, (std::vector{velt_midi::VoiceEvent(0, 0xC2, 0x12, 41, 0)}));

    output->ports.Clear();
    output->SetAllTracksPan({});
    output->SetAllTracksVolume({{0x31, 100}, {0x02, 80}});
    output->SetAllTracksProgramId({{0x05, 3}, {0x01, 9}});
    sent = output->ports.Sent();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_TRUE(sent[0].events.empty());
    // One packet per map, entries in ascending track key (ports then listed in port order).
    EXPECT_EQ(sent[1].events, (std::vector{velt_midi::VoiceEvent(0, 0xB2, 0x02, 7, 80),
                                           velt_midi::VoiceEvent(0, 0xB1, 0x31, 7, 100)}));
    EXPECT_EQ(sent[2].events, (std::vector{velt_midi::VoiceEvent(0, 0xC1, 0x01, 9, 0),
                                           velt_midi::VoiceEvent(0, 0xC5, 0x05, 3, 0)}));

    try {
        output->SetGlobalReverb(0.5f);
        FAIL() << "SetGlobalReverb must throw";
    } catch (const kit::NotImplementedError& error) {
        EXPECT_STREQ(error.what(), "Global Reverb Not Supported");
    }
}

TEST(MidiOutput, IndicesWrapAndTimeCodeFailuresAreLoggedNotThrown) {
    Host host;
    ManualClock clock;
    auto output = MakeOutput(host, clock);
    for (int i = 0; i < 3; ++i)
        output->IncrementFillBufferIndex();
    EXPECT_EQ(output->GetFillBufferIndex(), 3);
    output->IncrementFillBufferIndex();
    EXPECT_EQ(output->GetFillBufferIndex(), 0);

    CapturedLog log;
    output->SetTimeCodeCallback([](double, double, double) { throw std::runtime_error("bad tc"); });
    EXPECT_NO_THROW(output->DoTimeCodeCallback(1, 2, 3));
    const auto lines = log.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("bad tc (midi/Sources/midi_output line 644)"), std::string::npos);
}

TEST(MidiOutput, ManyShortRunsShutDownCleanlyWhateverStateTheThreadsAreIn) {
    for (int run = 0; run < 60; ++run) {
        Host host;
        host.lastPeriod = (run % 3 == 0) ? 3 + run % 5 : 1'000'000;
        ManualClock clock;
        auto output = MakeOutput(host, clock);
        Prime(*output);
        ASSERT_TRUE(output->ArmPlayback());
        int periods = run % 7;
        for (int i = 0; i < periods; ++i) {
            if (SendOnePeriod(*output) != Sent::buffer)
                break;
        }
        if (run % 2 == 0)
            output->DisarmPlayback();
        if (run % 5 == 0)
            output->PrepareForExit();
        output->ExitThreads();  // queue thread parked, waiting for data or filling
        output->ExitThreads();  // a second call does nothing
        auto ticks = MainTicks(output->ports.Sent());
        EXPECT_EQ(ticks, Range(0, static_cast<unsigned int>(ticks.size())));
    }
}
