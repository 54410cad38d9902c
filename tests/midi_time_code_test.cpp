// Time-code labels, counts, seconds, arithmetic and the two MTC message layouts, checked against
// values published for SMPTE/MTC (not derived from this code) and against each other.
#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "midi/midi_time_code.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr FrameRate kAllRates[] = {FrameRate::Fps24, FrameRate::Fps25, FrameRate::Fps2997Drop,
                                   FrameRate::Fps30};

Bytes QuarterBytes(const QuarterFrameMessage& m) {
    return {m.Get()[0], m.Get()[1]};
}

Bytes FullBytes(const FullFrameMessage& m) {
    return Bytes(m.Get(), m.Get() + FullFrameMessage::kSize);
}

template <typename Error>
std::string ThrownText(auto&& action) {
    try {
        action();
    } catch (const Error& error) {
        return error.what();
    }
    return "(nothing thrown)";
}

TEST(MidiTimeCodeMessages, QuarterFramesOfAKnownTimeAndTheNextCycle) {
    MidiTimeCode time(2, 3, 4, 6, FrameRate::Fps24);
    const std::vector<Bytes> expected{{0xF1, 0x06}, {0xF1, 0x10}, {0xF1, 0x24}, {0xF1, 0x30},
                                      {0xF1, 0x43}, {0xF1, 0x50}, {0xF1, 0x62}, {0xF1, 0x70}};
    for (unsigned char piece = 0; piece < 8; ++piece) {
        EXPECT_EQ(QuarterBytes(time.GetQuarterFrameMessage(piece)), expected[piece])
            << "piece " << int{piece};
    }
    // A cycle of eight pieces spans two frames: the next one describes frame 08.
    for (int quarter = 0; quarter < 8; ++quarter) {
        time.IncrementQuarterFrame();
    }
    EXPECT_EQ(time.GetAsString(), "02:03:04:08");
    EXPECT_EQ(QuarterBytes(time.GetQuarterFrameMessage(0)), (Bytes{0xF1, 0x08}));

    const MidiTimeCode ten(10, 0, 0, 0, FrameRate::Fps30);
    EXPECT_EQ(ten.GetQuarterFrameMessage(7).GetDataByte(), 0x76);
    EXPECT_EQ(ten.GetQuarterFrameMessage(6).GetDataByte(), 0x6A);
    // Hour 17 sets the fifth hour bit in piece 7; 29.97 drop is rate code 2.
    EXPECT_EQ(
        MidiTimeCode(17, 0, 0, 0, FrameRate::Fps2997Drop).GetQuarterFrameMessage(7).GetDataByte(),
        0x75);
    EXPECT_EQ(ThrownText<QuarterFrameIndexError>([&] { ten.GetQuarterFrameMessage(8); }),
              "Index not supported by QuarterFrame.");
}

TEST(MidiTimeCodeMessages, FullFrameLayout) {
    struct Case {
        MidiTimeCode time;
        Bytes bytes;
    };
    const Case cases[] = {
        {MidiTimeCode(1, 2, 3, 4, FrameRate::Fps2997Drop),
         {0xF0, 0x7F, 0x7F, 0x01, 0x01, 0x41, 0x02, 0x03, 0x04, 0xF7}},
        {MidiTimeCode(10, 20, 30, 15, FrameRate::Fps25),
         {0xF0, 0x7F, 0x7F, 0x01, 0x01, 0x2A, 0x14, 0x1E, 0x0F, 0xF7}},
        {MidiTimeCode(23, 59, 59, 29, FrameRate::Fps30),
         {0xF0, 0x7F, 0x7F, 0x01, 0x01, 0x77, 0x3B, 0x3B, 0x1D, 0xF7}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.time.GetAsString());
        const FullFrameMessage message = c.time.GetFullFrameMessage();
        EXPECT_EQ(FullBytes(message), c.bytes);
        MidiTimeCode back;
        back.SetFullFrameMessage(message);
        back.SetFrameRate(back.GetFrameRate());
        EXPECT_EQ(back, c.time);
    }
}

