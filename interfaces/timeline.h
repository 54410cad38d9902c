// The song's timeline as the core library `velt_core` stores it: tempos, bars and beats, meters,
// keys and page numbers, each a sequence sorted by ascending tick index, plus the song's last
// tick. The engine reads the record fields directly, so their order and widths are fixed here.
//
// Units: a tick index is an unsigned 32-bit position in the song's own resolution (ticks per
// quarter note). A MIDI clock is 1/24 of a quarter note. A click is one conducted beat.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace kit {
class CoutBuffer;
}

namespace cmn {

/// Base of every sequence of the song model. A sequence reports a one-byte event code (its record
/// type's `evt_code`) and can dump itself for diagnostics. The engine copies a sequence by
/// assigning this base and then the vector of records.
class VELTSequence {
  public:
    virtual ~VELTSequence() = default;
    VELTSequence() = default;
    VELTSequence(const VELTSequence&) = default;
    VELTSequence& operator=(const VELTSequence&) = default;
    VELTSequence(VELTSequence&&) = default;
    VELTSequence& operator=(VELTSequence&&) = default;

    /// The record type's event code.
    virtual unsigned char code() const = 0;
    virtual std::size_t size() const = 0;
    /// "Sequence(code=<code> <name>, event count = <n>" and a line end, then one line per record
    /// (its WriteString), then ")" and a line end; <name> comes from
    /// codes::editNameByVeltEventCode.
    virtual void WriteString(std::ostream& out) const = 0;
    void WriteString(kit::CoutBuffer& out) const;
};

/// A sequence of records of type T held in one contiguous vector.
template <typename T>
class SequenceTemplate : public VELTSequence {
  public:
    using value_type = T;
    using iterator = typename std::vector<T>::iterator;
    using const_iterator = typename std::vector<T>::const_iterator;

    SequenceTemplate() = default;
    explicit SequenceTemplate(std::vector<T> records) : records_(std::move(records)) {}

    unsigned char code() const override { return T::evt_code; }
    std::size_t size() const override { return records_.size(); }
    bool empty() const { return records_.empty(); }
    void WriteString(std::ostream& out) const override;

    iterator begin() { return records_.begin(); }
    iterator end() { return records_.end(); }
    const_iterator begin() const { return records_.begin(); }
    const_iterator end() const { return records_.end(); }
    T& operator[](std::size_t i) { return records_[i]; }
    const T& operator[](std::size_t i) const { return records_[i]; }
    const T& front() const { return records_.front(); }
    const T& back() const { return records_.back(); }

    /// The vector of records itself.
    std::vector<T>& GetVector() { return records_; }
    const std::vector<T>& GetVector() const { return records_; }

    void push_back(T record) { records_.push_back(std::move(record)); }
    void clear() { records_.clear(); }

  private:
    std::vector<T> records_;
};

}  // namespace cmn

namespace codes {
/// Display names of the event codes, for diagnostics.
extern const std::map<unsigned char, std::string> editNameByVeltEventCode;
}  // namespace codes

namespace TL {

/// Tempo from a tick on. The value is microseconds per quarter note, as in Standard MIDI Files
/// (500000 = 120 quarter notes per minute), and is read through the accessors.
///
/// The accessors are exact in the sense that each is one division of two integers that a double
/// holds exactly, so the only error is the final rounding: 500000 us/quarter at 480 ticks per
/// quarter gives exactly the double nearest 1/960 s per tick.
struct Tempo {
    static constexpr unsigned char evt_code = 0x51;

    std::uint32_t tick_index = 0;
    std::uint32_t microseconds_per_quarter = 500000;

    /// Seconds per tick: microseconds per quarter / (10^6 × ticks per quarter). A resolution of 0
    /// yields 0.
    double tick_time(std::uint16_t ticksPerQuarter) const;
    /// Clicks per minute for a click of `clocksPerClick` clocks: 60 / (clocksPerClick × seconds
    /// per clock) = 60 × 24 × 10^6 / (clocksPerClick × microseconds per quarter). A click of 24
    /// clocks is a quarter note, so bpm(24) is the usual tempo (120 at 500000). A zero click or a
    /// zero tempo value yields 0.
    double bpm(unsigned char clocksPerClick) const;
    /// Seconds per MIDI clock: microseconds per quarter / (24 × 10^6), no tempo scale applied.
    double seconds_per_clock() const;

    void WriteString(std::ostream& out) const;
};
static_assert(sizeof(Tempo) == 8);

/// A bar/beat position. `bar` and `bar_beat` are the display only `as_string` reads ("12:3");
/// `beat` is the beat number within the bar, 1 on the first beat of a bar.
struct BarsBeats {
    static constexpr unsigned char evt_code = 0x60;

    std::uint32_t tick_index = 0;
    std::int32_t bar = 1;
    std::int32_t bar_beat = 1;
    std::uint32_t beat = 1;

