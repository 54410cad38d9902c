// HowToPlay: loading a song, moving through it, the change reports and the tick arithmetic.
#include "midi/how_to_play.h"

#include <algorithm>
#include <cmath>

#include "interfaces/kit.h"
#include "interfaces/song_data.h"
#include "midi/Sources/sequence_search.h"

using position_search::LastAtOrBefore;

namespace {

/// Moves a cursor to the record in force at `tick`, searching forward from where it stands.
template <typename Sequence>
void PositionForward(const Sequence& sequence, std::size_t& cursor, std::uint32_t tick) {
    cursor = LastAtOrBefore(sequence.GetVector(), cursor, tick);
}

/// Moves a cursor to the record in force at `tick`, searching from the first record.
template <typename Sequence>
void PositionFromStart(const Sequence& sequence, std::size_t& cursor, std::uint32_t tick) {
    cursor = LastAtOrBefore(sequence.GetVector(), 0, tick);
}

/// The change report of a timeline item: the cursor moved, or it is on the first record and
/// that record has not been reported since the last Seek.
bool ReportTimelineChange(std::size_t current, std::size_t previous, bool& reported) {
    if (current != previous || (current == 0 && !reported)) {
        reported = true;
        return true;
    }
    return false;
}

/// The change report of a change-log item: as for a timeline item, and also when the event
/// began or ended covering the tick. Nothing reports before the current event has started.
template <typename Sequence>
bool ReportChangeLogChange(const Sequence& sequence, std::size_t current, std::size_t previous,
                           bool in, bool previousIn, unsigned int tickIndex, bool& reported) {
    if (sequence.empty() || tickIndex < position_search::TickOf(sequence[current])) {
        return false;
    }
    if (current != previous || in != previousIn || (current == 0 && !reported)) {
        reported = true;
        return true;
    }
    return false;
}

}  // namespace

HowToPlay::HowToPlay(UserControls& userControls) : userControls_(userControls) {}

// ---- virtual operations -----------------------------------------------------------------------

void HowToPlay::AdvanceToTickIndex(unsigned int tickIndex) {
    preAdvanceTempoScale_ = GetTempoScaleValue();
    preAdvanceTransposition_ = GetTranspositionValue();

    const unsigned int target = std::min(tickIndex, lastTickIndex_);
    if (target < tickIndex_) {
        Seek(target);
        return;
    }
    if (target > tickIndex_) {
        for (Cursor* cursor : Cursors_()) {
            cursor->previous = cursor->current;
        }
    }

    // Coverage is judged on the events current before this move; a cursor that moves on to a
    // new event reports through its own change anyway. Advancing to the same tick still shifts
    // the flags, so an event that ends exactly here reports its end once.
    if (hasTranspositions_) {
        previousInTransposition_ = inTransposition_;
        inTransposition_ = CoversAtPosition_(transpositions_[transpositionCursor_.current], target);
    }
    if (hasTempoScales_) {
        previousInTempoScale_ = inTempoScale_;
        inTempoScale_ = CoversAtPosition_(tempoScales_[tempoScaleCursor_.current], target);
    }
    if (hasClicks_) {
        // Clicks know no song-end exception: a click ends where it ends.
        const CL::Click& click = clicks_[clickCursor_.current];
        previousInClick_ = inClick_;
        inClick_ = click.start() <= target && target < click.end();
    }

    PositionForward(tempos_, tempoCursor_.current, target);
    PositionForward(barsBeats_, barsBeatsCursor_.current, target);
    PositionForward(meters_, meterCursor_.current, target);
    PositionForward(keys_, keyCursor_.current, target);
    if (hasPageNumbers_) {
        PositionForward(pageNums_, pageNumberCursor_.current, target);
    }
    if (hasMarkers_) {
        PositionForward(markers_, markerCursor_.current, target);
    }
    if (!transpositions_.empty()) {
        PositionForward(transpositions_, transpositionCursor_.current, target);
    }
    if (!tempoScales_.empty()) {
        PositionForward(tempoScales_, tempoScaleCursor_.current, target);
    }
    if (!clicks_.empty()) {
        PositionForward(clicks_, clickCursor_.current, target);
    }
    tickIndex_ = target;
}

unsigned int HowToPlay::GetLastTickIndex() const {
    return lastTickIndex_;
}

