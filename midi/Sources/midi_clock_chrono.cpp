#include <numeric>
#include <sstream>

#include "interfaces/notify.h"
#include "midi/Sources/logged_exceptions.h"
#include "midi/clocks.h"
#include "platform/mmsystem.h"

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

// Source positions quoted when the report thread logs an exception: the thread's own, which ends
// it, and a report's, after which the thread goes on with the next one.
constexpr const char* kSourcePath = "midi/Sources/midi_clock_chrono";
constexpr int kThreadLine = 38;
constexpr int kReportLine = 206;

}  // namespace

MidiClockChrono::PerformanceClock::time_point MidiClockChrono::PerformanceClock::now() {
    // The frequency is fixed at boot; read it once.
    static const std::int64_t frequency = [] {
        LARGE_INTEGER f{};
        QueryPerformanceFrequency(&f);
        return static_cast<std::int64_t>(f.QuadPart);
    }();
    LARGE_INTEGER count{};
    QueryPerformanceCounter(&count);
    return time_point(duration(CounterToNanoseconds(count.QuadPart, frequency)));
}

MidiClockChrono::MidiClockChrono(unsigned int reportInterval, TimeSource timeSource)
    : reportInterval_(reportInterval),
      timeSource_(timeSource ? std::move(timeSource) : TimeSource(&MidiClockChrono::Now)),
      periodicErrors_(kPeriodicErrorCount, 0.0),
      reportThread_(
          [this] { RunLoggingExceptions(kSourcePath, kThreadLine, [this] { RunLoop(); }); }) {}

MidiClockChrono::~MidiClockChrono() {
    {
        // Cleared under the mutex so that the report thread cannot miss it between testing its
        // wait condition and starting to wait.
        std::scoped_lock lock(mutex_);
        running_ = false;
    }
    reportCondition_.notify_all();
    reportThread_.join();
}

void MidiClockChrono::Start(double expectedPeriod) {
    std::scoped_lock lock(mutex_);
    const TimePoint now = timeSource_();
    if (expectedPeriod_ > 0.0) {
        const double error = GetTimeDifferenceSeconds(start_, now) - expectedPeriod_;
        if (hasInitialError_) {
            periodicErrors_.push_back(error);
            periodicErrors_.pop_front();
            ++periodicErrorCount_;
        } else {
            correction_ = error;
            hasInitialError_ = true;
        }
    }
    expectedPeriod_ = expectedPeriod;
    start_ = now;
}

double MidiClockChrono::GetSecondsSinceStart() {
    std::scoped_lock lock(mutex_);
    return GetTimeDifferenceSeconds(start_, timeSource_());
}

double MidiClockChrono::CorrectClockPeriodForAverageError(double period) {
    std::scoped_lock lock(mutex_);
    if (!hasInitialError_) {
        return period;
    }
    // The first error of a run is the correction at once; after that the correction is refined
    // by the mean of each further batch (21 errors, averaged over the last 20).
    if (periodicErrorCount_ > kPeriodicErrorCount) {
        correction_ += GetAverageError_();
        ResetPeriodicErrors_();
    }
    const double corrected = period - correction_;
    if (corrected < 0.0) {
        expectedPeriod_ = 0.0;
        hasInitialError_ = false;
        correction_ = 0.0;
        ResetPeriodicErrors_();
        return period;
    }
    return corrected;
}

void MidiClockChrono::ResetErrorCorrection() {
    std::scoped_lock lock(mutex_);
    expectedPeriod_ = 0.0;
    hasInitialError_ = false;
    correction_ = 0.0;
    ResetPeriodicErrors_();
}

void MidiClockChrono::ResetErrorCorrectionForRun() {
    std::scoped_lock lock(mutex_);
    hasInitialError_ = false;
    correction_ = 0.0;
    ResetPeriodicErrors_();
}

void MidiClockChrono::ReportClockTime(double seconds) {
    std::scoped_lock lock(mutex_);
    clockTimeSum_ += seconds;
    ++clockTimeReportCount_;
}

