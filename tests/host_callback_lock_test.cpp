// Host callbacks that take the host's lock and call back into the engine, around the real send
// step of the platform output (MidiOutputWin32::ProcessMidiClock) playing into a virtual device.
// The host's lock is the client mutex the send step holds for a whole period: a callback that
// runs while the output still holds one of its own locks, and then waits for that client mutex
// (or for a thread that needs the output), deadlocks against the next send step. Each test runs
// under a watchdog that ends the program with a message instead of letting CI hang.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/notify.h"
#include "midi/midi_buffer.h"
#include "midi/win32/midi_output_win32.h"
#include "tests/manual_send_step.h"
#include "tests/support/device_packets.h"
#include "tests/support/virtual_devices.h"
#include "tests/support/watchdog.h"

namespace {

using namespace std::chrono_literals;
using playback::AllNotesOffMessages;
using playback::Message;
using playback::Packets;

constexpr unsigned int ticksPerPeriod = 10;
constexpr std::uint8_t lastBufferKey = 127;

// The note and program change that period `period` carries.
std::vector<Message> PeriodMessages(unsigned int period) {
    return {{0x90, static_cast<std::uint8_t>(20 + period % 100), 100},
            {0xC0, static_cast<std::uint8_t>(period % 128)}};
}

// A host of a song of `periods` numbered periods, each a downbeat with one note and one program
// change; the buffer after the last carries a note of its own and is marked last.
//
// Threads: the test's thread (Play, Stop, Step), the clock thread while RunClock lives (the send
// step), the queue thread (Fill), the async-stopped thread (onStopped), the display thread
// (onDownbeat). Locks: the client mutex (Play, Stop and every callback that calls the engine,
// as a host's transport would), then the output's locks; fillMutex_ only around the period
// counter.
class LockingHost {
  public:
    // Set before the first play; read by the engine's threads afterwards.
    std::function<void()> onStopped;
    std::function<void(unsigned int)> onDownbeat;
    std::recursive_mutex clientMutex;
    ManualClock clock;

    explicit LockingHost(unsigned int periods) : periods_(periods) {
        output_ = std::make_unique<MidiOutputWin32>(
            1, [this](MidiBuffer& buffer) { Fill_(buffer); },
            [this](unsigned int tick) {
                if (onDownbeat)
                    onDownbeat(tick);
            },
            [this] { Stopped_(); }, [] {}, [](unsigned int) { return false; }, clock, &clientMutex);
        output_->Initialize(1);
        output_->CreateSynthOutput();
    }
    ~LockingHost() {
        StopClockThread();
        output_->PrepareForExit();
        output_.reset();
    }
    LockingHost(const LockingHost&) = delete;
    LockingHost& operator=(const LockingHost&) = delete;

    MidiOutputWin32& Output() { return *output_; }

    // From the start: disarms a play still running, primes and arms.
    void Play() {
        std::scoped_lock client(clientMutex);
        if (output_->PlaybackIsActive()) {
            output_->DisarmPlayback();
        }
        {
            std::scoped_lock lock(fillMutex_);
            next_ = 0;
        }
        output_->Seek(0);
        {
            std::unique_lock lock(output_->GetMutex());
            output_->PrimeBuffers(lock);
        }
        if (!output_->ArmPlayback()) {
            ADD_FAILURE() << "the output refused to arm after priming";
        }
        ++plays_;
    }
    // As a host's stop: nothing more is sent, and the stop is reported like any other.
    void Stop() {
        std::scoped_lock client(clientMutex);
        output_->DisarmPlayback();
        output_->SignalAsyncStoppedCallback();
    }
    // One clock period's send step on the calling thread.
    void Step() { output_->ProcessMidiClock(120.0); }
    // Steps until the play ends by itself (at most `limit` periods); true when it did.
    bool StepToTheEnd(int limit) {
        for (int i = 0; i < limit && output_->PlaybackIsActive(); ++i) {
            Step();
        }
        return !output_->PlaybackIsActive();
    }
    void StartClockThread() {
        clockRuns_ = true;
        clockThread_ = std::thread([this] {
            while (clockRuns_) {
                Step();
                std::this_thread::yield();
            }
        });
    }
    void StopClockThread() {
        clockRuns_ = false;
        if (clockThread_.joinable())
            clockThread_.join();
    }

    int Stops() {
        std::scoped_lock lock(stopMutex_);
        return stops_;
    }
    bool WaitForStops(int count) {
        std::unique_lock lock(stopMutex_);
        return stopped_.wait_for(lock, 30s, [&] { return stops_ >= count; });
    }
    int Plays() const { return plays_; }