TEST(MidiTimeCodeMessages, EightPiecesRebuildTheTimeAtEveryRate) {
    for (const FrameRate rate : kAllRates) {
        const MidiTimeCode sent(21, 47, 33, 18, rate);
        MidiTimeCode received(0, 0, 0, 0, FrameRate::Fps24);
        for (unsigned char piece = 0; piece < 8; ++piece) {
            const QuarterFrameMessage message = sent.GetQuarterFrameMessage(piece);
            EXPECT_EQ(message.GetIndex(), piece);
            received.ProcessQuarterFrameMessage(message);
        }
        received.SetFrameRate(received.GetFrameRate());
        EXPECT_EQ(received, sent) << ConvertFrameRateToString(rate);
    }
}

TEST(MidiTimeCodeCounts, DropFrameCountsAndStepsAtMinuteBoundaries) {
    struct Case {
        MidiTimeCode time;
        std::uint64_t frames;
    };
    const Case cases[] = {
        {MidiTimeCode(1, 0, 0, 0, FrameRate::Fps2997Drop), 107892},
        {MidiTimeCode(23, 59, 59, 29, FrameRate::Fps2997Drop), 2589407},
        {MidiTimeCode(0, 1, 0, 2, FrameRate::Fps2997Drop), 1800},
        {MidiTimeCode(0, 10, 0, 0, FrameRate::Fps2997Drop), 17982},
        {MidiTimeCode(0, 0, 59, 29, FrameRate::Fps2997Drop), 1799},
        {MidiTimeCode(1, 0, 0, 0, FrameRate::Fps30), 108000},
        {MidiTimeCode(0, 1, 0, 0, FrameRate::Fps24), 1440},
    };
    const MidiTimeCode zero(0, 0, 0, 0, FrameRate::Fps2997Drop);
    for (const auto& c : cases) {
        MidiTimeCode origin(0, 0, 0, 0, c.time.GetFrameRate());
        EXPECT_EQ(c.time.GetDifferenceAsQuarterFrameCount(origin), c.frames * 4)
            << c.time.GetAsString();
    }

    struct Step {
        MidiTimeCode from;
        std::string after;
    };
    const Step forward[] = {
        {MidiTimeCode(0, 0, 59, 29, FrameRate::Fps2997Drop), "00:01:00;02"},
        {MidiTimeCode(0, 9, 59, 29, FrameRate::Fps2997Drop), "00:10:00;00"},
        {MidiTimeCode(0, 59, 59, 29, FrameRate::Fps2997Drop), "01:00:00;00"},
        {MidiTimeCode(23, 59, 59, 29, FrameRate::Fps30), "00:00:00:00"},
        {MidiTimeCode(0, 0, 0, 23, FrameRate::Fps24), "00:00:01:00"},
    };
    for (const auto& s : forward) {
        MidiTimeCode t = s.from;
        EXPECT_EQ((++t).GetAsString(), s.after);
        EXPECT_EQ((--t).GetAsString(), s.from.GetAsString());
    }
    MidiTimeCode t = zero;
    t.SetFrameRate(FrameRate::Fps30);
    EXPECT_EQ((t--).GetAsString(), "00:00:00:00");
    EXPECT_EQ(t.GetAsString(), "23:59:59:29");
}

TEST(MidiTimeCodeCounts, ValidationOrderAndTexts) {
    EXPECT_EQ(
        ThrownText<InvalidFrameCount>([] { MidiTimeCode(0, 1, 0, 0, FrameRate::Fps2997Drop); }),
        "Invalid frameCount: 0");
    EXPECT_EQ(ThrownText<InvalidFrameCount>([] { MidiTimeCode(0, 0, 0, 25, FrameRate::Fps25); }),
              "Invalid frameCount: 25");
    // Frames are checked before seconds, seconds before minutes, minutes before hours.
    EXPECT_EQ(ThrownText<InvalidFrameCount>([] { MidiTimeCode(24, 60, 60, 24, FrameRate::Fps24); }),
              "Invalid frameCount: 24");
    EXPECT_EQ(ThrownText<InvalidSecondCount>([] { MidiTimeCode(24, 60, 60, 0, FrameRate::Fps30); }),
              "Invalid secondCount: 60");
    EXPECT_EQ(ThrownText<InvalidMinuteCount>([] { MidiTimeCode(24, 60, 0, 0, FrameRate::Fps30); }),
              "Invalid minuteCount: 60");
    EXPECT_EQ(ThrownText<InvalidHourCount>([] { MidiTimeCode(24, 0, 0, 0, FrameRate::Fps30); }),
              "Invalid hourCount: 24");
    // The second of a ten-minute boundary keeps ;00 and ;01.
    EXPECT_NO_THROW(MidiTimeCode(0, 10, 0, 0, FrameRate::Fps2997Drop));
    EXPECT_NO_THROW(MidiTimeCode(0, 1, 1, 0, FrameRate::Fps2997Drop));
}

