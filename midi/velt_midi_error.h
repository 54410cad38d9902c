// The engine's exception tree and the three-byte MIDI message of the input side.
//
// Every class has exactly a copy constructor and a constructor taking the message (its what()
// text), adds no fields and no virtual operations. A handler for VeltMidiError sees every
// time-code, port and implementation error.
#pragma once

#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>

#define VELT_MIDI_DECLARE_ERROR(Name, Base)                          \
    class Name : public Base {                                       \
      public:                                                        \
        explicit Name(const std::string& message) : Base(message) {} \
        Name(const Name&) = default;                                 \
    }

/// Root of the library's own errors; also thrown directly for unrecognised settings files and
/// input failures.
VELT_MIDI_DECLARE_ERROR(VeltMidiError, std::runtime_error);
/// A call into the operating system's MIDI service failed, or an output object was misused.
VELT_MIDI_DECLARE_ERROR(MidiImplementationError, VeltMidiError);
/// The output device (the stream synthesiser) could not be opened.
VELT_MIDI_DECLARE_ERROR(MidiDeviceUnavailable, MidiImplementationError);
/// Output-layer failure reserved for clients; the library never throws it.
VELT_MIDI_DECLARE_ERROR(SforzandoError, MidiImplementationError);
/// A voice event could not be turned into a MIDI message. Never allowed to stop playback: every
/// send path catches and logs it.
VELT_MIDI_DECLARE_ERROR(InvalidVoiceEvent, VeltMidiError);
/// A MIDI port could not be opened or used.
VELT_MIDI_DECLARE_ERROR(MidiPortError, VeltMidiError);
/// Root of the time-code errors.
VELT_MIDI_DECLARE_ERROR(MidiTimeCodeError, VeltMidiError);
VELT_MIDI_DECLARE_ERROR(InvalidFrameCount, MidiTimeCodeError);
VELT_MIDI_DECLARE_ERROR(InvalidSecondCount, MidiTimeCodeError);
VELT_MIDI_DECLARE_ERROR(InvalidMinuteCount, MidiTimeCodeError);
VELT_MIDI_DECLARE_ERROR(InvalidHourCount, MidiTimeCodeError);
/// Arithmetic on time codes of different frame rates.
VELT_MIDI_DECLARE_ERROR(MidiTimeCodeFrameRateError, MidiTimeCodeError);
/// Quarter-frame piece index outside 0..7.
VELT_MIDI_DECLARE_ERROR(QuarterFrameIndexError, MidiTimeCodeError);

#undef VELT_MIDI_DECLARE_ERROR

/// The common failure path of a platform call: writes "[ERROR] " and the failure text of
/// kit::CreateFailureMessage(source, line, action, detail) as one log line, then throws
/// VeltMidiError with that text. `source` is the calling module's path, `line` its line.
[[noreturn]] void LogAndThrowFailure(const char* source, unsigned int line,
                                     const std::string& action, const std::string& detail);
/// The same path for a failure that carries an error number rather than an action text:
/// "<source> line <line>: Error <number> <detail>.", or "<source> line <line>: Error <number>."
/// when the detail is empty.
[[noreturn]] void LogAndThrowErrorNumber(const char* source, unsigned int line, int errorNumber,
                                         const std::string& detail);

/// A three-byte MIDI message: the whole status byte (kind and channel), then two data bytes.
struct MIDIMessage {
    std::uint8_t status = 0;
    std::uint8_t data1 = 0;
    std::uint8_t data2 = 0;

    /// The message kind without the channel: status & 0xF0.
    std::uint8_t GetStatus() const { return status & 0xF0; }
    /// The channel 0..15: status & 0x0F.
    std::uint8_t GetChannel() const { return status & 0x0F; }

    bool operator==(const MIDIMessage&) const = default;
};
static_assert(sizeof(MIDIMessage) == 3);

/// The message kinds the input dispatcher accepts: note on (0x90), control change (0xB0) and
/// program change (0xC0). A note-on with velocity 0 is refused by the dispatcher all the same.
extern const std::set<std::uint8_t> allowedStatuses;
