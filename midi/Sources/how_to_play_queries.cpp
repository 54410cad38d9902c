// HowToPlay: what is in force at the tick index or at a given tick, and its display strings.
// Nothing here moves a cursor; only GetTranspositionPair and GetSendMarkerAndSongTitle change
// state.
#include <algorithm>
#include <cmath>
#include <iomanip>
#include <sstream>

#include "midi/Sources/sequence_search.h"
#include "midi/how_to_play.h"

using position_search::LastAtOrBefore;

namespace {

/// The index of the record in force at `tick`, searched from the first record.
template <typename Sequence>
std::size_t IndexAt(const Sequence& sequence, unsigned int tick) {
    return LastAtOrBefore(sequence.GetVector(), 0, tick);
}

/// The event under a change-log cursor; the sequence must not be empty.
template <typename Sequence>
const typename Sequence::value_type& Current(const Sequence& sequence, std::size_t cursor,
                                             const char* emptyText) {
    if (sequence.empty()) {
        throw std::out_of_range(emptyText);
    }
    return sequence[cursor];
}

bool CoversPlainly(const CL::PairedEvent& event, unsigned int tick) {
    return event.start() <= tick && tick < event.end();
}

}  // namespace

// ---- records in force -------------------------------------------------------------------------

const TL::BarsBeats& HowToPlay::GetBarBeat() const {
    return barsBeats_[barsBeatsCursor_.current];
}
const TL::Meter& HowToPlay::GetMeter() const {
    return meters_[meterCursor_.current];
}
const TL::Key& HowToPlay::GetKey() const {
    return keys_[keyCursor_.current];
}
const TL::Tempo& HowToPlay::GetTempo() const {
    return tempos_[tempoCursor_.current];
}

const CL::Click& HowToPlay::GetClick() const {
    return Current(clicks_, clickCursor_.current, "no Click");
}

const CL::TempoScale& HowToPlay::GetTempoScale() const {
    return Current(tempoScales_, tempoScaleCursor_.current, "no TempoScale");
}

const CL::Transpose& HowToPlay::GetTranspose() const {
    return Current(transpositions_, transpositionCursor_.current, "no Transposition");
}

const CL::Marker& HowToPlay::GetMarker() const {
    return Current(markers_, markerCursor_.current, "no markers");
}

const TL::PageNum& HowToPlay::GetPageNumber() const {
    return Current(pageNums_, pageNumberCursor_.current, "There are no PageNums");
}

// ---- tempo and clock --------------------------------------------------------------------------

double HowToPlay::GetTempoScaleValue() const {
    if (hasTempoScales_) {
        const CL::TempoScale& tempoScale = tempoScales_[tempoScaleCursor_.current];
        if (CoversAtPosition_(tempoScale, tickIndex_)) {
            return LimitTempoScaleToAllowedRange(userControls_.GetTempoScale() *
                                                 tempoScale.float_value());
        }
    }
    // The user's own scale is shown as set; only the clock time limits it.
    return userControls_.GetTempoScale();
}

double HowToPlay::GetTempoScaleValueAtTickIndex(unsigned int tickIndex) const {
    if (hasTempoScales_) {
        const CL::TempoScale& tempoScale = tempoScales_[IndexAt(tempoScales_, tickIndex)];
        if (CoversPlainly(tempoScale, tickIndex)) {
            return LimitTempoScaleToAllowedRange(userControls_.GetTempoScale() *
                                                 tempoScale.float_value());
        }
    }
    return userControls_.GetTempoScale();
}

double HowToPlay::GetClockTime() const {
    double factor = 1.0;
    if (hasTempoScales_) {
        const CL::TempoScale& tempoScale = tempoScales_[tempoScaleCursor_.current];
        if (CoversAtPosition_(tempoScale, tickIndex_)) {
            factor = tempoScale.float_value();
        }
    }
    return GetTempo().seconds_per_clock() /
           LimitTempoScaleToAllowedRange(userControls_.GetTempoScale() * factor);
}

double HowToPlay::GetTempoDouble() const {
    return GetTempo().bpm(GetMeter().clocks_per_click) * GetTempoScaleValue();
}

int HowToPlay::GetTempoInteger() const {
    return static_cast<int>(std::lround(GetTempoDouble()));
}

int HowToPlay::GetClocksPerClick() const {
    const TL::Meter& meter = GetMeter();
    if (hasClicks_) {
        const CL::Click& click = clicks_[clickCursor_.current];
        if (CoversPlainly(click, tickIndex_)) {
            return static_cast<int>(click.ClocksPerClick(meter.notated_32_per_click()));
        }
    }
    return meter.clocks_per_click;
}

int HowToPlay::GetClocksPerClickAtTickIndex(unsigned int tickIndex) const {
    const TL::Meter& meter = meters_[IndexAt(meters_, tickIndex)];
    if (hasClicks_) {
        const CL::Click& click = clicks_[IndexAt(clicks_, tickIndex)];
        if (CoversPlainly(click, tickIndex)) {
            return static_cast<int>(click.ClocksPerClick(meter.notated_32_per_click()));
        }
    }
    return meter.clocks_per_click;
}

