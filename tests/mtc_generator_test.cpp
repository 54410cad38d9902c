// The time-code generator on a virtual output device, heard by a receiver written from the MIDI
// Time Code rules alone (tests/support/mtc_receiver.h).
//
// The generator runs on a test clock whose wait moves the clock to the deadline, so stretches
// run at once and the time of every message on that clock can be read: no wall-clock timing is
// asserted.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "midi/win32/midi_time_code_thread_win32.h"
#include "platform/virtual_midi.h"
#include "tests/support/mtc_receiver.h"

namespace {

using namespace mtc_receiver;
using velt_platform::VirtualMidiOutput;
using namespace std::chrono_literals;

// ---- the test clock ----

// Nanoseconds that move only when the generator waits (to its deadline) or the test sets them.
// Hold() makes the next waits block until Release(), to catch a stretch mid-way.
class TestClock {
  public:
    MidiTimeCodeThreadWin32::Timing Timing() {
        return {[this] { return now_.load(); },
                [this](std::int64_t deadline) {
                    std::unique_lock lock(mutex_);
                    ++waiting_;
                    changed_.notify_all();
                    changed_.wait(lock, [this] { return !held_; });
                    --waiting_;
                    deadlines_.push_back(deadline);
                    if (deadline > now_) {
                        now_ = deadline;
                    }
                },
                std::chrono::hours(1)};
    }
    void Set(std::int64_t ns) { now_ = ns; }
    // Every deadline the generator's timer waited for, in order.
    std::vector<std::int64_t> Deadlines() {
        std::lock_guard lock(mutex_);
        return deadlines_;
    }
    std::int64_t Now() const { return now_; }
    void Hold() {
        std::lock_guard lock(mutex_);
        held_ = true;
    }
    // Waits until the generator is blocked in a held wait.
    bool WaitForHeldWaiter() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 5s, [this] { return waiting_ > 0; });
    }
    void Release() {
        {
            std::lock_guard lock(mutex_);
            held_ = false;
        }
        changed_.notify_all();
    }

  private:
    std::atomic<std::int64_t> now_{1'000'000'000};
    std::mutex mutex_;
    std::condition_variable changed_;
    bool held_ = false;
    int waiting_ = 0;
    std::vector<std::int64_t> deadlines_;
};

double SecondsPerFrame(FrameRate rate) {
    return rate == FrameRate::Fps24         ? 1.0 / 24
           : rate == FrameRate::Fps25       ? 0.04
           : rate == FrameRate::Fps2997Drop ? 1 / 29.97
                                            : 1.0 / 30;
}

// The seconds of a label as this system counts them: at drop-frame the hours are real
// seconds and the rest is frames of 1/29.97 s.
double SecondsOf(const Label& l) {
    Label inHour = l;
    inHour.hours = 0;
    const double spf = SecondsPerFrame(static_cast<FrameRate>(l.rate));
    return l.hours * 3600.0 + static_cast<double>(FrameNumber(inHour)) * spf;
}

struct Fixture {
    TestClock clock;
    VirtualMidiOutput port{"MTC Receiver"};
    MidiTimeCodeThreadWin32 generator{clock.Timing()};

