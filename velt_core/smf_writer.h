// The writer of Standard MIDI Files: the inverse of the reader, byte for byte in the layout the
// reader accepts (format 0 or 1, ticks-per-quarter division, running status for channel
// messages, an end-of-track event closing every track).
//
// Threads: no shared state; any thread may write files concurrently.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "velt_core/smf_reader.h"

namespace velt_core {

/// The bytes of `file`. Each track's events must be in ascending tick order; the end-of-track
/// event goes at the later of the track's endTick and its last event. Throws SmfError (naming
/// `name`, without offset) for what the format cannot hold: format 2, a division of 0 or above
/// 0x7FFF, a tick going backwards, a delta time above 0x0FFFFFFF, a malformed channel message.
std::vector<std::uint8_t> EncodeSmf(const SmfFile& file, const std::string& name = "<memory>");

/// Writes `file` to `path`, replacing it. Throws SmfError when it cannot be encoded or written.
void WriteSmf(const SmfFile& file, const std::string& path);

}  // namespace velt_core
