// The time-code generator on a virtual output device, heard by a receiver written here from the
// MIDI Time Code rules alone (it shares no code with the encoder): a full frame sets the
// position; eight quarter frames, piece 0 to 7, carry frames, seconds, minutes and hours low
// nibble first, and one cycle of eight spans two frames.
//
// The generator runs on a test clock whose wait moves the clock to the deadline, so stretches
// run at once and the time of every message on that clock can be read: no wall-clock timing is
// asserted.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "midi/win32/midi_time_code_thread_win32.h"
#include "platform/virtual_midi.h"

namespace {

using velt_platform::VirtualMidiOutput;
using namespace std::chrono_literals;

// ---- the receiver ----

struct Label {
    int hours = 0, minutes = 0, seconds = 0, frames = 0, rate = 0;
    bool operator==(const Label&) const = default;
};

std::string Text(const Label& l) {
    char text[32];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d%c%02d/r%d", l.hours, l.minutes, l.seconds,
                  l.rate == 2 ? ';' : ':', l.frames, l.rate);
    return text;
}

int FramesPerSecond(int rate) {
    return rate == 0 ? 24 : rate == 1 ? 25 : 30;
}

// Frame number since midnight. Drop-frame: every minute not divisible by ten lacks labels 0
// and 1, i.e. two labels per minute minus those of the tens.
std::int64_t FrameNumber(const Label& l) {
    const std::int64_t totalMinutes = 60 * l.hours + l.minutes;
    const std::int64_t labels =
        (totalMinutes * 60 + l.seconds) * FramesPerSecond(l.rate) + l.frames;
    return l.rate == 2 ? labels - 2 * (totalMinutes - totalMinutes / 10) : labels;
}

// The label of frame number n, by the usual drop-frame arithmetic (17982 frames per ten minutes,
// 1798 per dropped minute).
Label LabelOf(std::int64_t n, int rate) {
    const int fps = FramesPerSecond(rate);
    if (rate == 2) {
        const std::int64_t perDay = 24 * 6 * 17982;
        n = ((n % perDay) + perDay) % perDay;
        const std::int64_t tens = n / 17982;
        const std::int64_t rest = n % 17982;
        n += 18 * tens + (rest > 1 ? 2 * ((rest - 2) / 1798) : 0);
    }
    n %= std::int64_t{24} * 3600 * fps;
    Label l;
    l.rate = rate;
    l.frames = static_cast<int>(n % fps);
    l.seconds = static_cast<int>(n / fps % 60);
    l.minutes = static_cast<int>(n / fps / 60 % 60);
    l.hours = static_cast<int>(n / fps / 3600);
    return l;
}

// Listens to the recorded bytes and checks every rule as it goes.
struct Receiver {
    std::vector<std::string> faults;
    std::vector<Label> fullFrames;
    std::vector<Label> cycles;  // the time of each completed eight-piece cycle
    std::int64_t quarterFrames = 0;
    int expectedPiece = -1;  // -1: no full frame yet
    Label partial;

    void Hear(const std::vector<std::uint8_t>& bytes) {
        if (bytes.size() == 10 && bytes[0] == 0xF0) {
            const std::vector<std::uint8_t> head{0xF0, 0x7F, 0x7F, 0x01, 0x01};
            if (!std::equal(head.begin(), head.end(), bytes.begin()) || bytes[9] != 0xF7) {
                faults.push_back("malformed full frame");
            }
            fullFrames.push_back(
                Label{bytes[5] & 0x1F, bytes[6], bytes[7], bytes[8], (bytes[5] >> 5) & 3});
            expectedPiece = 0;  // a stream restarts with piece 0 after a full frame
            return;
        }
        if (bytes.size() != 2 || bytes[0] != 0xF1) {
            faults.push_back("unexpected message");
            return;
        }
        ++quarterFrames;
        const int piece = bytes[1] >> 4;
        const int nibble = bytes[1] & 0x0F;
        if (expectedPiece < 0) {
            faults.push_back("quarter frame before any full frame");
        } else if (piece != expectedPiece) {
            faults.push_back("piece " + std::to_string(piece) + " where " +
                             std::to_string(expectedPiece) + " was due");
        }
        expectedPiece = (piece + 1) % 8;
        int* fields[] = {&partial.frames, &partial.seconds, &partial.minutes, &partial.hours};
        if (piece < 7) {
            int& field = *fields[piece / 2];
            field = piece % 2 == 0 ? (field & 0xF0) | nibble : (field & 0x0F) | (nibble << 4);
        } else {
            partial.hours = (partial.hours & 0x0F) | ((nibble & 1) << 4);
            partial.rate = (nibble >> 1) & 3;
            Check(partial);
        }
    }

    // A cycle right after a full frame carries the full frame's time; any other carries the
    // previous cycle's time plus two frames.
    void Check(const Label& time) {
        if (fullFrames.size() != fullFramesAtLastCycle) {
            if (!(time == fullFrames.back())) {
                faults.push_back("first cycle " + Text(time) + " after full frame " +
                                 Text(fullFrames.back()));
            }
        } else if (!cycles.empty()) {
            const Label expected = LabelOf(FrameNumber(cycles.back()) + 2, time.rate);
            if (!(time == expected)) {
                faults.push_back("cycle " + Text(time) + " after " + Text(cycles.back()) +
                                 " (expected " + Text(expected) + ")");
            }
        }
        cycles.push_back(time);
        fullFramesAtLastCycle = fullFrames.size();
    }
    std::size_t fullFramesAtLastCycle = 0;
};

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
                    if (deadline > now_) {
                        now_ = deadline;
                    }
                },
                std::chrono::hours(1)};
    }
    void Set(std::int64_t ns) { now_ = ns; }
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
};

// The generator, noting the test clock's time of every quarter frame it writes.
class TimedGenerator : public MidiTimeCodeThreadWin32 {
  public:
    explicit TimedGenerator(TestClock& clock)
        : MidiTimeCodeThreadWin32(clock.Timing()), clock_(clock) {}
    ~TimedGenerator() override = default;
    std::vector<std::int64_t> SendTimes() {
        std::lock_guard lock(GetMutex_());
        return sendTimes_;
    }

  protected:
    void SendQuarterFrameMessages(const std::vector<QuarterFrameMessage>& messages) override {
        sendTimes_.insert(sendTimes_.end(), messages.size(), clock_.Now());
        MidiTimeCodeThreadWin32::SendQuarterFrameMessages(messages);
    }

  private:
    TestClock& clock_;
    std::vector<std::int64_t> sendTimes_;  // under the base's mutex
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
    TimedGenerator generator{clock};

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
    const double quarter = 0.01;
    double start = 10.0;
    for (int stretch = 0; stretch < 5; ++stretch) {
        f.clock.Set(std::llround(stretch * 0.15 * 1e9) + 5'000'000'000);
        f.generator.SetMidiTimeCodeInterval(start, start + 12 * quarter, 0.15);
        ASSERT_TRUE(f.generator.WaitUntilStretchSent(5s));
        start += 12 * quarter;
    }
    const auto times = f.generator.SendTimes();
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
