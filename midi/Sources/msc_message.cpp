#include "midi/msc_message.h"

#include <stdexcept>

namespace {
constexpr std::uint8_t kMscSubId = 0x02;
constexpr std::uint8_t kFieldSeparator = 0x00;
constexpr std::uint8_t kEndOfExclusive = 0xF7;
// Device id, sub-id, command format and command come before the cue data.
constexpr std::uint64_t kHeaderSize = 4;
}  // namespace

MscMessage::MscMessage(const std::uint8_t* bytes, std::uint64_t count) {
    // The command byte is part of the header: a message shorter than the header is refused as a
    // whole rather than read past its end.
    if (count < kHeaderSize) {
        throw std::runtime_error("Insufficient bytes to be a valid MSC message");
    }
    if (bytes[1] != kMscSubId) {
        throw std::runtime_error("The SysEx code is not for MSC");
    }
    const std::uint8_t format = bytes[2];
    if (format != static_cast<std::uint8_t>(MscCommandFormat::Music) &&
        format != static_cast<std::uint8_t>(MscCommandFormat::AudioEffects)) {
        throw std::runtime_error("Invalid MSC command format type");
    }
    if (bytes[3] != static_cast<std::uint8_t>(MscCommand::Go)) {
        throw std::runtime_error("Invalid Msc command");
    }
    // Fields are assigned only once the whole message has parsed.
    MscCueNumber cue = ReadMscCueNumber_(bytes + kHeaderSize, count - kHeaderSize);
    deviceId_ = bytes[0];
    format_ = static_cast<MscCommandFormat>(format);
    command_ = MscCommand::Go;
    eventId_ = std::move(cue);
}

std::string MscMessage::ReadMscCueValue_(const std::uint8_t*& cursor, std::uint64_t remaining) {
    std::string value;
    for (;;) {
        if (remaining == 0) {
            throw std::runtime_error("MSC Message Cue Overflow");
        }
        if (*cursor == kFieldSeparator || *cursor == kEndOfExclusive) {
            return value;
        }
        value += static_cast<char>(*cursor);
        ++cursor;
        --remaining;
    }
}

MscCueNumber MscMessage::ReadMscCueNumber_(const std::uint8_t* bytes, std::uint64_t count) {
    // Each read stops on a terminator that lies inside `count`, so the separator skipped below
    // is always one of the given bytes.
    MscCueNumber cue;
    const std::uint8_t* cursor = bytes;
    cue.number = ReadMscCueValue_(cursor, count);
    if (*cursor != kFieldSeparator) {
        return cue;
    }
    ++cursor;
    const std::uint64_t afterNumber = count - cue.number.size() - 1;
    cue.list = ReadMscCueValue_(cursor, afterNumber);
    if (*cursor != kFieldSeparator) {
        return cue;
    }
    ++cursor;
    cue.path = ReadMscCueValue_(cursor, afterNumber - cue.list.size() - 1);
    return cue;
}
