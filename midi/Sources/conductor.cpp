#include "midi/conductor.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace {

// Positions are whole clicks plus clock number / clocks per click: exact in a double for any
// realistic song, but compared with a margin so that rounding never lets a clock past the limit.
constexpr double kPositionMargin = 1e-9;

constexpr double kSecondsPerNanosecond = 1e-9;

// Clicks entered keep their length this long, for beats that span them.
constexpr std::int64_t kRememberedClicks = 8;

}  // namespace

Conductor::Conductor(double lookaheadClicks, int historyBeats)
    : lookaheadClicks_(lookaheadClicks), historyBeats_(static_cast<std::size_t>(historyBeats)) {
    if (!(lookaheadClicks > 0.0 && lookaheadClicks <= 4.0)) {
        throw std::invalid_argument("a conductor's lookahead must lie in (0, 4] clicks");
    }
    if (historyBeats < 1 || historyBeats > 16) {
        throw std::invalid_argument("a conductor's tempo history must hold 1 to 16 beats");
    }
}

void Conductor::Reset(int clockNumber, int clocksPerClick, double writtenClockTime) {
    clickIndex_ = 0;
    clocksPerClick_ = std::max(1, clocksPerClick);
    clockNumber_ = std::max(0, clockNumber);
    clickLengths_.clear();
    clickLengths_[0] = clocksPerClick_;
    writtenClockTime_ = writtenClockTime;
    started_ = false;
    anchorClick_ = 0;
    anchorTime_ = 0;
    anchorInMidClick_ = false;
    samples_.clear();
    estimate_.reset();
    waiting_ = true;
    nextDue_ = 0;
    lastClockTime_.reset();
}

ConductedBeat Conductor::Beat(std::int64_t time) {
    if (!started_) {
        started_ = true;
        anchorClick_ = GetPosition();
        anchorTime_ = time;
        // The interval to the next beat spans only part of a click, so it says little about the
        // conductor's tempo.
        anchorInMidClick_ = clockNumber_ != 0;
        waiting_ = false;
        nextDue_ = time;
        return ConductedBeat::first;
    }
    // A beat stands for the start of the click after the one the last beat started.
    const double base = std::floor(anchorClick_ + kPositionMargin);
    double target = base + 1.0;
    const double seconds = static_cast<double>(time - anchorTime_) * kSecondsPerNanosecond;
    const double spanClocks =
        (target - anchorClick_) * ClocksPerClickAt_(static_cast<std::int64_t>(base));
    double sample = seconds / spanClocks;
    ConductedBeat kind = ConductedBeat::counted;
    if (estimate_) {
        const double ratio = sample / *estimate_;
        if (ratio < kExtraBelow) {
            return ConductedBeat::extra;
        }
        if (ratio >= kHeldFrom) {
            kind = ConductedBeat::held;
        } else if (ratio >= kMissedFrom) {
            kind = ConductedBeat::missed;
            target += 1.0;
            sample =
                seconds / (spanClocks + ClocksPerClickAt_(static_cast<std::int64_t>(base) + 1));
        }
    }
    if (kind != ConductedBeat::held && !anchorInMidClick_) {
        TakeSample_(sample);
    }
    anchorClick_ = target;
    anchorTime_ = time;
    anchorInMidClick_ = false;
    // A clock waiting at the limit starts the beat's click on the beat, whether the beat came
    // before the clock's own due time (the conductor is ahead) or after it (the conductor held).
    if (waiting_ && GetPosition() < Wall_() - kPositionMargin) {
        waiting_ = false;
        nextDue_ = time;
        if (lastClockTime_) {
            nextDue_ = std::max<std::int64_t>(
                time,
                *lastClockTime_ + std::llround(ClockTime_() / kMaxSpeed / kSecondsPerNanosecond));
        }
    }
    return kind;
}

void Conductor::ClockSent(std::int64_t time, int nextClockNumber, int clocksPerClick,
                          double writtenClockTime) {
    clocksPerClick_ = std::max(1, clocksPerClick);
    clockNumber_ = std::max(0, nextClockNumber);
    if (clockNumber_ == 0) {
        ++clickIndex_;
        clickLengths_[clickIndex_] = clocksPerClick_;
        clickLengths_.erase(clickLengths_.begin(),
                            clickLengths_.lower_bound(clickIndex_ - kRememberedClicks));
    }
    writtenClockTime_ = writtenClockTime;
    lastClockTime_ = time;
    if (!started_ || GetPosition() >= Wall_() - kPositionMargin) {
        waiting_ = true;
        return;
    }
    waiting_ = false;
    // The lag: where the last beat and the tempo put the conductor now, less where the clock just
    // sent began, in clicks.
    const double clockTime = ClockTime_();
    const double conductorAt = anchorClick_ + static_cast<double>(time - anchorTime_) *
                                                  kSecondsPerNanosecond /
                                                  (clockTime * clocksPerClick_);
    const double sentAt = GetPosition() - 1.0 / clocksPerClick_;
    const double speed =
        std::clamp(1.0 + (conductorAt - sentAt) / kCatchUpClicks, kMinSpeed, kMaxSpeed);
    nextDue_ = time + std::llround(clockTime / speed / kSecondsPerNanosecond);
}

std::optional<std::int64_t> Conductor::NextClockDue() const {
    if (waiting_) {
        return std::nullopt;
    }
    return nextDue_;
}

double Conductor::GetPosition() const {
    return static_cast<double>(clickIndex_) +
           static_cast<double>(std::min(clockNumber_, clocksPerClick_ - 1)) / clocksPerClick_;
}

double Conductor::ClockTime_() const {
    return estimate_.value_or(writtenClockTime_);
}

double Conductor::Wall_() const {
    return std::floor(anchorClick_ + kPositionMargin) + lookaheadClicks_;
}

int Conductor::ClocksPerClickAt_(std::int64_t click) const {
    const auto known = clickLengths_.find(click);
    return known != clickLengths_.end() ? known->second : clocksPerClick_;
}

void Conductor::TakeSample_(double secondsPerClock) {
    samples_.push_back(secondsPerClock);
    while (samples_.size() > historyBeats_) {
        samples_.pop_front();
    }
    double weighted = 0;
    double weights = 0;
    double weight = 1;
    for (const double sample : samples_) {
        weighted += weight * sample;
        weights += weight;
        weight += 1;
    }
    estimate_ = weighted / weights;
}