TEST(MidiTimeCodeCounts, TextsOfRatesAndTimes) {
    for (const FrameRate rate : kAllRates) {
        EXPECT_EQ(ConvertStringToFrameRate(ConvertFrameRateToString(rate)), rate);
    }
    EXPECT_EQ(ConvertFrameRateToString(FrameRate::Fps2997Drop), "29.97 fps drop");
    EXPECT_EQ(ThrownText<std::logic_error>([] { ConvertStringToFrameRate("29.97 fps"); }),
              "Unsupported frame rate.");
    EXPECT_EQ(ThrownText<std::logic_error>([] { ConvertFrameRateToString(FrameRate{7}); }),
              "Unsupported frame rate");
    EXPECT_EQ(MidiTimeCode(1, 2, 3, 4, FrameRate::Fps25).GetAsString(), "01:02:03:04");
    EXPECT_EQ(MidiTimeCode(1, 2, 3, 4, FrameRate::Fps2997Drop).GetAsString(), "01:02:03;04");
}

// Every label of the first eleven minutes and of the last minute of the day (drop minutes, a
// ten-minute boundary, the day's end) at every rate and quarter: seconds and back give the same
// label, and the seconds grow by exactly one quarter of a frame each step.
TEST(MidiTimeCodeSeconds, RoundTripAndSpacingThroughEveryLabel) {
    for (const FrameRate rate : kAllRates) {
        SCOPED_TRACE(ConvertFrameRateToString(rate));
        const MidiTimeCode probe(0, 0, 0, 0, rate);
        const double quarter = MidiTimeCode(0, 0, 0, 1, rate).GetAsSeconds() / 4;
        for (const auto& [start, count] :
             {std::pair{MidiTimeCode(0, 0, 0, 0, rate), 11 * 60 * 30},
              std::pair{MidiTimeCode(23, 59, 0, rate == FrameRate::Fps2997Drop ? 2 : 0, rate),
                        60 * 30}}) {
            MidiTimeCode t = start;
            double previous = t.GetAsSeconds() - quarter;
            // Each quarter step moves the seconds by one quarter frame, across frames, seconds,
            // minutes and drop minutes alike.
            for (int step = 0; step < count * 4 && !(step > 0 && t == probe); ++step) {
                const double s = t.GetAsSeconds();
                ASSERT_NEAR(s - previous, quarter, 1e-9) << t.GetAsString();
                previous = s;
                const MidiTimeCode back(s, rate);
                ASSERT_EQ(back, t)
                    << t.GetAsString() << " q" << int{t.GetQuarterFrameIndex()} << " came back as "
                    << back.GetAsString() << " q" << int{back.GetQuarterFrameIndex()};
                t.IncrementQuarterFrame();
            }
        }
    }
    // Hours are real seconds at drop-frame: 01:00:00;00 is 3600 s, one label short of it is not.
    EXPECT_DOUBLE_EQ(MidiTimeCode(1, 0, 0, 0, FrameRate::Fps2997Drop).GetAsSeconds(), 3600.0);
    EXPECT_EQ(MidiTimeCode(3599.9999, FrameRate::Fps2997Drop).GetAsString(), "00:59:59;29");
    EXPECT_EQ(MidiTimeCode(-1.0, FrameRate::Fps25).GetAsString(), "00:00:00:00");
    // A rounding error short of midnight is midnight, not hour 24.
    EXPECT_EQ(MidiTimeCode(86400.0 - 1e-11, FrameRate::Fps30).GetAsString(), "00:00:00:00");
    EXPECT_EQ(MidiTimeCode(86400.0 + 0.5, FrameRate::Fps25).GetAsString(), "00:00:00:12");
}