    void WriteString(std::ostream& out) const;
};
static_assert(sizeof(BarsBeats) == 16);

/// A time signature from a tick on. `numerator`/`denominator` (the written signature, e.g. 6 and
/// 8; the denominator is the real note value, not a power of two) are read only by `as_string`.
/// `clocks_per_click` is the MIDI clocks in one click of this meter (36 for a dotted-quarter
/// click in 6/8). `notated_32nds` is the number of notated 32nd notes in a 24-clock click (a MIDI
/// quarter note), as in the key byte of a Standard MIDI File time signature; 8 is the usual
/// value. A click event's length in clocks is its 32nds × 24 / notated_32nds (CL::Click).
struct Meter {
    static constexpr unsigned char evt_code = 0x58;

    std::uint32_t tick_index = 0;
    std::uint8_t numerator = 4;
    std::uint8_t denominator = 4;
    std::uint8_t clocks_per_click = 24;
    std::uint8_t notated_32nds = 8;

    unsigned char notated_32_per_click() const { return notated_32nds; }
    void WriteString(std::ostream& out) const;
};
static_assert(sizeof(Meter) == 8);

/// A key signature from a tick on: `sharps_flats` is -7..7 (negative for flats) and `minor` is 0
/// for a major key, 1 for a minor key (the Standard MIDI File key-signature bytes).
struct Key {
    static constexpr unsigned char evt_code = 0x59;

    std::uint32_t tick_index = 0;
    std::int16_t sharps_flats = 0;
    std::int16_t minor = 0;

    void WriteString(std::ostream& out) const;
};
static_assert(sizeof(Key) == 8);

/// The page of the score from a tick on.
struct PageNum {
    static constexpr unsigned char evt_code = 0x61;

    std::uint32_t tick_index = 0;
    std::int32_t page = 1;

    void WriteString(std::ostream& out) const;
};
static_assert(sizeof(PageNum) == 8);

/// A timeline sequence: records sorted by ascending tick index.
template <typename T>
class TimelineSequence : public cmn::SequenceTemplate<T> {
  public:
    using cmn::SequenceTemplate<T>::SequenceTemplate;

    /// Index of the last record whose tick index is <= tick, or 0 when none is (the first
    /// record); the sequence must not be empty.
    std::size_t IndexAt(std::uint32_t tick) const {
        const auto& v = this->GetVector();
        auto it = std::upper_bound(v.begin(), v.end(), tick,
                                   [](std::uint32_t t, const T& r) { return t < r.tick_index; });
        return it == v.begin() ? 0 : static_cast<std::size_t>(it - v.begin()) - 1;
    }
};

/// A song's timeline.
class Timeline {
  public:
    TimelineSequence<Tempo>& GetTempos() { return tempos_; }
    const TimelineSequence<Tempo>& GetTempos() const { return tempos_; }
    TimelineSequence<BarsBeats>& GetBarsBeats() { return barsBeats_; }
    const TimelineSequence<BarsBeats>& GetBarsBeats() const { return barsBeats_; }
    TimelineSequence<Meter>& GetMeters() { return meters_; }
    const TimelineSequence<Meter>& GetMeters() const { return meters_; }
    TimelineSequence<Key>& GetKeys() { return keys_; }
    const TimelineSequence<Key>& GetKeys() const { return keys_; }
    TimelineSequence<PageNum>& GetPageNums() { return pageNums_; }
    const TimelineSequence<PageNum>& GetPageNums() const { return pageNums_; }

    /// The song's last tick index: the end of the song.
    std::uint32_t lastTickIndex = 0;

  private:
    TimelineSequence<Tempo> tempos_;
    TimelineSequence<BarsBeats> barsBeats_;
    TimelineSequence<Meter> meters_;
    TimelineSequence<Key> keys_;
    TimelineSequence<PageNum> pageNums_;
};

}  // namespace TL

/// "12:3" (bar, colon, beat) for a bars-beats record.
std::string as_string(const TL::BarsBeats& barsBeats);
/// "6/8" for a meter.
std::string as_string(const TL::Meter& meter);

namespace Keys {
/// The name of a key under transposition: `minor` and `sharpsFlats` as in TL::Key, transposed by
/// `transposition` semitones ("F major", "Bb major", "C# minor"). Untransposed (or by whole
/// octaves) the key keeps its written spelling. Otherwise the spelling with fewer accidentals is
/// chosen; where both have six (F#/Gb major, D#/Eb minor), a key written with sharps stays with
/// sharps and one written with flats with flats, and C major or A minor goes sharp when
/// transposed up and flat when transposed down.
std::string getTransposedName(std::int16_t minor, std::int16_t sharpsFlats,
                              std::int16_t transposition);
}  // namespace Keys

// ---------------------------------------------------------------------------------------------
// Template definitions

template <typename T>
void cmn::SequenceTemplate<T>::WriteString(std::ostream& out) const {
    auto name = codes::editNameByVeltEventCode.find(T::evt_code);
    out << "Sequence(code=" << static_cast<int>(T::evt_code) << ' '
        << (name == codes::editNameByVeltEventCode.end() ? std::string("?") : name->second)
        << ", event count = " << records_.size() << '\n';
    for (const auto& record : records_) {
        out << "  ";
        record.WriteString(out);
        out << '\n';
    }
    out << ")\n";
}
