// One received show-control message, narrowed to what the player acts on: a GO to a cue.
//
// The parser accepts only the GO command and two command formats and throws std::runtime_error on
// everything else, so a caller can treat any MscMessage it holds as "go to this cue". It reads
// only the bytes it is given: a cue field must end with 0x00 or 0xF7 inside them.
#pragma once

#include <cstdint>
#include <string>

/// The command formats the parser accepts (the other codes are refused).
enum class MscCommandFormat : std::uint8_t {
    Music = 0x11,
    AudioEffects = 0x17,
};

/// The commands the parser accepts.
enum class MscCommand : std::uint8_t {
    Go = 0x01,
};

/// A cue address: number, list and path, each the field's characters as received (no
/// terminator); an absent field is empty.
struct MscCueNumber {
    std::string number;
    std::string list;
    std::string path;

    bool operator==(const MscCueNumber&) const = default;
};

/// A parsed GO. Threads: a plain value.
class MscMessage {
  public:
    /// `bytes` start at the device id: the System Exclusive message without its leading 0xF0 0x7F
    /// (device id, 0x02, command format, command, cue data, usually 0xF7). Throws
    /// std::runtime_error with "Insufficient bytes to be a valid MSC message", "The SysEx code is
    /// not for MSC", "Invalid MSC command format type", "Invalid Msc command" or "MSC Message Cue
    /// Overflow" (a cue field reaches the end of the bytes without a terminator).
    MscMessage(const std::uint8_t* bytes, std::uint64_t count);

    std::uint8_t DeviceId() const { return deviceId_; }
    MscCommandFormat Format() const { return format_; }
    MscCommand Command() const { return command_; }
    MscCueNumber EventId() const { return eventId_; }

  private:
    static MscCueNumber ReadMscCueNumber_(const std::uint8_t* bytes, std::uint64_t count);
    /// Reads one field up to (not past) its 0x00 or 0xF7 terminator and leaves `cursor` on it.
    static std::string ReadMscCueValue_(const std::uint8_t*& cursor, std::uint64_t remaining);

    std::uint8_t deviceId_ = 0;
    MscCommandFormat format_ = MscCommandFormat::Music;
    MscCommand command_ = MscCommand::Go;
    MscCueNumber eventId_;
};
