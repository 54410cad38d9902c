#include "velt_core/smf_reader.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>

namespace velt_core {

namespace {

std::string ErrorText(const std::string& file, std::optional<std::size_t> offset,
                      const std::string& what) {
    if (!offset) {
        return file + ": " + what;
    }
    return file + ": byte " + std::to_string(*offset) + ": " + what;
}

std::string Hex(unsigned value) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", value & 0xFFu);
    return text;
}

// A read position inside [0, limit) of the file's bytes. Every read checks the limit first, so
// a length field that lies can only lead to an SmfError, never to a read past the buffer.
class Cursor {
  public:
    Cursor(std::span<const std::uint8_t> bytes, std::size_t limit, const std::string& name)
        : bytes_(bytes), limit_(limit), name_(name) {}

    std::size_t Offset() const { return pos_; }
    void Seek(std::size_t offset) { pos_ = offset; }
    std::size_t Left() const { return limit_ - pos_; }
    bool AtEnd() const { return pos_ >= limit_; }

    [[noreturn]] void Fail(std::size_t offset, const std::string& what) const {
        throw SmfError(name_, offset, what);
    }

    std::uint8_t Byte(const char* what) {
        if (pos_ >= limit_) {
            Fail(pos_, std::string("truncated: the ") + (limitIsChunk_ ? "track chunk" : "file") +
                           " ends inside " + what);
        }
        return bytes_[pos_++];
    }
    std::uint8_t Peek() const { return bytes_[pos_]; }

    // Big-endian fixed-width number of `width` bytes.
    std::uint32_t Number(int width, const char* what) {
        std::uint32_t value = 0;
        for (int i = 0; i < width; ++i) {
            value = (value << 8) | Byte(what);
        }
        return value;
    }

    // Variable-length number: 7 bits per byte, most significant first, top bit set on every
    // byte but the last; at most four bytes (values up to 0x0FFFFFFF).
    std::uint32_t VarLen(const char* what) {
        const std::size_t start = pos_;
        std::uint32_t value = 0;
        for (int i = 0; i < 4; ++i) {
            const std::uint8_t b = Byte(what);
            value = (value << 7) | (b & 0x7F);
            if ((b & 0x80) == 0) {
                return value;
            }
        }
        Fail(start, std::string("bad variable-length number (more than four bytes) in ") + what);
    }

    std::vector<std::uint8_t> Bytes(std::uint32_t count, std::size_t lengthOffset,
                                    const char* what) {
        if (count > Left()) {
            Fail(lengthOffset, std::string("length ") + std::to_string(count) + " of " + what +
                                   " runs past the end of the track chunk (" +
                                   std::to_string(Left()) + " bytes left)");
        }
        std::vector<std::uint8_t> out(bytes_.begin() + static_cast<std::ptrdiff_t>(pos_),
                                      bytes_.begin() + static_cast<std::ptrdiff_t>(pos_ + count));
        pos_ += count;
        return out;
    }

    void LimitToChunk(std::size_t end) {
        limit_ = end;
        limitIsChunk_ = true;
    }

  private:
    std::span<const std::uint8_t> bytes_;
    std::size_t pos_ = 0;
    std::size_t limit_;
    const std::string& name_;
    bool limitIsChunk_ = false;
};

// Data bytes that follow a channel status: one for program change (0xC0) and channel pressure
// (0xD0), two for the others.
int DataBytesOf(std::uint8_t status) {
    const std::uint8_t kind = status & 0xF0;
    return (kind == 0xC0 || kind == 0xD0) ? 1 : 2;
}

// Data bytes of a system common or real-time message as sent on a MIDI cable; such messages do
// not belong in a file and are skipped with this many bytes.
int SystemMessageDataBytes(std::uint8_t status) {
    switch (status) {
        case 0xF1:  // time code quarter frame
        case 0xF3:  // song select
            return 1;
        case 0xF2:  // song position pointer
            return 2;
        default:  // F4, F5 (undefined), F6 tune request, F8..FE real-time
            return 0;
    }
}

class TrackParser {
  public:
    TrackParser(Cursor& in, const std::string& name, std::vector<std::string>& warnings,
                std::size_t& systemMessages)
        : in_(in), name_(name), warnings_(warnings), systemMessages_(systemMessages) {}