int HowToPlay::GetNotated32PerClick() const {
    if (hasClicks_) {
        const CL::Click& click = clicks_[clickCursor_.current];
        if (CoversPlainly(click, tickIndex_)) {
            return click.int_value();
        }
    }
    return GetMeter().notated_32_per_click();
}

int HowToPlay::GetClockNumber() const {
    // The position's clock counts from the bar start.
    std::size_t index = barsBeatsCursor_.current;
    while (index > 0 && barsBeats_[index].beat != 1) {
        --index;
    }
    return ClockNumberFrom_(index, tickIndex_, GetClocksPerClick());
}

int HowToPlay::GetClockNumberAtTickIndex(unsigned int tickIndex) const {
    // A clock at a given tick counts from the beat record there, or, where a click event may
    // have shifted the clicks, from the record on which that click event starts (or the bar
    // start, or the first record, whichever comes first walking back).
    std::size_t index = IndexAt(barsBeats_, tickIndex);
    if (hasClicks_ && barsBeats_[index].beat != 1) {
        const unsigned int clickStart = clicks_[IndexAt(clicks_, tickIndex)].start();
        while (index > 0 && barsBeats_[index].tick_index != clickStart &&
               barsBeats_[index].beat != 1) {
            --index;
        }
    }
    return ClockNumberFrom_(index, tickIndex, GetClocksPerClickAtTickIndex(tickIndex));
}

int HowToPlay::ClockNumberFrom_(std::size_t index, unsigned int tickIndex,
                                int clocksPerClick) const {
    const unsigned int from = barsBeats_[index].tick_index;
    // A tick before the first record (which the cursor then stays on) counts as its start.
    const unsigned int elapsed = tickIndex > from ? tickIndex - from : 0;
    return static_cast<int>(elapsed / TicksPerClock_()) % clocksPerClick;
}

int HowToPlay::GetClicksToSongEnd() const {
    const auto next = beatMap_.upper_bound(tickIndex_);
    return next == beatMap_.end() ? 0 : next->second;
}

unsigned int HowToPlay::GetTickIndexOfNextDspEvent() const {
    const auto next = std::find_if(dspTickIndices_.begin(), dspTickIndices_.end(),
                                   [this](std::uint32_t tick) { return tick > tickIndex_; });
    return next == dspTickIndices_.end() ? GetLastTickIndex() : *next;
}

// ---- transposition, page, marker, title ---------------------------------------------------------

int HowToPlay::GetTranspositionValue() const {
    int value = userControls_.GetTransposition();
    if (hasTranspositions_ && transpositionCursor_.current < transpositions_.size()) {
        const CL::Transpose& transposition = transpositions_[transpositionCursor_.current];
        if (CoversAtPosition_(transposition, tickIndex_)) {
            value += transposition.int_value();
        }
    }
    return value;
}

int HowToPlay::GetTranspositionValueAtTickIndex(unsigned int tickIndex) const {
    int value = userControls_.GetTransposition();
    if (hasTranspositions_) {
        const CL::Transpose& transposition = transpositions_[IndexAt(transpositions_, tickIndex)];
        if (CoversPlainly(transposition, tickIndex)) {
            value += transposition.int_value();
        }
    }
    return value;
}

std::pair<int, int> HowToPlay::GetTranspositionPair() {
    const std::pair<int, int> pair{GetTranspositionValue(), lastTransposition_};
    lastTransposition_ = pair.first;
    return pair;
}

int HowToPlay::GetPageNumberValue() const {
    return hasPageNumbers_ ? pageNums_[pageNumberCursor_.current].page : 1;
}

unsigned int HowToPlay::GetMarkerTickIndex() const {
    return Current(markers_, markerCursor_.current, "there are no markers").tick_index;
}

std::string HowToPlay::GetMarkerString() const {
    return Current(markers_, markerCursor_.current, "there are no markers").text;
}

bool HowToPlay::GetSendMarkerAndSongTitle() {
    const bool send = sendMarkerAndSongTitle_;
    sendMarkerAndSongTitle_ = false;
    return send;
}

// ---- display strings --------------------------------------------------------------------------

std::string HowToPlay::GetBarString() const {
    return as_string(GetBarBeat());
}

std::string HowToPlay::GetMeterString() const {
    return as_string(GetMeter());
}

std::string HowToPlay::GetKeyString() const {
    const TL::Key& key = GetKey();
    return Keys::getTransposedName(key.minor, key.sharps_flats,
                                   static_cast<std::int16_t>(GetTranspositionValue()));
}

std::string HowToPlay::GetTempoString() const {
    std::ostringstream text;
    text << std::fixed << std::setprecision(2)
         << GetTempo().bpm(GetMeter().clocks_per_click) * GetTempoScaleValue();
    return text.str();
}

std::string HowToPlay::GetTempoScaleString() const {
    std::ostringstream text;
    text << std::fixed << std::setprecision(0) << GetTempoScaleValue() * 100 << "%\n";
    return text.str();
}
