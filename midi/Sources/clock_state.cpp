#include "midi/clocks.h"

ClockState::ClockState(unsigned int tickIndex, int clockNumber, unsigned int ticksPerClock,
                       int clocksPerClick, double clockTime)
    : tickIndex_(tickIndex),
      clockNumber_(clockNumber),
      ticksPerClock_(ticksPerClock),
      clocksPerClick_(clocksPerClick),
      clockTime_(clockTime),
      tickIndexSet_(true),
      clockNumberSet_(true),
      ticksPerClockSet_(true),
      clocksPerClickSet_(true),
      clockTimeSet_(true) {}

ClockState::ClockState(const ClockState& other) {
    std::scoped_lock lock(other.mutex_);
    tickIndex_ = other.tickIndex_;
    clockNumber_ = other.clockNumber_;
    ticksPerClock_ = other.ticksPerClock_;
    clocksPerClick_ = other.clocksPerClick_;
    clockTime_ = other.clockTime_;
    tickIndexSet_ = other.tickIndexSet_;
    clockNumberSet_ = other.clockNumberSet_;
    ticksPerClockSet_ = other.ticksPerClockSet_;
    clocksPerClickSet_ = other.clocksPerClickSet_;
    clockTimeSet_ = other.clockTimeSet_;
}

ClockState& ClockState::operator=(const ClockState& other) {
    if (this == &other) {
        return *this;
    }
    // scoped_lock takes the pair without deadlock whichever order two threads name them in.
    std::scoped_lock lock(mutex_, other.mutex_);
    if (other.tickIndexSet_) {
        tickIndex_ = other.tickIndex_;
        tickIndexSet_ = true;
    }
    if (other.clockNumberSet_) {
        clockNumber_ = other.clockNumber_;
        clockNumberSet_ = true;
    }
    if (other.ticksPerClockSet_) {
        ticksPerClock_ = other.ticksPerClock_;
        ticksPerClockSet_ = true;
    }
    if (other.clocksPerClickSet_) {
        clocksPerClick_ = other.clocksPerClick_;
        clocksPerClickSet_ = true;
    }
    if (other.clockTimeSet_) {
        clockTime_ = other.clockTime_;
        clockTimeSet_ = true;
    }
    return *this;
}

unsigned int ClockState::GetTickIndex() const {
    std::scoped_lock lock(mutex_);
    return tickIndex_;
}

int ClockState::GetClockNumber() const {
    std::scoped_lock lock(mutex_);
    return clockNumber_;
}

unsigned int ClockState::GetTicksPerClock() const {
    std::scoped_lock lock(mutex_);
    return ticksPerClock_;
}

int ClockState::GetClocksPerClick() const {
    std::scoped_lock lock(mutex_);
    return clocksPerClick_;
}

double ClockState::GetClockTime() const {
    std::scoped_lock lock(mutex_);
    return clockTime_;
}

void ClockState::SetTickIndex(unsigned int tickIndex) {
    std::scoped_lock lock(mutex_);
    tickIndex_ = tickIndex;
    tickIndexSet_ = true;
}

void ClockState::SetClockNumber(int clockNumber) {
    std::scoped_lock lock(mutex_);
    clockNumber_ = clockNumber;
    clockNumberSet_ = true;
}

void ClockState::SetTicksPerClock(unsigned int ticksPerClock) {
    std::scoped_lock lock(mutex_);
    ticksPerClock_ = ticksPerClock;
    ticksPerClockSet_ = true;
}

void ClockState::SetClocksPerClick(int clocksPerClick) {
    std::scoped_lock lock(mutex_);
    clocksPerClick_ = clocksPerClick;
    clocksPerClickSet_ = true;
}

void ClockState::SetClockTime(double clockTime) {
    std::scoped_lock lock(mutex_);
    clockTime_ = clockTime;
    clockTimeSet_ = true;
}

bool ClockState::HasTickIndex() const {
    std::scoped_lock lock(mutex_);
    return tickIndexSet_;
}

bool ClockState::HasClockNumber() const {
    std::scoped_lock lock(mutex_);
    return clockNumberSet_;
}

bool ClockState::HasTicksPerClock() const {
    std::scoped_lock lock(mutex_);
    return ticksPerClockSet_;
}

bool ClockState::HasClocksPerClick() const {
    std::scoped_lock lock(mutex_);
    return clocksPerClickSet_;
}

bool ClockState::HasClockTime() const {
    std::scoped_lock lock(mutex_);
    return clockTimeSet_;
}

double ClockState::GetBeatsPerMinute() const {
    std::scoped_lock lock(mutex_);
    return 60.0 / (clocksPerClick_ * clockTime_);
}

void ClockState::AdvanceClock() {
    std::scoped_lock lock(mutex_);
    // ">=" rather than "==" so that a clock number left beyond a shortened click still wraps.
    ++clockNumber_;
    if (clockNumber_ >= clocksPerClick_) {
        clockNumber_ = 0;
    }
    tickIndex_ += ticksPerClock_;
}
