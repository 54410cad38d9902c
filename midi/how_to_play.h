// The playback position: where playback stands in a song and how the song must be played there.
//
// `HowToPlay` keeps a private copy of one song's timeline and change log, the current tick index,
// a cursor into every sequence and the tables derived from them (bar starts, the beat map of
// clicks to song end, the ticks where tempo scales and transpositions begin or end). It moves
// forward cheaply with `AdvanceToTickIndex`, jumps with `Seek`, and answers what is in force.
// `HowToPlayWithMidiClock` is the position that keeps a `MidiClock` in step with the song.
//
// Units: tick indices in the song's resolution (ticks per quarter); ticks per clock = ticks per
// quarter / 24; clock time = seconds per MIDI clock; clocks per click = MIDI clocks in one click.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "interfaces/change_log.h"
#include "interfaces/timeline.h"
#include "midi/midi_clock.h"
#include "midi/user_controls.h"

/// Root of the playback-position errors.
class HowToPlayException : public std::runtime_error {
  public:
    explicit HowToPlayException(const std::string& message) : std::runtime_error(message) {}
};

/// A position could not be advanced.
class HowToPlayErrorNoAdvance : public HowToPlayException {
  public:
    explicit HowToPlayErrorNoAdvance(const std::string& message) : HowToPlayException(message) {}
};

/// The position in one song.
///
/// Threads: none of its own and no lock; a bare HowToPlay is used from one thread at a time, and
/// `HowToPlayWithMidiClock` is serialised by its owner's mutex. It reads `UserControls` (which
/// takes its own mutex for each read) and calls nothing else outside itself.
///
/// Cursors: every sequence has a current cursor (the record in force at the tick index) and a
/// previous cursor (where it stood before the last move); the `Update*` tests compare the two.
/// Cursors are indices into this object's own copies of the sequences, so a copy of a HowToPlay
/// is an independent second position in the same song.
///
/// The destructor is not virtual: positions are held by their concrete type, never deleted
/// through a pointer to this base.
class HowToPlay {
  public:
    /// No bar start lies after the given tick.
    class SongEnd : public std::range_error {
      public:
        explicit SongEnd(const std::string& message) : std::range_error(message) {}
    };
    /// No bar start lies before the given tick.
    class SongBegin : public std::range_error {
      public:
        explicit SongBegin(const std::string& message) : std::range_error(message) {}
    };

    /// An empty song at tick 0. `userControls` is not owned; the creator keeps it alive.
    explicit HowToPlay(UserControls& userControls);
    /// Copy and move carry every field, cursors included: the result is a second position.
    HowToPlay(const HowToPlay&) = default;
    HowToPlay(HowToPlay&&) = default;
    HowToPlay& operator=(const HowToPlay&) = delete;
    HowToPlay& operator=(HowToPlay&&) = delete;
    ~HowToPlay() = default;

    // ---- virtual operations, in this order ---------------------------------------------------

    /// Moves forward to `tickIndex` (clamped to the last tick). A target behind the current tick
    /// becomes a Seek. Keeps the previous cursors so that the Update* tests see what changed.
    /// Cost: amortised constant per sequence for small steps (cursors search forward from
    /// where they stand).
    virtual void AdvanceToTickIndex(unsigned int tickIndex);
    /// The song's last tick index; positions are clamped to it.
    virtual unsigned int GetLastTickIndex() const;
    /// Jumps to `tickIndex` (clamped to the last tick), re-positions every cursor from the start
    /// of its sequence (logarithmic per sequence) and re-arms every change report.
    virtual void Seek(unsigned int tickIndex);
    /// Loads a song (replacing any previous one whole) and leaves the position at tick 0 with
    /// every change report re-armed. `ticksPerQuarter` must be at least 24.
    virtual void SetData(const CL::SongLog& songLog, const TL::Timeline& timeline,
                         unsigned int ticksPerQuarter);
    /// Sets the high-speed flag (a subclass gives it meaning).
    virtual void SetHighSpeed();

  protected:
    /// Clamps a tempo factor to [0.5, 2.0]. Every clock time passes the product of the user's
    /// scale and the song's tempo-scale factor through it.
    virtual double LimitTempoScaleToAllowedRange(double tempoScale) const;

  public:
    // ---- derived tables ------------------------------------------------------------------------