  private:
    void Fill_(MidiBuffer& buffer) {
        std::scoped_lock lock(fillMutex_);
        const unsigned int period = next_++;
        const unsigned int tick = period * ticksPerPeriod;
        buffer.SetTickIndex(tick);
        buffer.SetClockNumber(0);
        if (period >= periods_) {
            buffer.AddEventToBuffer(0, velt_midi::VoiceEvent(tick, 0x90, 0, lastBufferKey, 1));
            buffer.DoneAddingEventsToBuffer();
            buffer.SetIsLastBuffer(true);
            return;
        }
        for (const Message& m : PeriodMessages(period)) {
            buffer.AddEventToBuffer(
                0, velt_midi::VoiceEvent(tick, m[0], 0, m[1], m.size() > 2 ? m[2] : 0));
        }
        buffer.DoneAddingEventsToBuffer();
        buffer.SetHasData(true);
    }
    void Stopped_() {
        if (onStopped)
            onStopped();
        std::scoped_lock lock(stopMutex_);
        ++stops_;
        stopped_.notify_all();
    }

    const unsigned int periods_;
    std::mutex fillMutex_;
    unsigned int next_ = 0;
    std::atomic<int> plays_{0};
    std::atomic<bool> clockRuns_{false};
    std::thread clockThread_;
    std::mutex stopMutex_;
    std::condition_variable stopped_;
    int stops_ = 0;
    std::unique_ptr<MidiOutputWin32> output_;  // destroyed first
};

std::vector<std::vector<Message>> ExpectedPackets(unsigned int periods) {
    std::vector<std::vector<Message>> packets;
    for (unsigned int period = 0; period < periods; ++period) {
        packets.push_back(PeriodMessages(period));
    }
    packets.push_back(AllNotesOffMessages());
    return packets;
}

// After a storm of stops and plays: a straight play from the start, stepped by hand, still sends
// every period once and in order and ends in silence. The callbacks must have been told, under
// the host's lock, to play no more.
// (A template so that a build without virtual devices, where only the skipped tests call it,
// never needs them.)
template <class Recorder>
void ExpectAStraightPlayAfterwards(LockingHost& host, Recorder& device, unsigned int periods) {
    host.StopClockThread();
    host.Stop();
    device.ClearMessages();
    host.Play();
    ASSERT_TRUE(host.StepToTheEnd(static_cast<int>(periods) + 8));
    EXPECT_EQ(Packets(device), ExpectedPackets(periods));
}

}  // namespace

VIRTUAL_DEVICE_TEST(HostCallbackLocks, ASongEndSendsOnlyThePanicDisarmsAndReportsStoppedOnce) {
    Watchdog watchdog("the song-end test", 60s);
    velt_platform::VirtualMidiOutput device("Lock Test Out");
    constexpr unsigned int periods = 6;
    LockingHost host(periods);
    host.Play();
    ASSERT_TRUE(host.StepToTheEnd(periods + 8));
    ASSERT_TRUE(host.WaitForStops(1));
    EXPECT_GE(host.clock.disarms.load(), 1);

    // Every period once, in order, then the panic; nothing of the last buffer's own events.
    EXPECT_EQ(Packets(device), ExpectedPackets(periods));
    for (const auto& message : device.Messages()) {
        EXPECT_FALSE(message.bytes.size() == 3 && message.bytes[1] == lastBufferKey);
    }
    // More clock periods after the end send nothing and report nothing. A stop signalled now is
    // delivered after any the end still owed, so the count then shows the end reported once.
    const auto received = device.Messages().size();
    for (int i = 0; i < 5; ++i)
        host.Step();
    host.Output().SignalAsyncStoppedCallback();
    ASSERT_TRUE(host.WaitForStops(2));
    EXPECT_EQ(host.Stops(), 2);
    EXPECT_EQ(device.Messages().size(), received);
}

// The stopped callback takes the host's lock and plays again, while the clock thread keeps
// running send steps (each holding that lock) and the host stops at random points, so that its
// stop and the song's own end often fall together.
VIRTUAL_DEVICE_TEST(HostCallbackLocks, AStoppedCallbackThatPlaysAgainSurvivesStopsCloseTogether) {
    Watchdog watchdog("stops close together with a replaying stopped callback", 120s);
    velt_platform::VirtualMidiOutput device("Lock Test Out");
    constexpr unsigned int periods = 3;
    LockingHost host(periods);
    std::atomic<bool> replay{true};
    host.onStopped = [&] {
        std::scoped_lock client(host.clientMutex);
        if (replay)
            host.Play();
    };
    host.StartClockThread();
    host.Play();
    std::mt19937 random(19);
    constexpr int hostStops = 150;
    for (int i = 0; i < hostStops; ++i) {
        for (int spin = static_cast<int>(random() % 200); spin > 0; --spin)
            std::this_thread::yield();
        host.Stop();
    }
    // Every host stop was reported (song ends add more).
    ASSERT_TRUE(host.WaitForStops(hostStops));
    {
        std::scoped_lock client(host.clientMutex);
        replay = false;
    }
    EXPECT_GT(host.Plays(), hostStops);
    ExpectAStraightPlayAfterwards(host, device, periods);
}