    // Track chunk body: a sequence of <delta-time> <event>, the delta a variable-length number
    // of ticks since the previous event, ended by the meta event FF 2F 00 (end of track).
    //   channel message: <status 0x80..0xEF> <1 or 2 data bytes>, or only the data bytes when
    //                    the status repeats (running status);
    //   SysEx:           F0 <var-len length> <bytes>  or  F7 <var-len length> <bytes>;
    //   meta event:      FF <type> <var-len length> <bytes>.
    SmfTrack Parse(std::size_t chunkEnd) {
        SmfTrack track;
        std::uint64_t tick = 0;
        bool ended = false;
        while (!in_.AtEnd()) {
            const std::size_t eventStart = in_.Offset();
            tick += in_.VarLen("a delta time");
            if (tick > std::numeric_limits<std::uint32_t>::max()) {
                in_.Fail(eventStart, "tick position beyond 4294967295");
            }
            const auto eventTick = static_cast<std::uint32_t>(tick);
            const std::size_t statusOffset = in_.Offset();
            const std::uint8_t first = in_.Byte("an event");
            if (first == smf_status::meta) {
                runningStatus_ = 0;
                SmfEvent event = ReadMeta_(eventTick);
                if (event.metaType == smf_meta::endOfTrack) {
                    track.endTick = eventTick;
                    ended = true;
                    break;
                }
                track.events.push_back(std::move(event));
            } else if (first == smf_status::sysEx || first == smf_status::sysExEscape) {
                runningStatus_ = 0;
                SmfEvent event;
                event.tick = eventTick;
                event.status = first;
                const std::size_t lengthOffset = in_.Offset();
                const std::uint32_t length = in_.VarLen("a SysEx length");
                event.bytes = in_.Bytes(length, lengthOffset, "a SysEx");
                track.events.push_back(std::move(event));
            } else if (first > 0xF0) {
                // A system common or real-time message has no meaning in a file; its bytes
                // are stepped over and the running status left as it was. They are counted, not
                // warned of one by one: a file may hold thousands (a clock at every step).
                ++systemMessages_;
                for (int i = 0; i < SystemMessageDataBytes(first); ++i) {
                    DataByte_("a system message");
                }
            } else {
                track.events.push_back(ReadChannel_(eventTick, first, statusOffset));
            }
        }
        if (!ended) {
            Warn_(chunkEnd, "track ends without an end-of-track event");
            track.endTick = track.events.empty() ? 0 : track.events.back().tick;
        } else if (!in_.AtEnd()) {
            Warn_(in_.Offset(),
                  std::to_string(in_.Left()) + " bytes after the end-of-track event ignored");
        }
        return track;
    }

  private:
    SmfEvent ReadMeta_(std::uint32_t tick) {
        SmfEvent event;
        event.tick = tick;
        event.status = smf_status::meta;
        event.metaType = in_.Byte("a meta event");
        const std::size_t lengthOffset = in_.Offset();
        const std::uint32_t length = in_.VarLen("a meta event length");
        event.bytes = in_.Bytes(length, lengthOffset, "a meta event");
        return event;
    }

    SmfEvent ReadChannel_(std::uint32_t tick, std::uint8_t first, std::size_t offset) {
        std::uint8_t status = first;
        bool haveFirstData = false;
        if (first < 0x80) {
            // A data byte: running status. A meta event or SysEx cancels running status;
            // files that rely on it carrying over are read as their writer meant them.
            if (runningStatus_ != 0) {
                status = runningStatus_;
            } else if (lastChannelStatus_ != 0) {
                if (!warnedCarryOver_) {
                    Warn_(offset, "running status carried over a meta event or SysEx");
                    warnedCarryOver_ = true;
                }
                status = lastChannelStatus_;
            } else {
                in_.Fail(offset, "data byte " + Hex(first) + " without a status byte");
            }
            haveFirstData = true;
        }
        runningStatus_ = status;
        lastChannelStatus_ = status;
        SmfEvent event;
        event.tick = tick;
        event.status = status;
        event.data1 = haveFirstData ? first : DataByte_("a channel message");
        if (DataBytesOf(status) == 2) {
            event.data2 = DataByte_("a channel message");
        }
        return event;
    }

    std::uint8_t DataByte_(const char* what) {
        const std::size_t offset = in_.Offset();
        const std::uint8_t b = in_.Byte(what);
        if (b >= 0x80) {
            in_.Fail(offset, "status byte " + Hex(b) + " where " + what + " needs a data byte");
        }
        return b;
    }

    void Warn_(std::size_t offset, const std::string& what) {
        warnings_.push_back(ErrorText(name_, offset, what));
    }

    Cursor& in_;
    const std::string& name_;
    std::vector<std::string>& warnings_;
    std::size_t& systemMessages_;
    std::uint8_t runningStatus_ = 0;
    std::uint8_t lastChannelStatus_ = 0;
    bool warnedCarryOver_ = false;
};

}  // namespace

SmfError::SmfError(const std::string& file, std::optional<std::size_t> offset,
                   const std::string& what)
    : kit::IoError(ErrorText(file, offset, what)), file_(file), offset_(offset) {}

SmfEvent SmfEvent::Channel(std::uint32_t tick, std::uint8_t status, std::uint8_t data1,
                           std::uint8_t data2) {
    SmfEvent event;
    event.tick = tick;
    event.status = status;
    event.data1 = data1;
    event.data2 = DataBytesOf(status) == 2 ? data2 : 0;
    return event;
}