void HowToPlay::Seek(unsigned int tickIndex) {
    preSeekTempoScale_ = GetTempoScaleValue();
    preSeekPitchShift_ = GetTranspositionValue();

    barReported_ = clickReported_ = keyReported_ = markerReported_ = meterReported_ =
        pageNumberReported_ = tempoScaleReported_ = tempoReported_ = transpositionReported_ = false;

    for (Cursor* cursor : Cursors_()) {
        cursor->previous = 0;
    }

    const unsigned int target = std::min(tickIndex, lastTickIndex_);
    tickIndex_ = target;

    PositionFromStart(tempos_, tempoCursor_.current, target);
    PositionFromStart(barsBeats_, barsBeatsCursor_.current, target);
    PositionFromStart(meters_, meterCursor_.current, target);
    PositionFromStart(keys_, keyCursor_.current, target);
    if (hasPageNumbers_) {
        PositionFromStart(pageNums_, pageNumberCursor_.current, target);
    }
    if (hasMarkers_) {
        PositionFromStart(markers_, markerCursor_.current, target);
    }
    if (!transpositions_.empty()) {
        PositionFromStart(transpositions_, transpositionCursor_.current, target);
    }
    if (!tempoScales_.empty()) {
        PositionFromStart(tempoScales_, tempoScaleCursor_.current, target);
    }
    if (!clicks_.empty()) {
        PositionFromStart(clicks_, clickCursor_.current, target);
    }

    // Unlike an advance, a seek judges coverage on the events it has just positioned.
    previousInTransposition_ = inTransposition_;
    inTransposition_ = !transpositions_.empty() &&
                       CoversAtPosition_(transpositions_[transpositionCursor_.current], target);
    previousInTempoScale_ = inTempoScale_;
    inTempoScale_ =
        !tempoScales_.empty() && CoversAtPosition_(tempoScales_[tempoScaleCursor_.current], target);
    previousInClick_ = inClick_;
    inClick_ = !clicks_.empty() && clicks_[clickCursor_.current].start() <= target &&
               target < clicks_[clickCursor_.current].end();

    lastSeekTickIndex_ = target;
    lastSeekClocksPerClick_ = GetClocksPerClick();
    lastSeekClockTime_ = GetClockTime();
}

void HowToPlay::SetData(const CL::SongLog& songLog, const TL::Timeline& timeline,
                        unsigned int ticksPerQuarter) {
    lastTickIndex_ = timeline.lastTickIndex;

    tempos_ = timeline.GetTempos();
    barsBeats_ = timeline.GetBarsBeats();
    meters_ = timeline.GetMeters();
    pageNums_ = timeline.GetPageNums();
    keys_ = timeline.GetKeys();
    transpositions_ = songLog.GetTranspositions();
    tempoScales_ = songLog.GetTempoScales();
    clicks_ = songLog.GetClicks();
    markers_ = songLog.GetMarkers();

    hasMarkers_ = !markers_.empty();
    hasTranspositions_ = !transpositions_.empty();
    hasTempoScales_ = !tempoScales_.empty();
    hasClicks_ = !clicks_.empty();
    hasPageNumbers_ = !pageNums_.empty();

    ticksPerQuarter_ = ticksPerQuarter;

    measureTickIndices_.clear();
    for (const TL::BarsBeats& barBeat : barsBeats_) {
        if (barBeat.beat == 1) {
            measureTickIndices_.push_back(barBeat.tick_index);
        }
    }

    CreateDspTickIndices();
    CreateBeatTickIndices(songLog, timeline, ticksPerQuarter);

    inClick_ = inTransposition_ = inTempoScale_ = false;

    for (Cursor* cursor : Cursors_()) {
        cursor->current = 0;
    }

    songTitle_ = songLog.GetSongNumber() + " " + songLog.GetSongName();

    // Through the virtual table, so that a subclass's seek runs.
    Seek(0);

    lastTransposition_ = GetTranspositionValue();
    sendMarkerAndSongTitle_ = true;
}

void HowToPlay::SetHighSpeed() {
    highSpeed_ = true;
}

double HowToPlay::LimitTempoScaleToAllowedRange(double tempoScale) const {
    if (tempoScale < 0.5) {
        return 0.5;
    }
    if (tempoScale > 2.0) {
        return 2.0;
    }
    return tempoScale;
}

// ---- derived tables ---------------------------------------------------------------------------

void HowToPlay::CreateBeatTickIndices(const CL::SongLog& songLog, const TL::Timeline& timeline,
                                      unsigned int ticksPerQuarter) {
    beatMap_.clear();
    const std::list<unsigned int> clickTicks =
        CreateBeatTicks(timeline.GetBarsBeats(), songLog.GetClicks(), timeline.GetMeters(),
                        timeline.lastTickIndex, ticksPerQuarter);
    auto clicksToCome = static_cast<std::int32_t>(clickTicks.size());
    for (unsigned int tick : clickTicks) {
        // A tick listed twice keeps the later, smaller count.
        beatMap_[tick] = --clicksToCome;
    }
}

void HowToPlay::CreateDspTickIndices() {
    dspTickIndices_.clear();
    for (const CL::Transpose& transposition : transpositions_) {
        dspTickIndices_.push_back(transposition.start());
        dspTickIndices_.push_back(transposition.end());
    }
    for (const CL::TempoScale& tempoScale : tempoScales_) {
        dspTickIndices_.push_back(tempoScale.start());
        dspTickIndices_.push_back(tempoScale.end());
    }
    dspTickIndices_.sort();
    dspTickIndices_.unique();
}