    explicit Fixture(FrameRate rate) {
        generator.SetOutputPortIndex(*port.DeviceId());
        generator.SetFrameRate(rate);
    }
    // Stretches of `period` seconds of time code from `start` for `quarters` quarter frames,
    // each called at its own moment on the test clock and sent out before the next.
    void Play(double start, std::int64_t quarters, double period, FrameRate rate) {
        const double end = start + static_cast<double>(quarters) * SecondsPerFrame(rate) / 4;
        for (double from = start; from < end - 1e-12; from += period) {
            const double to = std::min(from + period, end);
            clock.Set(1'000'000'000 + std::llround(from * 1e9));
            generator.SetMidiTimeCodeInterval(from, to, to - from);
            ASSERT_TRUE(generator.WaitUntilStretchSent(5s));
        }
    }
    Receiver Hear() {
        Receiver receiver;
        for (const auto& message : port.Messages()) {
            receiver.Hear(message.bytes);
        }
        return receiver;
    }
};

TEST(MtcGenerator, ContinuousAcrossSecondMinuteDropMinuteTenMinutesAndHourWrap) {
    struct Case {
        const char* what;
        Label start;  // a cycle's first frame, a little before the boundary
    };
    const Case cases[] = {
        {"second at 25 fps", {0, 0, 0, 20, 1}},
        {"minute at 24 fps", {0, 0, 59, 18, 0}},
        {"drop minute", {0, 0, 59, 20, 2}},
        {"ten minutes at drop-frame", {0, 9, 59, 20, 2}},
        {"hour at drop-frame", {0, 59, 59, 20, 2}},
        {"day at 30 fps", {23, 59, 59, 20, 3}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto rate = static_cast<FrameRate>(c.start.rate);
        Fixture f(rate);
        const std::int64_t quarters = 8 * 24;  // 48 frames: well past the boundary
        // A clock period at 120 beats a minute, not a whole number of quarter frames.
        f.Play(SecondsOf(c.start), quarters, 0.5 / 24, rate);
        const Receiver r = f.Hear();
        for (const auto& fault : r.faults) {
            ADD_FAILURE() << fault;
        }
        ASSERT_EQ(r.fullFrames.size(), 1u);
        EXPECT_EQ(r.fullFrames.front(), c.start) << Text(r.fullFrames.front());
        EXPECT_EQ(r.quarterFrames, quarters);
        ASSERT_EQ(r.cycles.size(), static_cast<std::size_t>(quarters / 8));
        EXPECT_EQ(r.cycles.back(), LabelOf(FrameNumber(c.start) + quarters / 4 - 2, c.start.rate))
            << Text(r.cycles.back());
    }
}

TEST(MtcGenerator, ContiguousStretchesGiveOneEvenStreamOfQuarterFrames) {
    Fixture f(FrameRate::Fps25);
    // Stretches of 12 quarter frames (0.12 s) played over 0.15 s each: the messages must be
    // 12.5 ms apart everywhere, the seams between stretches included.
    // The first message of a stretch goes out at its call, every other one at a deadline of the
    // timer.
    const double quarter = 0.01;
    double start = 10.0;
    std::vector<std::int64_t> times;
    for (int stretch = 0; stretch < 5; ++stretch) {
        times.push_back(std::llround(stretch * 0.15 * 1e9) + 5'000'000'000);
        f.clock.Set(times.back());
        f.generator.SetMidiTimeCodeInterval(start, start + 12 * quarter, 0.15);
        ASSERT_TRUE(f.generator.WaitUntilStretchSent(5s));
        start += 12 * quarter;
    }
    const auto deadlines = f.clock.Deadlines();
    times.insert(times.end(), deadlines.begin(), deadlines.end());
    std::sort(times.begin(), times.end());
    ASSERT_EQ(f.port.Messages().size(), 61u);  // and the full frame
    ASSERT_EQ(times.size(), 60u);
    for (std::size_t i = 1; i < times.size(); ++i) {
        EXPECT_NEAR(static_cast<double>(times[i] - times[i - 1]), 12.5e6, 2.0) << "message " << i;
    }
}

TEST(MtcGenerator, JumpsSendAFullFrameFirstAndStillStartsDoNot) {
    Fixture f(FrameRate::Fps30);
    const double q = 1.0 / 120;
    f.generator.SetMidiTimeCodeInterval(1.0, 1.0 + 16 * q, 0.2);  // first stretch: located
    ASSERT_TRUE(f.generator.WaitUntilStretchSent(5s));
    f.generator.SetMidiTimeCodeInterval(1.0 + 16 * q, 1.0 + 24 * q, 0.1);  // goes on: no full frame
    ASSERT_TRUE(f.generator.WaitUntilStretchSent(5s));
    f.generator.SetMidiTimeCodeInterval(65.0, 65.0 + 8 * q, 0.1);  // jump forward
    ASSERT_TRUE(f.generator.WaitUntilStretchSent(5s));
    f.generator.SetMidiTimeCodeInterval(2.0, 2.0, 0.1);  // jump back, nothing to cover
    ASSERT_TRUE(f.generator.WaitUntilStretchSent(5s));

    const auto messages = f.port.Messages();
    ASSERT_EQ(messages.size(), 1u + 24 + 1 + 8 + 1);
    EXPECT_EQ(messages[0].bytes.size(), 10u);
    EXPECT_EQ(messages[25].bytes, (std::vector<std::uint8_t>{0xF0, 0x7F, 0x7F, 0x01, 0x01, 0x60,
                                                             0x01, 0x05, 0x00, 0xF7}));
    EXPECT_EQ(messages[26].bytes, (std::vector<std::uint8_t>{0xF1, 0x00}));  // piece 0 again
    EXPECT_EQ(messages.back().bytes.size(), 10u);
    const Receiver r = f.Hear();
    EXPECT_TRUE(r.faults.empty()) << r.faults.front();
    EXPECT_EQ(r.cycles.back(), (Label{0, 1, 5, 0, 3}));

    // Changing the rate forgets the position: the next stretch starts with a full frame.
    f.generator.SetFrameRate(FrameRate::Fps24);
    f.port.ClearMessages();
    f.generator.SetMidiTimeCodeInterval(0.0, 0.0, 0.1);
    ASSERT_TRUE(f.generator.WaitUntilStretchSent(5s));
    ASSERT_EQ(f.port.Messages().size(), 1u);
    EXPECT_EQ(f.port.Messages()[0].bytes[5], 0x00);
}

TEST(MtcGenerator, AStretchCutShortIsCaughtUpAtTheNextStart) {
    Fixture f(FrameRate::Fps25);
    const double q = 0.01;
    f.clock.Hold();
    f.generator.SetMidiTimeCodeInterval(3.0, 3.0 + 8 * q, 0.08);
    ASSERT_TRUE(f.clock.WaitForHeldWaiter());  // the timer waits for its second message
    // The next period arrives before the timer could send the rest of the first.
    f.generator.SetMidiTimeCodeInterval(3.0 + 8 * q, 3.0 + 16 * q, 0.08);
    f.clock.Release();
    ASSERT_TRUE(f.generator.WaitUntilStretchSent(5s));
    const Receiver r = f.Hear();
    EXPECT_TRUE(r.faults.empty()) << r.faults.front();
    EXPECT_EQ(r.fullFrames.size(), 1u);
    EXPECT_EQ(r.quarterFrames, 16);
    EXPECT_EQ(r.cycles.back(), (Label{0, 0, 3, 2, 1}));
}

TEST(MtcGenerator, PortIsReopenedWhenItsIndexChanges) {
    TestClock clock;
    VirtualMidiOutput first("MTC A");
    VirtualMidiOutput second("MTC B");
    MidiTimeCodeThreadWin32 generator(clock.Timing());
    generator.SetOutputPortIndex(*first.DeviceId());
    generator.SendMidiTimeCodeWithSeconds(1.0);
    generator.SetOutputPortIndex(*first.DeviceId());  // the same port stays open
    EXPECT_TRUE(first.IsOpen());
    generator.SetOutputPortIndex(*second.DeviceId());
    EXPECT_FALSE(first.IsOpen());
    EXPECT_TRUE(second.IsOpen());
    generator.SendMidiTimeCodeWithSeconds(2.0);
    EXPECT_EQ(first.Messages().size(), 1u);
    ASSERT_EQ(second.Messages().size(), 1u);
    EXPECT_EQ(second.Messages()[0].bytes[7], 2);  // seconds

    first.FailOpen(MMSYSERR_ALLOCATED);
    EXPECT_THROW(generator.SetOutputPortIndex(*first.DeviceId()), MidiPortError);
    EXPECT_FALSE(generator.GetOutputPortIndex().has_value());
    generator.SendMidiTimeCodeWithSeconds(3.0);  // no port: dropped, no failure
    EXPECT_EQ(second.Messages().size(), 1u);
}

}  // namespace
