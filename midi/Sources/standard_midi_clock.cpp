#include <stdexcept>

#include "interfaces/kit.h"
#include "midi/clocks.h"

void StandardMidiClock::SetTicksPerClock(unsigned int ticksPerClock) {
    std::scoped_lock lock(clockMutex_);
    clockState_.SetTicksPerClock(ticksPerClock);
}

template <typename Value>
void StandardMidiClock::ChangeField_(const char* operation, Value value, unsigned int validAt,
                                     std::vector<std::pair<Value, unsigned int>>& deferred,
                                     void (ClockState::*set)(Value)) {
    std::scoped_lock lock(clockMutex_);
    if (!playbackArmed_) {
        deferred.emplace_back(value, validAt);
        return;
    }
    if (validAt == 0) {
        (clockState_.*set)(value);
        return;
    }
    const unsigned int tickIndex = clockState_.GetTickIndex();
    if (validAt < tickIndex) {
        kit::CoutBuffer() << "WARNING: " << operation << " ignored. "
                          << "validAt=" << validAt << ", tickIndex=" << tickIndex << kit::endl;
        return;
    }
    (scheduledStates_[validAt].*set)(value);
}

void StandardMidiClock::SetClocksPerClick(int clocksPerClick, unsigned int validAt) {
    ChangeField_("SetClocksPerClick", clocksPerClick, validAt, deferredClocksPerClick_,
                 &ClockState::SetClocksPerClick);
}

void StandardMidiClock::SetClockTime(double clockTime, unsigned int validAt) {
    ChangeField_("SetClockTime", clockTime, validAt, deferredClockTimes_,
                 &ClockState::SetClockTime);
}

void StandardMidiClock::SetTickIndex(unsigned int tickIndex, int clockNumber,
                                     unsigned int ticksPerClock, int clocksPerClick,
                                     double clockTime, unsigned int validAt) {
    std::scoped_lock lock(clockMutex_);
    if (!playbackArmed_) {
        deferredClocksPerClick_.clear();
        deferredClockTimes_.clear();
        return;
    }
    const ClockState change(tickIndex, clockNumber, ticksPerClock, clocksPerClick, clockTime);
    if (validAt == 0) {
        clockState_ = change;
        return;
    }
    const unsigned int liveTickIndex = clockState_.GetTickIndex();
    if (validAt < liveTickIndex) {
        kit::CoutBuffer() << "WARNING: SetTickIndex ignored. "
                          << "validAt=" << validAt << ", tickIndex=" << liveTickIndex << kit::endl;
        return;
    }
    scheduledStates_[validAt] = change;
}

void StandardMidiClock::SetCaesura(unsigned int caesuraTickIndex, double clockTime,
                                   int clocksPerClick) {
    std::scoped_lock lock(clockMutex_);
    const unsigned int tickIndex = clockState_.GetTickIndex();
    if (caesuraTickIndex <= tickIndex) {
        kit::CoutBuffer() << "WARNING: Ignored caesura. caesuraTickIndex = " << caesuraTickIndex
                          << ", clockState_.GetTickIndex() = " << tickIndex << kit::endl;
        return;
    }
    caesuraPending_ = true;
    caesuraTickIndex_ = caesuraTickIndex;
    caesuraClockTime_ = clockTime;
    caesuraClocksPerClick_ = clocksPerClick;
}

void StandardMidiClock::ArmPlayback(unsigned int ticksPerClock, int clocksPerClick,
                                    double clockTime, unsigned int tickIndex, int clockNumber) {
    std::scoped_lock lock(clockMutex_);
    clockState_ = ClockState(tickIndex, clockNumber, ticksPerClock, clocksPerClick, clockTime);
    scheduledStates_.clear();
    playbackArmed_ = true;
    caesuraPending_ = false;
    // The replays take the armed path now (re-entering the recursive clock mutex): a change
    // valid at 0 applies at once, one valid before the armed tick is logged and dropped.
    const auto clocksPerClickChanges = std::exchange(deferredClocksPerClick_, {});
    for (const auto& [value, validAt] : clocksPerClickChanges) {
        SetClocksPerClick(value, validAt);
    }
    const auto clockTimeChanges = std::exchange(deferredClockTimes_, {});
    for (const auto& [value, validAt] : clockTimeChanges) {
        SetClockTime(value, validAt);
    }
}

void StandardMidiClock::DisarmPlayback() {
    std::scoped_lock lock(clockMutex_);
    playbackArmed_ = false;
    caesuraPending_ = false;
    scheduledStates_.clear();
    deferredClocksPerClick_.clear();
    deferredClockTimes_.clear();
}

void StandardMidiClock::ContinuousMode() {
    StartClock();
}

void StandardMidiClock::ConductBeat() {
    throw std::logic_error("Not implemented");
}

void StandardMidiClock::SetConductorClickTimerCallback(std::function<void(void*)>, void*) {
    throw std::logic_error("Not implemented.");
}

void StandardMidiClock::SetDownbeatTimerCallback(std::function<void(void*)>, void*) {
    throw std::logic_error("Not implemented.");
}

bool StandardMidiClock::GetPlaybackIsArmed() {
    std::scoped_lock lock(clockMutex_);
    return playbackArmed_;
}

bool StandardMidiClock::AdvanceClock() {
    {
        // The stop and RunEnding under one hold of the clock mutex, as at the caesura below: a
        // control thread that arms and starts the clock again comes after both.
        std::scoped_lock lock(clockMutex_);
        if (!GetPlaybackIsArmed()) {
            RunEnding();
            return false;
        }
    }
    // The callback is the output's send step, which takes the host's mutex: calling it with the
    // clock mutex held would cross the lock order of a host thread calling the setters.
    DoMidiClockCallback(clockState_.GetBeatsPerMinute());
    clockState_.AdvanceClock();

    std::scoped_lock lock(clockMutex_);
    // The period just sent lasts as its own tempo says: the clock time in force now, after any
    // change made at once while the callback ran, but before the change at the next period.
    const double periodClockTime = clockState_.GetClockTime();
    const unsigned int tickIndex = clockState_.GetTickIndex();
    const auto scheduled = scheduledStates_.find(tickIndex);
    if (scheduled != scheduledStates_.end()) {
        clockState_ = scheduled->second;
        scheduledStates_.erase(scheduled);
    }
    if (caesuraPending_ && caesuraTickIndex_ == tickIndex) {
        caesuraPending_ = false;
        RunEnding();
        return false;
    }
    SetClockTimer(TimesEachPeriodAtItsOwnTempo() ? periodClockTime : clockState_.GetClockTime());
    return true;
}

ClockState StandardMidiClock::GetClockState() const {
    return clockState_;
}

bool StandardMidiClock::GetCaesuraIsPending() {
    std::scoped_lock lock(clockMutex_);
    return caesuraPending_;
}
