// PersistentMIDI: the chase state of one voice track, i.e. what a receiving instrument holds if
// every event of the track up to the play position had been sent.
#pragma once

#include <map>
#include <optional>
#include <utility>

#include "interfaces/song_data.h"

/// Held notes inside the track's playable range ("notes"), held notes outside it (keyswitches,
/// "switches": articulation switches of a sampled instrument), the last value of every
/// controller, the last program change and the last pitch bend. Transposition is applied here
/// because it only makes sense for notes inside the playable range.
///
/// A plain value: no locks, no threads of its own; the owning stream serialises access.
class PersistentMIDI {
  public:
    /// Key: the event's first data byte (note or controller number).
    using EventMap = std::map<unsigned char, velt_midi::VoiceEvent>;
    using Range = std::pair<unsigned char, unsigned char>;

    /// No range (255, 255): every note counts as a switch and nothing is transposed.
    PersistentMIDI() = default;
    /// Inclusive (low, high); (255, 255) means no range.
    explicit PersistentMIDI(Range range);

    /// Stores the range; the pair (255, 255) (low >= 255, high == low) means no range. Notes held
    /// already stay in the map they were entered in.
    void SetRange(Range range);
    Range GetRange() const { return range_; }
    bool GetHasRange() const { return hasRange_; }

    /// Updates the state with `e`.
    void AddEvent(const velt_midi::VoiceEvent& e);
    /// Updates the state with `e` and returns the event to send in its place: note-ons inside the
    /// range and every note-off are transposed; switch note-ons and everything else go as they
    /// are. The switch asymmetry (on untransposed, off transposed) is intended.
    velt_midi::VoiceEvent AddEvent(const velt_midi::VoiceEvent& e, signed char transposition);
    /// A copy of `e` with its first data byte transposed by GetTransposedNote; for note events.
    velt_midi::VoiceEvent GetTransposedEvent(const velt_midi::VoiceEvent& e,
                                             signed char transposition) const;
    /// `note` + `transposition` in byte arithmetic (wrapping modulo 256), then one octave of
    /// correction towards the range: below low adds 12, above high subtracts 12. Unchanged when
    /// there is no range or the transposition is 0.
    unsigned char GetTransposedNote(unsigned char note, signed char transposition) const;
    /// The pitch a note-on of `key` sounds at as AddEvent sends it: transposed inside the range,
    /// as it is outside (a switch).
    unsigned char GetSoundingNote(unsigned char key, signed char transposition) const;
    /// The note-off to send before the note-on `e` when a held note or switch already sounds at
    /// the pitch `e` sounds at: the same key struck again, or two keys an octave apart that the
    /// range correction folds onto one pitch. A synth that gives every note-on a voice of its own
    /// would otherwise keep one voice after the single note-off the chase state expects. The
    /// note-off carries `e`'s time, channel and velocity; nothing for other events.
    std::optional<velt_midi::VoiceEvent> GetReleaseBeforeStrike(const velt_midi::VoiceEvent& e,
                                                                signed char transposition) const;

    /// The entries of `other` whose keys are held here (with `other`'s events); those keys are
    /// forgotten here. The caller sends the rest and re-adds what was filtered.
    EventMap FilterNotes(const EventMap& other);
    EventMap FilterSwitches(const EventMap& other);
    /// The entries of `other` whose controllers are known here; the state is not changed.
    EventMap FilterCCs(const EventMap& other) const;

    /// Note-offs (stored time and channel, velocity of the stored note-on) for every held note
    /// whose key `other` does not hold: what to release when moving to `other`.
    EventMap GetInverseNotes(const EventMap& other) const;
    EventMap GetInverseSwitches(const EventMap& other) const;
    /// Every stored controller not in `other`, with value 0.
    EventMap GetInverseCCs(const EventMap& other) const;

    EventMap& GetNotes() { return notes_; }
    const EventMap& GetNotes() const { return notes_; }
    EventMap& GetSwitches() { return switches_; }
    const EventMap& GetSwitches() const { return switches_; }
    EventMap& GetCCs() { return ccs_; }
    const EventMap& GetCCs() const { return ccs_; }
    velt_midi::VoiceEvent& GetProgramChange() { return programChange_; }
    const velt_midi::VoiceEvent& GetProgramChange() const { return programChange_; }
    velt_midi::VoiceEvent& GetPitchBend() { return pitchBend_; }
    const velt_midi::VoiceEvent& GetPitchBend() const { return pitchBend_; }
    bool HasProgramChange() const { return hasProgramChange_; }
    bool GetHasPitchBend() const { return hasPitchBend_; }
    void SetHasPitchBend(bool hasPitchBend) { hasPitchBend_ = hasPitchBend; }

    /// Diagnostic dump to the log: notes, switches and controllers (not program or pitch bend).
    void PrintYourself() const;

  private:
    bool IsInRange_(unsigned char key) const { return key >= range_.first && key <= range_.second; }
    static EventMap Filter_(EventMap& own, const EventMap& other);
    static EventMap GetInverse_(const EventMap& own, const EventMap& other);

    Range range_{255, 255};
    bool hasRange_ = false;
    EventMap switches_;
    EventMap ccs_;
    EventMap notes_;
    velt_midi::VoiceEvent programChange_;
    velt_midi::VoiceEvent pitchBend_;
    bool hasProgramChange_ = false;
    bool hasPitchBend_ = false;
};
