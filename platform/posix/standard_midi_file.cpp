// A small Standard MIDI File writer for recorded messages (format 0, one track).
#include <fstream>
#include <stdexcept>

#include "../virtual_midi.h"

namespace velt_platform {
namespace {

// 1000 ticks per quarter note at 1000000 microseconds per quarter note: one tick per millisecond.
constexpr std::uint16_t kTicksPerQuarter = 1000;
constexpr std::uint32_t kMicrosecondsPerQuarter = 1000000;
constexpr std::int64_t kNanosecondsPerTick = 1000000;

void PutBigEndian(std::vector<std::uint8_t>& out, std::uint32_t value, int bytes)
{
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
        out.push_back(static_cast<std::uint8_t>((value >> shift) & 0xFF));
    }
}

// Variable-length quantity: 7 bits per byte, most significant group first, every byte but the
// last with bit 7 set.
void PutVariableLength(std::vector<std::uint8_t>& out, std::uint32_t value)
{
    std::uint8_t groups[5];
    int count = 0;
    do {
        groups[count++] = static_cast<std::uint8_t>(value & 0x7F);
        value >>= 7;
    } while (value != 0);
    while (count > 1) {
        out.push_back(static_cast<std::uint8_t>(groups[--count] | 0x80));
    }
    out.push_back(groups[0]);
}

bool FitsInFile(const RecordedMessage& message)
{
    if (message.bytes.empty()) {
        return false;
    }
    const std::uint8_t status = message.bytes.front();
    return (status >= 0x80 && status < 0xF0) || status == 0xF0;
}

}  // namespace

// File layout (all numbers big-endian):
//   "MThd" <u32 6> <u16 format 0> <u16 tracks 1> <u16 ticks per quarter note>
//   "MTrk" <u32 length of the events> events...
// Each event is <variable-length delta ticks> followed by
//   a channel message as sent (no running status),
//   F0 <variable-length count> <the SysEx bytes after F0, F7 included>, or
//   FF 51 03 <u24 microseconds per quarter note> (tempo) / FF 2F 00 (end of track).
void WriteStandardMidiFile(const std::filesystem::path& path,
                           const std::vector<RecordedMessage>& messages, std::int64_t startNs)
{
    std::vector<std::uint8_t> track;
    track.insert(track.end(), {0x00, 0xFF, 0x51, 0x03});
    PutBigEndian(track, kMicrosecondsPerQuarter, 3);

    std::int64_t lastTick = 0;
    for (const RecordedMessage& message : messages) {
        if (!FitsInFile(message)) {
            continue;
        }
        const std::int64_t tick = std::max(lastTick, (message.timestampNs - startNs) / kNanosecondsPerTick);
        PutVariableLength(track, static_cast<std::uint32_t>(tick - lastTick));
        lastTick = tick;
        if (message.bytes.front() == 0xF0) {
            track.push_back(0xF0);
            PutVariableLength(track, static_cast<std::uint32_t>(message.bytes.size() - 1));
            track.insert(track.end(), message.bytes.begin() + 1, message.bytes.end());
        } else {
            track.insert(track.end(), message.bytes.begin(), message.bytes.end());
        }
    }
    track.insert(track.end(), {0x00, 0xFF, 0x2F, 0x00});

    std::vector<std::uint8_t> file{'M', 'T', 'h', 'd'};
    PutBigEndian(file, 6, 4);
    PutBigEndian(file, 0, 2);
    PutBigEndian(file, 1, 2);
    PutBigEndian(file, kTicksPerQuarter, 2);
    file.insert(file.end(), {'M', 'T', 'r', 'k'});
    PutBigEndian(file, static_cast<std::uint32_t>(track.size()), 4);
    file.insert(file.end(), track.begin(), track.end());

    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));
    out.close();
    if (!out) {
        throw std::runtime_error("cannot write MIDI file " + path.string());
    }
}

}  // namespace velt_platform
