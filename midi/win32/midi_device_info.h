// Texts for the multimedia MIDI service's error numbers and output devices, for log lines and
// error messages.
#pragma once

#include <optional>
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
/// The product name of output device `index`, or empty when its capabilities cannot be read.
std::optional<std::string> GetMidiOutDeviceName(UINT index);
/// The id of the first output device whose product name is exactly `name`, if one is listed now.
/// Device ids move as devices come and go; a host that re-opens a device after it was lost finds
/// it again by name.
std::optional<UINT> FindMidiOutDevice(const std::string& name);
/// The device technology ("MOD_SYNTH: Synthesizer.").
std::string GetTechnologyAsString(const MIDIOUTCAPSW& capabilities);
