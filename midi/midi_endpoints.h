// The MIDI sources and destinations the host offers the user, with the product's own ports left
// out so that its output is never offered back to it as an input. Every call lists the devices
// afresh; nothing is cached.
#pragma once

#include <string>
#include <vector>

#include "midi/midi_ports.h"

/// The display name of every input port, in port order, the product's own included.
std::vector<std::string> GetMidiInputPortNames();
/// The input ports that are not the product's own; each endpoint's source index is the device
/// number, so indices have gaps where own ports were skipped.
std::vector<MidiEndPoint> GetNonVeltMidiSources();
/// The same for output ports.
std::vector<MidiEndPoint> GetNonVeltMidiDestinations();
bool IsValidNonVeltSourceIndex(int sourceIndex);
bool IsValidNonVeltDestinationIndex(int sourceIndex);
/// The unique id of input port `index`; without such a port a warning on the standard error
/// stream and 0.
int GetUniqueIdFromIndex(unsigned char index);
/// The index of the first input port with unique id `uniqueId`; without one a warning on the
/// standard error stream and 0. Ports on this platform all answer 0, so id 0 is the first port.
unsigned char GetIndexFromUniqueId(int uniqueId);
/// Whether a port of this name is one of the product's own: it starts with "VELT" or with
/// "IAC Driver VELT" (case-sensitive).
bool IsVeltPortName(const std::string& name);