    /// Rebuilds the beat map: the tick of every click of the song to the number of clicks that
    /// follow it up to the song end (the last click maps to 0).
    void CreateBeatTickIndices(const CL::SongLog& songLog, const TL::Timeline& timeline,
                               unsigned int ticksPerQuarter);
    /// Rebuilds the ascending, duplicate-free list of ticks at which a tempo scale or a
    /// transposition starts or ends.
    void CreateDspTickIndices();
    /// Writes the transposition and tempo-scale sequences to the log.
    void WriteDspEvents() const;

    // ---- change reports after a move -----------------------------------------------------------
    //
    // Each test returns true when its item changed with the last move and sets the item's
    // "reported" latch. A record the cursor did not leave reports again only when it is the
    // sequence's first record and the latch is clear, so the first record reports exactly once
    // after each Seek while every later change reports each time the cursor moves. Change-log
    // items also report when their event begins or ends covering the tick.

    bool UpdateBar();
    bool UpdateClick();
    bool UpdateKey();
    bool UpdateMarker();
    bool UpdateMeter();
    bool UpdatePageNumber();
    bool UpdateTempo();
    bool UpdateTempoScale();
    bool UpdateTransposition();
    /// UpdateTempo() || UpdateTempoScale(), both always evaluated (both latches are set).
    bool UpdateClockTime();
    /// UpdateMeter() || UpdateClick(), both always evaluated (both latches are set).
    bool UpdateClocksPerClick();
    void SetMarkerUpdated(bool markerUpdated) { markerReported_ = markerUpdated; }

    // ---- snapshots
    // -------------------------------------------------------------------------------

    /// Tempo scale and transposition values taken at the start of the last AdvanceToTickIndex.
    double GetPreAdvanceTempoScale() const { return preAdvanceTempoScale_; }
    int GetPreAdvanceTransposition() const { return preAdvanceTransposition_; }
    /// Tempo scale and transposition values taken at the start of the last Seek.
    double GetPreSeekTempoScale() const { return preSeekTempoScale_; }
    int GetPreSeekPitchShift() const { return preSeekPitchShift_; }
    /// Seconds per clock and clocks per click at the end of the last Seek: what the clock is
    /// re-armed with after a seek.
    double GetLastSeekClockTime() const { return lastSeekClockTime_; }
    int GetLastSeekClocksPerClick() const { return lastSeekClocksPerClick_; }
    /// The (clamped) target of the last Seek.
    unsigned int GetLastSeekTickIndex() const { return lastSeekTickIndex_; }
    /// Whether SetHighSpeed was called.
    bool GetHighSpeed() const { return highSpeed_; }

    // ---- tick arithmetic
    // -------------------------------------------------------------------------

    /// `tickIndex` rounded down to a multiple of ticks per clock.
    unsigned int RoundDownToNearestClock(unsigned int tickIndex) const;
    /// (true, tickIndex) when the tick lies on a clock; else (false, the next clock's tick).
    std::pair<bool, unsigned int> GetNextClockTickIndex(unsigned int tickIndex) const;
    /// The first bar start strictly after `tickIndex`; throws SongEnd when there is none.
    unsigned int GetNextMeasureTickIndex(unsigned int tickIndex) const;
    /// The last bar start strictly before `tickIndex`; throws SongBegin when there is none.
    unsigned int GetPreviousMeasureTickIndex(unsigned int tickIndex) const;

    // ---- records in force at the tick index ----------------------------------------------------

    const TL::BarsBeats& GetBarBeat() const;
    const TL::Meter& GetMeter() const;
    const TL::Key& GetKey() const;
    const TL::Tempo& GetTempo() const;
    /// Throw std::out_of_range ("no Click", "no TempoScale", "no Transposition", "no markers",
    /// "There are no PageNums") when the song has none.
    const CL::Click& GetClick() const;
    const CL::TempoScale& GetTempoScale() const;
    const CL::Transpose& GetTranspose() const;
    const CL::Marker& GetMarker() const;
    const TL::PageNum& GetPageNumber() const;

    // ---- values
    // ----------------------------------------------------------------------------------

