// Standard MIDI Files in memory, and the reader that parses them.
//
// The reader accepts formats 0 and 1 with a ticks-per-quarter division. It is tolerant where a
// file is damaged in a way that leaves its music unambiguous (the damage is reported as a
// warning in SmfFile::warnings; system messages inside tracks are counted in
// SmfFile::systemMessages) and strict everywhere else: anything it cannot read throws
// SmfError naming the file and the byte offset. It never reads outside the input and every step
// consumes at least one byte, so no input makes it crash or loop.
//
// Threads: the reader and the types here have no shared state; any thread may read files
// concurrently.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "interfaces/kit.h"

namespace velt_core {

/// A Standard MIDI File could not be read or written. The message names the file and, where the
/// fault lies in the file's bytes, the byte offset: "<file>: byte <offset>: <what>".
class SmfError : public kit::IoError {
  public:
    SmfError(const std::string& file, std::optional<std::size_t> offset, const std::string& what);

    const std::string& File() const { return file_; }
    /// The byte offset of the fault, when the fault lies in the file's bytes.
    std::optional<std::size_t> Offset() const { return offset_; }

  private:
    std::string file_;
    std::optional<std::size_t> offset_;
};

/// Status bytes of the non-channel events a track holds.
namespace smf_status {
inline constexpr std::uint8_t sysEx = 0xF0;        // F0 <length> <bytes>
inline constexpr std::uint8_t sysExEscape = 0xF7;  // F7 <length> <bytes>
inline constexpr std::uint8_t meta = 0xFF;         // FF <type> <length> <bytes>
}  // namespace smf_status

/// Meta event types the mapping into the song model reads.
namespace smf_meta {
inline constexpr std::uint8_t trackName = 0x03;
inline constexpr std::uint8_t marker = 0x06;
inline constexpr std::uint8_t midiPort = 0x21;
inline constexpr std::uint8_t endOfTrack = 0x2F;
inline constexpr std::uint8_t tempo = 0x51;
inline constexpr std::uint8_t timeSignature = 0x58;
inline constexpr std::uint8_t keySignature = 0x59;
}  // namespace smf_meta

/// One event of a track at an absolute tick.
///
/// A channel message (status 0x80..0xEF) carries its data bytes in data1/data2 (data2 is 0 for
/// program change and channel pressure). A SysEx (status 0xF0 or 0xF7) carries the bytes after
/// its length in `bytes`. A meta event (status 0xFF) carries its type in `metaType` and its
/// bytes in `bytes`. End-of-track is not an event: it is the track's `endTick`.
struct SmfEvent {
    std::uint32_t tick = 0;
    std::uint8_t status = 0;
    std::uint8_t data1 = 0;
    std::uint8_t data2 = 0;
    std::uint8_t metaType = 0;
    std::vector<std::uint8_t> bytes;

    bool IsChannelMessage() const { return status >= 0x80 && status < 0xF0; }
    bool IsMeta(std::uint8_t type) const { return status == smf_status::meta && metaType == type; }
    /// The meta or SysEx bytes as text (track names, markers), byte for byte.
    std::string Text() const { return std::string(bytes.begin(), bytes.end()); }

    static SmfEvent Channel(std::uint32_t tick, std::uint8_t status, std::uint8_t data1,
                            std::uint8_t data2 = 0);
    static SmfEvent Meta(std::uint32_t tick, std::uint8_t type, std::vector<std::uint8_t> bytes);
    static SmfEvent MetaText(std::uint32_t tick, std::uint8_t type, const std::string& text);

    bool operator==(const SmfEvent&) const = default;
};

/// One track chunk: events in file order (ascending tick) and the tick of its end-of-track.
struct SmfTrack {
    std::vector<SmfEvent> events;
    std::uint32_t endTick = 0;

    bool operator==(const SmfTrack&) const = default;
};

/// A whole file.
struct SmfFile {
    std::uint16_t format = 1;
    std::uint16_t ticksPerQuarter = 480;
    std::vector<SmfTrack> tracks;
    /// What the reader tolerated, one sentence each, with the byte offset where it applies.
    std::vector<std::string> warnings;
    /// System common and real-time messages (F1..FE) found inside the tracks: they have no
    /// meaning in a file and were stepped over with their data bytes.
    std::size_t systemMessages = 0;
};

/// Parses a file's bytes. `name` is the file name the errors and warnings quote.
/// Throws SmfError for anything it cannot read.
SmfFile ParseSmf(std::span<const std::uint8_t> bytes, const std::string& name);

/// Reads and parses the file at `path`. Throws SmfError when it cannot be opened or read, or is
/// not a regular file (a folder, a device, a pipe).
SmfFile ReadSmf(const std::string& path);

}  // namespace velt_core
