// Status kinds (high nibble of a channel message's status byte) and the controller numbers the
// engine writes itself. Internal to the engine's sources.
#pragma once

namespace channel_message {
constexpr unsigned char kNoteOff = 0x80;
constexpr unsigned char kNoteOn = 0x90;
constexpr unsigned char kControlChange = 0xB0;
constexpr unsigned char kProgramChange = 0xC0;
constexpr unsigned char kPitchBend = 0xE0;

/// The message kind of a status byte: status & 0xF0.
constexpr unsigned char KindOf(unsigned char status) {
    return status & 0xF0;
}

constexpr unsigned char kChannelVolume = 7;
constexpr unsigned char kResetAllControllers = 121;
constexpr unsigned char kAllNotesOff = 123;
}  // namespace channel_message