    unsigned int GetTickIndex() const { return tickIndex_; }
    /// The effective tempo factor: the user's scale times a covering song tempo scale, limited;
    /// with no covering tempo scale, the user's scale as it is (not limited).
    double GetTempoScaleValue() const;
    /// The same at `tickIndex` (an event covers [start, end) there, with no song-end exception).
    double GetTempoScaleValueAtTickIndex(unsigned int tickIndex) const;
    /// Seconds per MIDI clock at the tick: the tempo's clock time divided by the limited product
    /// of the user's scale and a covering tempo scale's factor.
    double GetClockTime() const;
    /// Clicks per minute at the tick, tempo scale applied.
    double GetTempoDouble() const;
    /// GetTempoDouble() rounded to the nearest integer.
    int GetTempoInteger() const;
    /// MIDI clocks in one click: the meter's, or a covering click event's length.
    int GetClocksPerClick() const;
    int GetClocksPerClickAtTickIndex(unsigned int tickIndex) const;
    /// Notated 32nds per click: a covering click event's value, else the meter's.
    int GetNotated32PerClick() const;
    /// The clock within the click at the tick, counted from the bar start.
    int GetClockNumber() const;
    /// The clock within the click at `tickIndex`, counted from the start of the click event in
    /// force there when a beat record lies on it, else from the bar start.
    int GetClockNumberAtTickIndex(unsigned int tickIndex) const;
    /// The number of clicks left after the first click strictly after the tick; 0 when no click
    /// follows.
    int GetClicksToSongEnd() const;
    /// The first tick after the current one where a tempo scale or transposition starts or ends;
    /// the last tick index when none does.
    unsigned int GetTickIndexOfNextDspEvent() const;
    /// Semitones in force: the user's transposition plus a covering song transposition.
    int GetTranspositionValue() const;
    int GetTranspositionValueAtTickIndex(unsigned int tickIndex) const;
    /// (GetTranspositionValue(), the value last reported); stores the current value as the last
    /// reported one.
    std::pair<int, int> GetTranspositionPair();
    /// The page in force, 1 when the song has no page numbers.
    int GetPageNumberValue() const;
    /// The marker in force; throw std::out_of_range "there are no markers" when there are none.
    unsigned int GetMarkerTickIndex() const;
    std::string GetMarkerString() const;
    /// "<song number> <song name>".
    std::string GetSongTitle() const { return songTitle_; }
    /// Whether the marker and song title are due to be shown (set by SetData); clears the flag.
    bool GetSendMarkerAndSongTitle();

    // ---- display strings
    // -------------------------------------------------------------------------

    /// "12:3".
    std::string GetBarString() const;
    /// "6/8".
    std::string GetMeterString() const;
    /// The key's name under the transposition in force.
    std::string GetKeyString() const;
    /// Clicks per minute with two decimals ("120.00").
    std::string GetTempoString() const;
    /// The effective tempo factor in percent with no decimals, "%" and a line end ("100%\n").
    std::string GetTempoScaleString() const;

  private:
    /// Where a sequence's cursor stands now and stood before the last move (record indices).
    struct Cursor {
        std::size_t current = 0;
        std::size_t previous = 0;
    };

    /// The nine cursors, for the moves that treat them all alike.
    std::array<Cursor*, 9> Cursors_();
    /// Whether a change-log event is in force at `tickIndex` for the current position: [start,
    /// end), but with the end included at the song's last tick so that an event running to the
    /// end of the song stays in force there.
    bool CoversAtPosition_(const CL::PairedEvent& event, unsigned int tickIndex) const;
    unsigned int TicksPerClock_() const { return ticksPerQuarter_ / 24; }
    /// Number of ticks from the bars-beats record at `index` to `tickIndex` in whole clocks,
    /// modulo `clocksPerClick`.
    int ClockNumberFrom_(std::size_t index, unsigned int tickIndex, int clocksPerClick) const;

    unsigned int tickIndex_ = 0;
    int lastTransposition_ = 0;
    std::vector<std::uint32_t> measureTickIndices_;
    unsigned int ticksPerQuarter_ = 0;
    UserControls& userControls_;
    std::list<std::uint32_t> dspTickIndices_;
    std::map<std::uint32_t, std::int32_t> beatMap_;
    unsigned int lastTickIndex_ = 0;
    double preAdvanceTempoScale_ = 1.0;
    int preAdvanceTransposition_ = 0;
    bool sendMarkerAndSongTitle_ = false;
    std::string songTitle_;