TEST(MidiTimeCodeArithmetic, AddingFramesEqualsSteppingAcrossDropMinutes) {
    for (const FrameRate rate : kAllRates) {
        SCOPED_TRACE(ConvertFrameRateToString(rate));
        const unsigned char maxFrames = rate == FrameRate::Fps24   ? 23
                                        : rate == FrameRate::Fps25 ? 24
                                                                   : 29;
        MidiTimeCode start(0, 0, 58, 3, rate);
        for (int offset = 0; offset < 20 * 30 * 8; offset += 7) {  // across ten minutes
            for (const unsigned char n : std::vector<unsigned char>{1, 2, maxFrames}) {
                MidiTimeCode stepped = start;
                for (unsigned i = 0; i < n; ++i) {
                    ++stepped;
                }
                ASSERT_EQ((start + n).GetAsString(), stepped.GetAsString())
                    << start.GetAsString() << " + " << int{n};
                ASSERT_EQ((stepped - n).GetAsString(), start.GetAsString());
            }
            for (int i = 0; i < 7; ++i) {
                ++start;
            }
        }
        const MidiTimeCode a(23, 59, 59, 0, rate);
        const MidiTimeCode b(0, 0, 2, 0, rate);
        EXPECT_EQ((a + b).GetAsString().substr(0, 8), "00:00:01");
        EXPECT_EQ((b - a).GetAsString().substr(0, 8), "00:00:03");
    }
    EXPECT_EQ(ThrownText<MidiTimeCodeFrameRateError>([] {
                  MidiTimeCode(0, 0, 0, 0, FrameRate::Fps25) +
                      MidiTimeCode(0, 0, 0, 0, FrameRate::Fps24);
              }),
              "Cannot add together time codes with different frame rates.");
    EXPECT_EQ(ThrownText<InvalidFrameCount>([] {
                  MidiTimeCode(0, 0, 0, 0, FrameRate::Fps25) + static_cast<unsigned char>(25);
              }),
              "Invalid frameCount: 25");
}

TEST(MidiTimeCodeArithmetic, QuarterFramesAndComparison) {
    MidiTimeCode t(0, 0, 0, 5, FrameRate::Fps25);
    const MidiTimeCode copy = t;
    for (int i = 0; i < 4; ++i) {
        EXPECT_FALSE(t < copy);
        t.IncrementQuarterFrame();
    }
    EXPECT_EQ(t.GetAsString(), "00:00:00:06");
    EXPECT_EQ(t.GetQuarterFrameIndex(), 0);
    // A time inside a quarter keeps its place in it: a quarter step is a quarter frame on.
    MidiTimeCode inside(5.0 * 0.04 + 0.035, FrameRate::Fps25);  // 00:00:00:05, 0.005 s into q3
    ASSERT_EQ(inside.GetQuarterFrameIndex(), 3);
    inside.IncrementQuarterFrame();
    EXPECT_EQ(inside.GetAsString(), "00:00:00:06");
    EXPECT_EQ(inside.GetQuarterFrameIndex(), 0);
    EXPECT_NEAR(inside.GetAsSeconds(), 6.0 * 0.04 + 0.005, 1e-12);
    EXPECT_TRUE(copy < t);
    EXPECT_EQ(t.GetDifferenceAsQuarterFrameCount(copy), 4u);
    // The copy steps itself, not the original.
    MidiTimeCode second = copy;
    ++second;
    EXPECT_EQ(copy.GetAsString(), "00:00:00:05");
    // Equality includes the quarter and the rate.
    MidiTimeCode quarter = copy;
    quarter.SetQuarterFrameIndex(2);
    EXPECT_NE(quarter, copy);
    MidiTimeCode otherRate = copy;
    otherRate.SetFrameRate(FrameRate::Fps30);
    EXPECT_NE(otherRate, copy);
}

}  // namespace
