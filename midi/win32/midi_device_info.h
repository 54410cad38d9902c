// Texts for the multimedia MIDI service's error numbers and output devices, for log lines and
// error messages.
#pragma once

#include <string>

#include "platform/mmsystem.h"

/// The library's own text for a multimedia error number ("MIDIERR_UNPREPARED header not
/// prepared"); any number it does not know, 0 included: "Unknown error code <n>".
std::string GetMidiErrorAsString(MMRESULT code);
/// The service's own text for an output error number (midiOutGetErrorTextW), as a narrow string.
std::string GetMidiOutErrorText(MMRESULT code);
/// "There are no available devices for midi output." or a summary of every output device.
std::string CreateMidiDeviceSummary();
/// "MIDI device index: <i>" and the device's capabilities, or why they could not be read.
std::string GetMidiOutDeviceInformation(UINT index);
/// The capabilities record, one "  Name: value" line each.
std::string GetMidiOutDevCapsAsString(const MIDIOUTCAPSW& capabilities);
/// The capabilities' wide product name as a narrow string (UTF-8).
std::string GetProductName(const WCHAR* name);
/// The device technology ("MOD_SYNTH: Synthesizer.").
std::string GetTechnologyAsString(const MIDIOUTCAPSW& capabilities);
