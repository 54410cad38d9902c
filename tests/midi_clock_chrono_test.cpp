#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <numeric>
#include <stdexcept>
#include <utility>
#include <vector>

#include "interfaces/notify.h"
#include "midi/clocks.h"
#include "tests/support/captured_log.h"
#include "tests/support/recorded.h"

namespace {

using TimePoint = MidiClockChrono::TimePoint;

// A clock the test moves by hand, in nanoseconds.
class ManualTime {
  public:
    MidiClockChrono::TimeSource Source() {
        return [this] { return TimePoint(std::chrono::nanoseconds(now_.load())); };
    }
    void Advance(double seconds) { now_ += static_cast<std::int64_t>(seconds * 1e9); }
    void AdvanceNanoseconds(std::int64_t nanoseconds) { now_ += nanoseconds; }

  private:
    std::atomic<std::int64_t> now_{1'000'000'000};
};

constexpr double kPeriod = 0.020;

class MidiClockChronoTest : public ::testing::Test {
  protected:
    ManualTime time;
    MidiClockChrono chrono{100, time.Source()};
};

TEST_F(MidiClockChronoTest, FirstStartMeasuresNothingAndSecondBecomesTheCorrection) {
    chrono.Start(kPeriod);
    EXPECT_DOUBLE_EQ(chrono.CorrectClockPeriodForAverageError(kPeriod), kPeriod);

    time.Advance(0.0213);  // 1.3 ms late
    EXPECT_NEAR(chrono.GetSecondsSinceStart(), 0.0213, 1e-12);
    chrono.Start(kPeriod);
    EXPECT_NEAR(chrono.GetCorrection(), 0.0013, 1e-12);
    EXPECT_NEAR(chrono.CorrectClockPeriodForAverageError(kPeriod), 0.0187, 1e-12);
    EXPECT_NEAR(chrono.CorrectClockPeriodForAverageError(0.010), 0.0087, 1e-12);
}

TEST_F(MidiClockChronoTest, CorrectionIsRefinedByTheMeanOfTheLastTwentyAfterTwentyOneErrors) {
    chrono.Start(kPeriod);
    time.Advance(kPeriod + 0.001);
    chrono.Start(kPeriod);  // correction 1 ms

    // 21 further errors of 1, 2, ..., 21 microseconds: the first drops out of the queue.
    std::vector<double> errors;
    for (int i = 1; i <= 21; ++i) {
        errors.push_back(i * 1e-6);
        time.AdvanceNanoseconds(static_cast<std::int64_t>(kPeriod * 1e9) + i * 1000);
        chrono.Start(kPeriod);
        if (i == 20) {
            // Twenty errors are not yet enough to refine.
            EXPECT_NEAR(chrono.CorrectClockPeriodForAverageError(kPeriod), kPeriod - 0.001, 1e-12);
        }
    }
    const double meanOfLastTwenty =
        std::accumulate(errors.begin() + 1, errors.end(), 0.0) / 20.0;  // 11.5 us
    EXPECT_NEAR(chrono.GetAverageError(), meanOfLastTwenty, 1e-12);
    EXPECT_NEAR(chrono.CorrectClockPeriodForAverageError(kPeriod),
                kPeriod - 0.001 - meanOfLastTwenty, 1e-12);
    // The queue is back to twenty zeros and the correction keeps the refinement.
    EXPECT_DOUBLE_EQ(chrono.GetAverageError(), 0.0);
    EXPECT_NEAR(chrono.GetCorrection(), 0.001 + meanOfLastTwenty, 1e-12);
}

TEST_F(MidiClockChronoTest, ResetsForARunKeepTheAnnouncedPeriodButFullResetsDoNot) {
    chrono.Start(kPeriod);
    time.Advance(kPeriod + 0.002);
    chrono.Start(kPeriod);
    ASSERT_NEAR(chrono.GetCorrection(), 0.002, 1e-12);

    chrono.ResetErrorCorrectionForRun();
    EXPECT_DOUBLE_EQ(chrono.CorrectClockPeriodForAverageError(kPeriod), kPeriod);
    time.Advance(kPeriod + 0.003);
    chrono.Start(kPeriod);  // measured against the kept period
    EXPECT_NEAR(chrono.GetCorrection(), 0.003, 1e-12);

    chrono.ResetErrorCorrection();
    time.Advance(kPeriod + 0.004);
    chrono.Start(kPeriod);  // nothing to measure against
    EXPECT_DOUBLE_EQ(chrono.GetCorrection(), 0.0);

    // A correction larger than the period (a stall) resets all error state, the announced
    // period with it: the next Start measures nothing.
    time.Advance(0.5);
    chrono.Start(kPeriod);
    EXPECT_DOUBLE_EQ(chrono.CorrectClockPeriodForAverageError(kPeriod), kPeriod);
    EXPECT_DOUBLE_EQ(chrono.GetCorrection(), 0.0);
    time.Advance(0.1);
    chrono.Start(kPeriod);
    EXPECT_DOUBLE_EQ(chrono.CorrectClockPeriodForAverageError(kPeriod), kPeriod);
}

TEST(MidiClockChrono, PerformanceCounterConversion) {
    EXPECT_EQ(MidiClockChrono::CounterToNanoseconds(12'345'678, 10'000'000), 1'234'567'800);
    // Any other frequency: whole seconds and the remainder separately.
    EXPECT_EQ(MidiClockChrono::CounterToNanoseconds(3'000'000 * 5 + 1, 3'000'000), 5'000'000'333);
    // A day of counts at 2.4 GHz would overflow count × 10^9 computed directly.
    const std::int64_t day = 86'400;
    EXPECT_EQ(
        MidiClockChrono::CounterToNanoseconds(day * 2'400'000'000 + 1'200'000'000, 2'400'000'000),
        day * 1'000'000'000 + 500'000'000);
    // The counter and the chrono's clock move forwards together.
    const auto a = MidiClockChrono::Now();
    const auto b = MidiClockChrono::Now();
    EXPECT_GE(MidiClockChrono::GetTimeDifferenceNanoSeconds(a, b), 0);
}

// Records debug messages and wakes the test when one arrives; refuses the first when asked.
class WaitingGuiSink : public notify::RecordingGuiSink {
  public:
    void SendMidiClockDebugMessage(const std::string& text) override {
        if (refuseFirst.exchange(false)) {
            throw std::runtime_error("display gone");
        }
        texts_.Add(text);
    }
    std::atomic<bool> refuseFirst{false};
    std::vector<std::string> WaitForTexts(std::size_t count) {
        texts_.WaitFor(count);
        return texts_.Values();
    }

  private:
    Recorded<std::string> texts_;
};

class MidiClockChronoReport : public ::testing::Test {
  protected:
    void SetUp() override { notify::guiDispatcher.SetSink(sink_); }
    void TearDown() override { notify::guiDispatcher.SetSink(nullptr); }
    std::shared_ptr<WaitingGuiSink> sink_ = std::make_shared<WaitingGuiSink>();
};

TEST_F(MidiClockChronoReport, ReportsAveragesAfterTheIntervalsSamples) {
    ManualTime time;
    MidiClockChrono chrono(2, time.Source());
    for (int i = 0; i < 2; ++i) {
        chrono.Start(0.000020);
        chrono.ReportClockTime(0.000020);
        time.AdvanceNanoseconds(4000 + i * 2000);  // overhead 4000, then 6000
        chrono.StopOverhead();
        time.AdvanceNanoseconds(20000);  // total 24000, then 26000
        chrono.StopTotal();
    }
    // Without clock times only the averages are reported.
    MidiClockChrono plain(1, time.Source());
    plain.Start(kPeriod);
    time.AdvanceNanoseconds(7000);
    plain.StopTotal();
    auto texts = sink_->WaitForTexts(2);
    std::sort(texts.begin(), texts.end());  // the two reports travel independently
    EXPECT_EQ(texts,
              (std::vector<std::string>{"MidiClockChrono averageOverheadNanoSeconds = 0\n"
                                        "averageTotalNanoSeconds = 7000\n",
                                        "MidiClockChrono averageOverheadNanoSeconds = 5000\n"
                                        "averageTotalNanoSeconds = 25000\n"
                                        "averageExpectedClockTime nanoseconds = 20000\n"
                                        "Percent Error = 20%\n"
                                        "Overhead as percentage of expected clock time = 25%\n"
                                        "GetAverageError() = 0\n"
                                        "initialPeriodicError = 4e-06\n"}));
}

TEST_F(MidiClockChronoReport, AReportThatFailsIsLoggedAndTheNextIsStillSent) {
    // The display refuses the first report, and the log then fails once as the dispatcher writes
    // the warning about it: the failure reaches the report thread.
    sink_->refuseFirst = true;
    bool logFailed = false;
    CapturedLog log;
    const kit::LogSink capture = kit::SetLogSink({});
    kit::SetLogSink([&](const std::string& line) {
        if (!std::exchange(logFailed, true)) {
            throw std::runtime_error("log full");
        }
        capture(line);
    });
    ManualTime time;
    {
        MidiClockChrono chrono(1, time.Source());
        chrono.StopTotal();
        ASSERT_TRUE(log.WaitForLines(2));
        chrono.StopTotal();
        EXPECT_EQ(sink_->WaitForTexts(1).size(), 1u);
    }
    kit::SetLogSink(capture);
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                               "WARNING: GUI sink threw in SendMidiClockDebugMessage: display gone",
                               "EXCEPTION: log full (midi/Sources/midi_clock_chrono line 206)"}));
}

}  // namespace