    TL::TimelineSequence<TL::BarsBeats> barsBeats_;
    CL::ChangeLogSequence<CL::Click> clicks_;
    TL::TimelineSequence<TL::Key> keys_;
    CL::MarkerSequence markers_;
    TL::TimelineSequence<TL::Meter> meters_;
    TL::TimelineSequence<TL::PageNum> pageNums_;
    TL::TimelineSequence<TL::Tempo> tempos_;
    CL::ChangeLogSequence<CL::TempoScale> tempoScales_;
    CL::ChangeLogSequence<CL::Transpose> transpositions_;

    Cursor barsBeatsCursor_;
    Cursor clickCursor_;
    Cursor keyCursor_;
    Cursor markerCursor_;
    Cursor meterCursor_;
    Cursor pageNumberCursor_;
    Cursor tempoCursor_;
    Cursor tempoScaleCursor_;
    Cursor transpositionCursor_;

    bool inClick_ = false;
    bool inTransposition_ = false;
    bool inTempoScale_ = false;
    bool previousInClick_ = false;
    bool previousInTransposition_ = false;
    bool previousInTempoScale_ = false;

    bool hasClicks_ = false;
    bool hasMarkers_ = false;
    bool hasTempoScales_ = false;
    bool hasTranspositions_ = false;
    bool hasPageNumbers_ = false;

    bool barReported_ = false;
    bool clickReported_ = false;
    bool keyReported_ = false;
    bool markerReported_ = false;
    bool meterReported_ = false;
    bool pageNumberReported_ = false;
    bool tempoScaleReported_ = false;
    bool tempoReported_ = false;
    bool transpositionReported_ = false;

    unsigned int lastSeekTickIndex_ = 0;
    int lastSeekClocksPerClick_ = 0;
    double lastSeekClockTime_ = 0.0;
    double preSeekTempoScale_ = 1.0;
    int preSeekPitchShift_ = 0;
    bool highSpeed_ = false;

    friend class HowToPlayWithMidiClock;
};

/// The position that keeps a MidiClock in step with the song: every forward move that brings a
/// new tempo, tempo scale, meter or click length hands the clock its new clock time or clocks per
/// click, valid at the requested tick. Seek leaves the clock alone: after a seek the caller
/// re-arms the clock with GetLastSeekClockTime() and GetLastSeekClocksPerClick().
///
/// Threads: no mutex of its own. The host serialises every call with a plain mutex and advances
/// from its buffer-fill callback on the output pipeline's queue thread, through
/// AdvanceToTickIndexWithLock, which releases that mutex around each call into the clock: the
/// clock takes its own recursive mutex, and its timer thread must never wait on the host's mutex
/// while this thread holds the host's mutex and waits on the clock's.
class HowToPlayWithMidiClock : public HowToPlay {
  public:
    /// Neither argument is owned; the creator keeps both alive.
    HowToPlayWithMidiClock(UserControls& userControls, MidiClock& midiClock);
    /// A copy is a second position driving the same clock.
    HowToPlayWithMidiClock(const HowToPlayWithMidiClock&) = default;
    HowToPlayWithMidiClock(HowToPlayWithMidiClock&&) = default;

    /// HowToPlay::AdvanceToTickIndex, then schedules the clock's new clock time and clocks per
    /// click at `tickIndex` (the requested tick, not the clamped position) if they changed.
    void AdvanceToTickIndex(unsigned int tickIndex) override;
    /// AdvanceToTickIndex for a caller that holds `lock` on the mutex serialising this object:
    /// the lock is released around each call into the clock and held again afterwards (also
    /// when the clock throws).
    void AdvanceToTickIndexWithLock(unsigned int tickIndex, std::unique_lock<std::mutex>& lock);
    /// The clock time and clocks per click with which the clock resumes after a caesura: those in
    /// force at the first beat at or after `tickIndex`. Either pointer may be null. Throws
    /// std::out_of_range when no beat lies at or after the tick. Never moves the position.
    void GetCaesuraResumeParams(unsigned int tickIndex, double* clockTime,
                                int* clocksPerClick) const;
    /// Sets the high-speed flag and makes the present clock time apply at once.
    void SetHighSpeed() override;

  private:
    /// The clock changes that the last move brought, in the order they are handed to the clock.
    template <typename AroundClockCall>
    void ScheduleClockChanges_(unsigned int validAt, AroundClockCall&& aroundClockCall);

    MidiClock& midiClock_;
};