// The program-change notification is handed to the host's own thread, which reads the engine's
// state and answers; the send step waits for the answer. It must run with none of the output's
// locks held, or the host's thread can never read.
VIRTUAL_DEVICE_TEST(HostCallbackLocks, AProgramChangeCallbackMayWaitForAThreadThatReadsTheOutput) {
    Watchdog watchdog("the program-change hand-off", 60s);
    velt_platform::VirtualMidiOutput device("Lock Test Out");
    constexpr unsigned int periods = 12;
    LockingHost host(periods);

    std::mutex handOffMutex;
    std::condition_variable handOff;
    std::vector<std::pair<unsigned char, std::promise<int>>> requests;
    std::vector<unsigned char> programsSeen;
    bool hostThreadRuns = true;
    std::thread hostThread([&] {
        std::unique_lock lock(handOffMutex);
        while (hostThreadRuns || !requests.empty()) {
            handOff.wait(lock, [&] { return !hostThreadRuns || !requests.empty(); });
            while (!requests.empty()) {
                auto [program, answer] = std::move(requests.front());
                requests.erase(requests.begin());
                lock.unlock();
                answer.set_value(host.Output().GetPlayBufferIndex());
                lock.lock();
                programsSeen.push_back(program);
            }
        }
    });
    int target = 0;
    notify::callbackDispatcher.AddCallback(
        notify::names::currentProgramIds, &target, [&](void* payload) {
            const auto& programs = *static_cast<MidiBuffer::ProgramChangeMap*>(payload);
            std::promise<int> answer;
            auto answered = answer.get_future();
            {
                std::scoped_lock lock(handOffMutex);
                requests.emplace_back(programs.at(0), std::move(answer));
            }
            handOff.notify_all();
            answered.wait();
        });

    host.Play();
    EXPECT_TRUE(host.StepToTheEnd(periods + 8));
    notify::callbackDispatcher.RemoveCallbacksForTarget(&target);
    {
        std::scoped_lock lock(handOffMutex);
        hostThreadRuns = false;
    }
    handOff.notify_all();
    hostThread.join();

    std::vector<unsigned char> expected;
    for (unsigned int period = 0; period < periods; ++period)
        expected.push_back(static_cast<unsigned char>(period % 128));
    EXPECT_EQ(programsSeen, expected);
    EXPECT_EQ(Packets(device), ExpectedPackets(periods));
}

// The downbeat callback (display thread) takes the host's lock, stops and plays again from the
// start; the stop resets the display's own queue, which must not be locked while it calls back.
VIRTUAL_DEVICE_TEST(HostCallbackLocks, ADownbeatCallbackMayStopAndPlayAgain) {
    Watchdog watchdog("a downbeat callback that stops and plays again", 120s);
    velt_platform::VirtualMidiOutput device("Lock Test Out");
    constexpr unsigned int periods = 40;
    LockingHost host(periods);
    for (int i = 0; i < 30; ++i)
        host.Output().DecreaseGuiDelay();  // no display delay: downbeats follow at once
    std::mutex replayMutex;
    std::condition_variable replayed;
    int replays = 0;
    bool replay = true;  // guarded by the client mutex
    host.onDownbeat = [&](unsigned int tick) {
        if (tick < 2 * ticksPerPeriod)
            return;
        {
            std::scoped_lock client(host.clientMutex);
            if (!replay)
                return;
            host.Stop();
            host.Play();
        }
        std::scoped_lock lock(replayMutex);
        ++replays;
        replayed.notify_all();
    };
    host.StartClockThread();
    host.Play();
    {
        // The clock thread may run the song to its end before the display thread has handed over
        // a downbeat past the second period (a loaded machine); the end drops the downbeats still
        // queued, so the song is played again from here until the callbacks have replayed it.
        std::unique_lock lock(replayMutex);
        const auto deadline = std::chrono::steady_clock::now() + 60s;
        while (!replayed.wait_for(lock, 100ms, [&] { return replays >= 20; })) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline);
            lock.unlock();
            if (!host.Output().PlaybackIsActive())
                host.Play();
            lock.lock();
        }
    }
    {
        std::scoped_lock client(host.clientMutex);
        replay = false;
    }
    ExpectAStraightPlayAfterwards(host, device, periods);
}