void MidiClockChrono::StopOverhead() {
    std::scoped_lock lock(mutex_);
    overheadSum_ += static_cast<std::uint64_t>(GetTimeDifferenceNanoSeconds(start_, timeSource_()));
}

void MidiClockChrono::StopTotal() {
    bool report = false;
    {
        std::scoped_lock lock(mutex_);
        totalSum_ +=
            static_cast<std::uint64_t>(GetTimeDifferenceNanoSeconds(start_, timeSource_()));
        ++sampleCount_;
        report = sampleCount_ >= reportInterval_;
    }
    if (report) {
        reportCondition_.notify_one();
    }
}

double MidiClockChrono::GetCorrection() {
    std::scoped_lock lock(mutex_);
    return correction_;
}

double MidiClockChrono::GetAverageError() {
    std::scoped_lock lock(mutex_);
    return GetAverageError_();
}

std::int64_t MidiClockChrono::GetTimeDifferenceNanoSeconds(TimePoint from, TimePoint to) {
    return (to - from).count();
}

double MidiClockChrono::GetTimeDifferenceSeconds(TimePoint from, TimePoint to) {
    return static_cast<double>(GetTimeDifferenceNanoSeconds(from, to)) / 1e9;
}

MidiClockChrono::TimePoint MidiClockChrono::Now() {
    return PerformanceClock::now();
}

std::int64_t MidiClockChrono::CounterToNanoseconds(std::int64_t count, std::int64_t frequency) {
    if (frequency == 10'000'000) {
        return count * 100;
    }
    return (count / frequency) * kNanosecondsPerSecond +
           ((count % frequency) * kNanosecondsPerSecond) / frequency;
}

void MidiClockChrono::RunLoop() {
    for (;;) {
        std::ostringstream text;
        {
            std::unique_lock lock(mutex_);
            // A report is due once the interval's samples are in; waiting on that rather than on
            // the signal alone keeps a signal sent while a report was being sent from being lost.
            reportCondition_.wait(lock, [this] {
                return !running_ || (sampleCount_ != 0 && sampleCount_ >= reportInterval_);
            });
            if (!running_) {
                return;
            }
            const std::uint64_t averageOverhead = overheadSum_ / sampleCount_;
            const std::uint64_t averageTotal = totalSum_ / sampleCount_;
            overheadSum_ = 0;
            totalSum_ = 0;
            sampleCount_ = 0;
            text << "MidiClockChrono averageOverheadNanoSeconds = " << averageOverhead << "\n"
                 << "averageTotalNanoSeconds = " << averageTotal << "\n";
            if (clockTimeReportCount_ != 0) {
                const double averageExpected =
                    clockTimeSum_ / static_cast<double>(clockTimeReportCount_);
                clockTimeSum_ = 0.0;
                clockTimeReportCount_ = 0;
                const double expectedNanoseconds = averageExpected * 1e9;
                text << "averageExpectedClockTime nanoseconds = "
                     << static_cast<std::int64_t>(expectedNanoseconds) << "\n"
                     << "Percent Error = "
                     << (static_cast<double>(averageTotal) - expectedNanoseconds) /
                            static_cast<double>(averageTotal) * 100.0
                     << "%\n"
                     << "Overhead as percentage of expected clock time = "
                     << static_cast<double>(averageOverhead) * 100.0 / expectedNanoseconds << "%\n"
                     << "GetAverageError() = " << GetAverageError_() << "\n"
                     << "initialPeriodicError = " << correction_ << "\n";
            }
        }
        // Sent without the mutex: the host's sink may take its own time or locks. A report that
        // cannot be sent is lost, not the ones after it.
        RunLoggingExceptions(kSourcePath, kReportLine,
                             [&] { notify::guiDispatcher.SendMidiClockDebugMessage(text.str()); });
    }
}

void MidiClockChrono::ResetPeriodicErrors_() {
    periodicErrors_.assign(kPeriodicErrorCount, 0.0);
    periodicErrorCount_ = 0;
}

double MidiClockChrono::GetAverageError_() const {
    return std::accumulate(periodicErrors_.begin(), periodicErrors_.end(), 0.0) /
           static_cast<double>(periodicErrors_.size());
}
