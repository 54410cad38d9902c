// Helpers shared by the stream tests: a stream that takes each track's own range, and short
// names for events.
#pragma once

#include <vector>

#include "midi/midi_stream.h"
#include "tests/recording_midi_buffer.h"

/// The base stream with its checkpoints built: every track's chase state takes the track's own
/// range pair.
class RangedMidiStream : public MidiStream {
  public:
    explicit RangedMidiStream(const velt_midi::SongData& song) : MidiStream(song) {
        InitializePersistenceData();
    }
};

namespace stream_test {
using velt_midi::VoiceEvent;

inline VoiceEvent On(unsigned short track, unsigned char note, unsigned char velocity,
                     unsigned int tick = 0) {
    return VoiceEvent(tick, 0x90, track, note, velocity);
}
inline VoiceEvent Off(unsigned short track, unsigned char note, unsigned char velocity = 0x40,
                      unsigned int tick = 0) {
    return VoiceEvent(tick, 0x80, track, note, velocity);
}
inline VoiceEvent Cc(unsigned short track, unsigned char controller, unsigned char value,
                     unsigned int tick = 0) {
    return VoiceEvent(tick, 0xB0, track, controller, value);
}
inline VoiceEvent Pc(unsigned short track, unsigned char program, unsigned int tick = 0) {
    return VoiceEvent(tick, 0xC0, track, program, 0);
}
inline VoiceEvent Bend(unsigned short track, unsigned char lsb, unsigned char msb,
                       unsigned int tick = 0) {
    return VoiceEvent(tick, 0xE0, track, lsb, msb);
}
}  // namespace stream_test
