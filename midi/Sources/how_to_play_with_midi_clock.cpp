// HowToPlayWithMidiClock: the position that schedules the clock's changes as it moves, and the
// clock values for resuming after a caesura.
#include <algorithm>
#include <stdexcept>

#include "midi/Sources/sequence_search.h"
#include "midi/how_to_play.h"

using position_search::LastAtOrBefore;

namespace {

/// Runs the wrapped call with the caller's lock released, and holds the lock again when the call
/// returns or throws.
class Unlocked {
  public:
    explicit Unlocked(std::unique_lock<std::mutex>& lock) : lock_(lock) { lock_.unlock(); }
    Unlocked(const Unlocked&) = delete;
    Unlocked& operator=(const Unlocked&) = delete;
    ~Unlocked() { lock_.lock(); }

  private:
    std::unique_lock<std::mutex>& lock_;
};

}  // namespace

HowToPlayWithMidiClock::HowToPlayWithMidiClock(UserControls& userControls, MidiClock& midiClock)
    : HowToPlay(userControls), midiClock_(midiClock) {}

template <typename AroundClockCall>
void HowToPlayWithMidiClock::ScheduleClockChanges_(unsigned int validAt,
                                                   AroundClockCall&& aroundClockCall) {
    // The changes take effect at the requested tick, not at the clamped position.
    if (UpdateClockTime()) {
        const double clockTime = GetClockTime();
        aroundClockCall([&] { midiClock_.SetClockTime(clockTime, validAt); });
    }
    if (UpdateClocksPerClick()) {
        const int clocksPerClick = GetClocksPerClick();
        aroundClockCall([&] { midiClock_.SetClocksPerClick(clocksPerClick, validAt); });
    }
}

void HowToPlayWithMidiClock::AdvanceToTickIndex(unsigned int tickIndex) {
    HowToPlay::AdvanceToTickIndex(tickIndex);
    ScheduleClockChanges_(tickIndex, [](auto&& call) { call(); });
}

void HowToPlayWithMidiClock::AdvanceToTickIndexWithLock(unsigned int tickIndex,
                                                        std::unique_lock<std::mutex>& lock) {
    HowToPlay::AdvanceToTickIndex(tickIndex);
    ScheduleClockChanges_(tickIndex, [&lock](auto&& call) {
        // The clock takes its own mutex; never wait for it while holding the host's.
        Unlocked unlocked(lock);
        call();
    });
}

void HowToPlayWithMidiClock::SetHighSpeed() {
    HowToPlay::SetHighSpeed();
    midiClock_.SetClockTime(GetClockTime(), 0);
}

void HowToPlayWithMidiClock::GetCaesuraResumeParams(unsigned int tickIndex, double* clockTime,
                                                    int* clocksPerClick) const {
    const auto& beats = barsBeats_.GetVector();
    const auto beat =
        std::lower_bound(beats.begin(), beats.end(), tickIndex,
                         [](const TL::BarsBeats& b, unsigned int t) { return b.tick_index < t; });
    if (beat == beats.end()) {
        throw std::out_of_range("HowToPlayWithMidiClock exceeded the limits of the beat map.");
    }
    const unsigned int resumeTick = beat->tick_index;

    const TL::Tempo& tempo = tempos_[LastAtOrBefore(tempos_.GetVector(), 0, resumeTick)];
    double factor = 1.0;
    if (hasTempoScales_) {
        const auto& scales = tempoScales_.GetVector();
        const CL::TempoScale& scale = scales[LastAtOrBefore(scales, 0, resumeTick)];
        // A scale that starts after the resume tick is not in force (the search stays on the
        // first event then).
        if (scale.start() <= resumeTick && resumeTick < scale.end()) {
            factor = scale.float_value();
        }
    }
    if (clockTime != nullptr) {
        *clockTime = tempo.seconds_per_clock() /
                     LimitTempoScaleToAllowedRange(userControls_.GetTempoScale() * factor);
    }

    const TL::Meter& meter = meters_[LastAtOrBefore(meters_.GetVector(), 0, resumeTick)];
    if (clocksPerClick != nullptr) {
        *clocksPerClick = meter.clocks_per_click;
        if (hasClicks_) {
            const auto& clicks = clicks_.GetVector();
            const CL::Click& click = clicks[LastAtOrBefore(clicks, 0, resumeTick)];
            if (click.start() <= resumeTick && resumeTick < click.end()) {
                *clocksPerClick = click.int_value() * 24 / meter.notated_32_per_click();
            }
        }
    }
}