void HowToPlay::WriteDspEvents() const {
    kit::CoutBuffer out;
    out << "HowToPlay dsp events:" << kit::endl << "Transpositions:" << kit::endl;
    static_cast<const cmn::VELTSequence&>(transpositions_).WriteString(out);
    out << "Tempo Scales:" << kit::endl;
    static_cast<const cmn::VELTSequence&>(tempoScales_).WriteString(out);
}

// ---- change reports ---------------------------------------------------------------------------

bool HowToPlay::UpdateBar() {
    return ReportTimelineChange(barsBeatsCursor_.current, barsBeatsCursor_.previous, barReported_);
}

bool HowToPlay::UpdateKey() {
    return ReportTimelineChange(keyCursor_.current, keyCursor_.previous, keyReported_);
}

bool HowToPlay::UpdateMeter() {
    return ReportTimelineChange(meterCursor_.current, meterCursor_.previous, meterReported_);
}

bool HowToPlay::UpdateTempo() {
    return ReportTimelineChange(tempoCursor_.current, tempoCursor_.previous, tempoReported_);
}

bool HowToPlay::UpdateClick() {
    return ReportChangeLogChange(clicks_, clickCursor_.current, clickCursor_.previous, inClick_,
                                 previousInClick_, tickIndex_, clickReported_);
}

bool HowToPlay::UpdateTempoScale() {
    return ReportChangeLogChange(tempoScales_, tempoScaleCursor_.current,
                                 tempoScaleCursor_.previous, inTempoScale_, previousInTempoScale_,
                                 tickIndex_, tempoScaleReported_);
}

bool HowToPlay::UpdateTransposition() {
    return ReportChangeLogChange(transpositions_, transpositionCursor_.current,
                                 transpositionCursor_.previous, inTransposition_,
                                 previousInTransposition_, tickIndex_, transpositionReported_);
}

bool HowToPlay::UpdateMarker() {
    // Markers have no coverage: only a move, or the first marker not yet reported, counts.
    constexpr bool noCoverageChange = false;
    return ReportChangeLogChange(markers_, markerCursor_.current, markerCursor_.previous,
                                 noCoverageChange, noCoverageChange, tickIndex_, markerReported_);
}

bool HowToPlay::UpdatePageNumber() {
    constexpr bool noCoverageChange = false;
    return ReportChangeLogChange(pageNums_, pageNumberCursor_.current, pageNumberCursor_.previous,
                                 noCoverageChange, noCoverageChange, tickIndex_,
                                 pageNumberReported_);
}

bool HowToPlay::UpdateClockTime() {
    const bool tempo = UpdateTempo();
    const bool tempoScale = UpdateTempoScale();
    return tempo || tempoScale;
}

bool HowToPlay::UpdateClocksPerClick() {
    const bool meter = UpdateMeter();
    const bool click = UpdateClick();
    return meter || click;
}

// ---- tick arithmetic --------------------------------------------------------------------------

unsigned int HowToPlay::RoundDownToNearestClock(unsigned int tickIndex) const {
    // The clock rounding works on the resolution as a 16-bit value.
    const unsigned int ticksPerClock = static_cast<std::uint16_t>(ticksPerQuarter_) / 24;
    if (tickIndex % ticksPerClock == 0) {
        return tickIndex;
    }
    return tickIndex / ticksPerClock * ticksPerClock;
}

std::pair<bool, unsigned int> HowToPlay::GetNextClockTickIndex(unsigned int tickIndex) const {
    const unsigned int ticksPerClock = static_cast<std::uint16_t>(ticksPerQuarter_) / 24;
    if (tickIndex % ticksPerClock == 0) {
        return {true, tickIndex};
    }
    const double clocks = std::ceil(static_cast<double>(tickIndex) / ticksPerClock);
    return {false, static_cast<unsigned int>(clocks * ticksPerClock)};
}

unsigned int HowToPlay::GetNextMeasureTickIndex(unsigned int tickIndex) const {
    const auto next =
        std::upper_bound(measureTickIndices_.begin(), measureTickIndices_.end(), tickIndex);
    if (next == measureTickIndices_.end()) {
        throw SongEnd("");
    }
    return *next;
}

unsigned int HowToPlay::GetPreviousMeasureTickIndex(unsigned int tickIndex) const {
    const auto atOrAfter =
        std::lower_bound(measureTickIndices_.begin(), measureTickIndices_.end(), tickIndex);
    if (atOrAfter == measureTickIndices_.begin()) {
        throw SongBegin("");
    }
    return *std::prev(atOrAfter);
}

std::array<HowToPlay::Cursor*, 9> HowToPlay::Cursors_() {
    return {&barsBeatsCursor_, &clickCursor_,      &keyCursor_,
            &markerCursor_,    &meterCursor_,      &pageNumberCursor_,
            &tempoCursor_,     &tempoScaleCursor_, &transpositionCursor_};
}

bool HowToPlay::CoversAtPosition_(const CL::PairedEvent& event, unsigned int tickIndex) const {
    if (tickIndex != lastTickIndex_) {
        return event.start() <= tickIndex && tickIndex < event.end();
    }
    return event.start() <= tickIndex && tickIndex <= event.end();
}
