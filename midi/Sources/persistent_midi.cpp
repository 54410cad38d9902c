#include "midi/persistent_midi.h"

#include <algorithm>
#include <string>

#include "interfaces/kit.h"
#include "midi/Sources/channel_messages.h"

using namespace channel_message;

namespace {
constexpr unsigned char kNoRange = 255;
constexpr unsigned char kOctave = 12;

bool IsNoRange(PersistentMIDI::Range range) {
    return range.first >= kNoRange && range.second == kNoRange;
}

// One line per entry: the key's name padded to 8 characters, then the event's text form.
void PrintEntries(kit::CoutBuffer& out, const PersistentMIDI::EventMap& entries, bool asNotes) {
    for (const auto& [key, event] : entries) {
        std::string name = asNotes ? kit::midi::GetNoteName(key) : std::to_string(key);
        name.resize(std::max<std::size_t>(name.size(), 8), ' ');
        out << "    " << name;
        event.WriteString(out.stream());
        out << kit::endl;
    }
}
}  // namespace

PersistentMIDI::PersistentMIDI(Range range) : range_(range), hasRange_(!IsNoRange(range)) {}

void PersistentMIDI::SetRange(Range range) {
    range_ = range;
    hasRange_ = !IsNoRange(range);
}

void PersistentMIDI::AddEvent(const velt_midi::VoiceEvent& e) {
    AddEvent(e, 0);
}

// The range test uses the raw range bytes also when there is no range: with (255, 255) no note
// lies inside it. A note-on with velocity 0 is stored like any other note-on.
velt_midi::VoiceEvent PersistentMIDI::AddEvent(const velt_midi::VoiceEvent& e,
                                               signed char transposition) {
    const unsigned char key = e.data1;
    switch (KindOf(e.status)) {
        case kNoteOff:
            switches_.erase(key);
            notes_.erase(key);
            return GetTransposedEvent(e, transposition);
        case kNoteOn:
            if (IsInRange_(key)) {
                notes_[key] = e;
                return GetTransposedEvent(e, transposition);
            }
            switches_[key] = e;
            return e;
        case kControlChange:
            ccs_[key] = e;
            return e;
        case kProgramChange:
            programChange_ = e;
            hasProgramChange_ = true;
            return e;
        case kPitchBend:
            pitchBend_ = e;
            hasPitchBend_ = true;
            return e;
        default:
            return e;
    }
}

velt_midi::VoiceEvent PersistentMIDI::GetTransposedEvent(const velt_midi::VoiceEvent& e,
                                                         signed char transposition) const {
    velt_midi::VoiceEvent transposed = e;
    transposed.data1 = GetTransposedNote(e.data1, transposition);
    return transposed;
}

// Byte arithmetic on purpose: a sum below 0 wraps to 256 + sum, which is above `high`, so it is
// lowered by an octave, not raised. One octave of correction only.
unsigned char PersistentMIDI::GetTransposedNote(unsigned char note,
                                                signed char transposition) const {
    if (!hasRange_ || transposition == 0) {
        return note;
    }
    const auto n = static_cast<unsigned char>(note + transposition);
    if (n < range_.first) {
        return static_cast<unsigned char>(n + kOctave);
    }
    if (n > range_.second) {
        return static_cast<unsigned char>(n - kOctave);
    }
    return n;
}

unsigned char PersistentMIDI::GetSoundingNote(unsigned char key, signed char transposition) const {
    return IsInRange_(key) ? GetTransposedNote(key, transposition) : key;
}

// Every held entry was entered under the present range, so it sounds where GetSoundingNote says.
std::optional<velt_midi::VoiceEvent> PersistentMIDI::GetReleaseBeforeStrike(
    const velt_midi::VoiceEvent& e, signed char transposition) const {
    if (KindOf(e.status) != kNoteOn) {
        return std::nullopt;
    }
    const unsigned char pitch = GetSoundingNote(e.data1, transposition);
    const auto soundsAtPitch = [&](const auto& entry) {
        return GetSoundingNote(entry.first, transposition) == pitch;
    };
    if (std::none_of(notes_.begin(), notes_.end(), soundsAtPitch) &&
        std::none_of(switches_.begin(), switches_.end(), soundsAtPitch)) {
        return std::nullopt;
    }
    velt_midi::VoiceEvent off = e;
    off.status = static_cast<unsigned char>(kNoteOff | (e.status & 0x0F));
    off.data1 = pitch;
    return off;
}

PersistentMIDI::EventMap PersistentMIDI::Filter_(EventMap& own, const EventMap& other) {
    EventMap held;
    for (const auto& [key, event] : other) {
        if (own.erase(key) != 0) {
            held.emplace(key, event);
        }
    }
    return held;
}

PersistentMIDI::EventMap PersistentMIDI::FilterNotes(const EventMap& other) {
    return Filter_(notes_, other);
}

PersistentMIDI::EventMap PersistentMIDI::FilterSwitches(const EventMap& other) {
    return Filter_(switches_, other);
}

PersistentMIDI::EventMap PersistentMIDI::FilterCCs(const EventMap& other) const {
    EventMap known;
    for (const auto& [key, event] : other) {
        if (ccs_.count(key) != 0) {
            known.emplace(key, event);
        }
    }
    return known;
}

PersistentMIDI::EventMap PersistentMIDI::GetInverse_(const EventMap& own, const EventMap& other) {
    EventMap releases;
    for (const auto& [key, event] : own) {
        if (other.count(key) == 0) {
            velt_midi::VoiceEvent off = event;
            off.status = static_cast<unsigned char>(kNoteOff | (event.status & 0x0F));
            off.data1 = key;
            releases.emplace(key, off);
        }
    }
    return releases;
}

PersistentMIDI::EventMap PersistentMIDI::GetInverseNotes(const EventMap& other) const {
    return GetInverse_(notes_, other);
}

PersistentMIDI::EventMap PersistentMIDI::GetInverseSwitches(const EventMap& other) const {
    return GetInverse_(switches_, other);
}

PersistentMIDI::EventMap PersistentMIDI::GetInverseCCs(const EventMap& other) const {
    EventMap resets;
    for (const auto& [key, event] : ccs_) {
        if (other.count(key) == 0) {
            velt_midi::VoiceEvent zero = event;
            zero.data2 = 0;
            resets.emplace(key, zero);
        }
    }
    return resets;
}

void PersistentMIDI::PrintYourself() const {
    kit::CoutBuffer out;
    out << "PersistentMidi" << kit::endl;
    out << "  Notes:" << kit::endl;
    PrintEntries(out, notes_, true);
    out << "  Switches:" << kit::endl;
    PrintEntries(out, switches_, true);
    out << "  CCs:" << kit::endl;
    PrintEntries(out, ccs_, false);
}
