// The song's change log as the core library stores it: clicks (click-length changes), tempo
// scales and transpositions, each covering a half-open range of ticks [start, end), and markers.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "interfaces/timeline.h"

namespace kit {
class CoutBuffer;
}

namespace cmn {
/// Base of every polymorphic event of the song model.
class VeltEvent {
  public:
    virtual ~VeltEvent() = default;
    virtual unsigned char code() const = 0;
};
}  // namespace cmn

namespace CL {

/// A change-log event that covers the half-open tick range [start, end).
class PairedEvent : public cmn::VeltEvent {
  public:
    PairedEvent() = default;
    PairedEvent(std::uint32_t start, std::uint32_t end) : start_(start), end_(end) {}

    virtual unsigned int start() const { return start_; }
    virtual unsigned int end() const { return end_; }
    virtual void start(unsigned int tick) { start_ = tick; }
    virtual void end(unsigned int tick) { end_ = tick; }
    /// The event's whole-number value (semitones for a transposition, notated 32nds for a click).
    virtual int int_value() const { return 0; }
    /// The event's fractional value (the factor of a tempo scale).
    virtual float float_value() const { return 0.0f; }
    /// The event's value as text.
    virtual std::string value() const = 0;
    /// "<name>[<start>, <end>) <value>".
    virtual void WriteString(std::ostream& out) const;
    virtual void WriteString(kit::CoutBuffer& out) const;

  private:
    std::uint32_t start_ = 0;
    std::uint32_t end_ = 0;
};

/// A click-length change: over its range a click lasts `int_value()` notated 32nd notes.
class Click : public PairedEvent {
  public:
    static constexpr unsigned char evt_code = 0x70;

    Click() = default;
    Click(std::uint32_t start, std::uint32_t end, int notated32ndsPerClick)
        : PairedEvent(start, end), notated32nds_(notated32ndsPerClick) {}

    unsigned char code() const override { return evt_code; }
    int int_value() const override { return notated32nds_; }
    float float_value() const override { return static_cast<float>(notated32nds_); }
    std::string value() const override;

    /// The click length in MIDI clocks given the meter's notated 32nds per quarter-note-click:
    /// int_value() × 24 / meterNotated32nds in integer arithmetic (a click of 12 notated 32nds
    /// under a meter of 8 is 36 clocks, a dotted quarter). A zero meter value yields 0.
    virtual std::uint32_t ClocksPerClick(unsigned char meterNotated32nds) const;

  private:
    int notated32nds_ = 8;
};

/// A tempo factor over its range (1.0 is the written tempo).
class TempoScale : public PairedEvent {
  public:
    static constexpr unsigned char evt_code = 0x71;

    TempoScale() = default;
    TempoScale(std::uint32_t start, std::uint32_t end, float factor)
        : PairedEvent(start, end), factor_(factor) {}

    unsigned char code() const override { return evt_code; }
    int int_value() const override { return static_cast<int>(factor_ * 100.0f + 0.5f); }
    float float_value() const override { return factor_; }
    std::string value() const override;

  private:
    float factor_ = 1.0f;
};

/// A transposition in semitones over its range.
class Transpose : public PairedEvent {
  public:
    static constexpr unsigned char evt_code = 0x72;

    Transpose() = default;
    Transpose(std::uint32_t start, std::uint32_t end, int semitones)
        : PairedEvent(start, end), semitones_(semitones) {}

    unsigned char code() const override { return evt_code; }
    int int_value() const override { return semitones_; }
    float float_value() const override { return static_cast<float>(semitones_); }
    std::string value() const override;

  private:
    int semitones_ = 0;
};

/// A change-log sequence: events held by value, sorted by start tick.
template <typename T>
class ChangeLogSequence : public cmn::SequenceTemplate<T> {
  public:
    using cmn::SequenceTemplate<T>::SequenceTemplate;
    ChangeLogSequence() = default;
    ChangeLogSequence(const ChangeLogSequence&) = default;
    ChangeLogSequence& operator=(const ChangeLogSequence&) = default;
    ~ChangeLogSequence() override = default;
};

/// A named position in the song.
struct Marker {
    static constexpr unsigned char evt_code = 0x06;

    std::uint32_t tick_index = 0;
    std::string text;

    void WriteString(std::ostream& out) const;
};

/// The song's markers, sorted by tick index.
class MarkerSequence : public cmn::SequenceTemplate<Marker> {
  public:
    using cmn::SequenceTemplate<Marker>::SequenceTemplate;
};

/// A song's change log and identity.
class SongLog {
  public:
    const ChangeLogSequence<Click>& GetClicks() const { return clicks_; }
    const ChangeLogSequence<TempoScale>& GetTempoScales() const { return tempoScales_; }
    const ChangeLogSequence<Transpose>& GetTranspositions() const { return transpositions_; }
    const MarkerSequence& GetMarkers() const { return markers_; }
    ChangeLogSequence<Click>& GetClicks() { return clicks_; }
    ChangeLogSequence<TempoScale>& GetTempoScales() { return tempoScales_; }
    ChangeLogSequence<Transpose>& GetTranspositions() { return transpositions_; }
    MarkerSequence& GetMarkers() { return markers_; }

    std::string GetSongName() const { return songName_; }
    std::string GetSongNumber() const { return songNumber_; }
    void SetSongName(std::string name) { songName_ = std::move(name); }
    void SetSongNumber(std::string number) { songNumber_ = std::move(number); }

  private:
    ChangeLogSequence<Click> clicks_;
    ChangeLogSequence<TempoScale> tempoScales_;
    ChangeLogSequence<Transpose> transpositions_;
    MarkerSequence markers_;
    std::string songName_;
    std::string songNumber_;
};

}  // namespace CL