SmfEvent SmfEvent::Meta(std::uint32_t tick, std::uint8_t type, std::vector<std::uint8_t> bytes) {
    SmfEvent event;
    event.tick = tick;
    event.status = smf_status::meta;
    event.metaType = type;
    event.bytes = std::move(bytes);
    return event;
}

SmfEvent SmfEvent::MetaText(std::uint32_t tick, std::uint8_t type, const std::string& text) {
    return Meta(tick, type, std::vector<std::uint8_t>(text.begin(), text.end()));
}

// File layout: a header chunk, then chunks one after another. A chunk is a four-letter type and
// a 32-bit big-endian length, then that many bytes.
//   "MThd" <length >= 6> <format u16> <track count u16> <division u16> [further bytes]
//   "MTrk" <length> <track events>      other types: skipped.
// Division: top bit clear = ticks per quarter note; top bit set = SMPTE frames and ticks per
// frame, which this reader refuses.
SmfFile ParseSmf(std::span<const std::uint8_t> bytes, const std::string& name) {
    SmfFile file;
    Cursor in(bytes, bytes.size(), name);
    if (bytes.size() < 14 || bytes[0] != 'M' || bytes[1] != 'T' || bytes[2] != 'h' ||
        bytes[3] != 'd') {
        in.Fail(0, "missing header: not a Standard MIDI File (no \"MThd\" chunk)");
    }
    in.Seek(4);
    const std::uint32_t headerLength = in.Number(4, "the header");
    if (headerLength < 6) {
        in.Fail(4, "header length " + std::to_string(headerLength) + " is shorter than 6");
    }
    if (headerLength > in.Left()) {
        in.Fail(4,
                "header length " + std::to_string(headerLength) + " runs past the end of the file");
    }
    const std::uint32_t format = in.Number(2, "the header");
    const std::uint32_t trackCount = in.Number(2, "the header");
    const std::uint32_t division = in.Number(2, "the header");
    if (format == 2) {
        in.Fail(8, "format 2 (independent sequences) is not supported");
    }
    if (format > 2) {
        in.Fail(8, "unknown format " + std::to_string(format));
    }
    if (division & 0x8000) {
        in.Fail(12, "SMPTE time division is not supported (only ticks per quarter note)");
    }
    if (division == 0) {
        in.Fail(12, "time division of 0 ticks per quarter note");
    }
    file.format = static_cast<std::uint16_t>(format);
    file.ticksPerQuarter = static_cast<std::uint16_t>(division);
    in.Seek(8 + headerLength);

    while (!in.AtEnd()) {
        const std::size_t chunkStart = in.Offset();
        if (in.Left() < 8) {
            file.warnings.push_back(
                ErrorText(name, chunkStart,
                          std::to_string(in.Left()) + " stray bytes after the last chunk ignored"));
            break;
        }
        std::string type;
        for (int i = 0; i < 4; ++i) {
            type.push_back(static_cast<char>(in.Byte("a chunk type")));
        }
        const std::uint32_t length = in.Number(4, "a chunk length");
        if (length > in.Left()) {
            in.Fail(chunkStart + 4, "chunk length " + std::to_string(length) +
                                        " runs past the end of the file (" +
                                        std::to_string(in.Left()) + " bytes left)");
        }
        const std::size_t chunkEnd = in.Offset() + length;
        if (type == "MTrk") {
            Cursor track(bytes, chunkEnd, name);
            track.Seek(in.Offset());
            track.LimitToChunk(chunkEnd);
            file.tracks.push_back(
                TrackParser(track, name, file.warnings, file.systemMessages).Parse(chunkEnd));
        }
        in.Seek(chunkEnd);
    }

    if (file.tracks.size() != trackCount) {
        file.warnings.push_back(ErrorText(name, 10,
                                          "header announces " + std::to_string(trackCount) +
                                              " tracks, the file holds " +
                                              std::to_string(file.tracks.size())));
    }
    if (file.format == 0 && file.tracks.size() > 1) {
        file.warnings.push_back(
            ErrorText(name, 8, "format 0 file with several tracks read as format 1"));
        file.format = 1;
    }
    return file;
}

SmfFile ReadSmf(const std::string& path) {
    // Only a regular file is read: a folder fails inside the stream with an exception of its
    // own, a device may never end (/dev/zero) and a pipe may never open.
    std::error_code error;
    const auto type = std::filesystem::status(path, error).type();
    if (type != std::filesystem::file_type::not_found && type != std::filesystem::file_type::none &&
        type != std::filesystem::file_type::regular) {
        throw SmfError(path, std::nullopt, "not a regular file");
    }
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        throw SmfError(path, std::nullopt, "cannot open the file");
    }
    // The stream reports a failed read either in its state or, from the buffer, as an exception.
    std::vector<std::uint8_t> bytes;
    bool failed = false;
    try {
        bytes.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    } catch (const std::ios_base::failure&) {
        failed = true;
    }
    if (failed || stream.bad()) {
        throw SmfError(path, std::nullopt, "read error");
    }
    return ParseSmf(bytes, path);
}

}  // namespace velt_core
