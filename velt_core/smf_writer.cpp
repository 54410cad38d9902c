#include "velt_core/smf_writer.h"

#include <algorithm>
#include <fstream>

namespace velt_core {

namespace {

constexpr std::uint32_t maxVarLen = 0x0FFFFFFF;

class Encoder {
  public:
    explicit Encoder(const std::string& name) : name_(name) {}

    void Byte(std::uint8_t b) { out_.push_back(b); }
    void Number(std::uint32_t value, int width) {
        for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) {
            Byte(static_cast<std::uint8_t>(value >> shift));
        }
    }
    void Text(const char* fourLetters) {
        for (int i = 0; i < 4; ++i) {
            Byte(static_cast<std::uint8_t>(fourLetters[i]));
        }
    }

    // Variable-length number: 7 bits per byte, most significant group first, the top bit set on
    // every byte but the last.
    void VarLen(std::uint64_t value, const char* what) {
        if (value > maxVarLen) {
            Fail(std::string(what) + " " + std::to_string(value) + " exceeds 0x0FFFFFFF");
        }
        std::uint8_t groups[4];
        int count = 0;
        do {
            groups[count++] = static_cast<std::uint8_t>(value & 0x7F);
            value >>= 7;
        } while (value != 0);
        while (count > 1) {
            Byte(groups[--count] | 0x80);
        }
        Byte(groups[0]);
    }
    void Bytes(const std::vector<std::uint8_t>& bytes) {
        out_.insert(out_.end(), bytes.begin(), bytes.end());
    }

    std::size_t Size() const { return out_.size(); }
    // Writes a 32-bit big-endian length at `at`, over the placeholder put there earlier.
    void PatchLength(std::size_t at, std::uint32_t length) {
        for (int i = 0; i < 4; ++i) {
            out_[at + i] = static_cast<std::uint8_t>(length >> (8 * (3 - i)));
        }
    }

    [[noreturn]] void Fail(const std::string& what) const {
        throw SmfError(name_, std::nullopt, what);
    }

    std::vector<std::uint8_t> Take() { return std::move(out_); }

  private:
    const std::string& name_;
    std::vector<std::uint8_t> out_;
};

void EncodeTrack(Encoder& out, const SmfTrack& track, std::size_t index) {
    out.Text("MTrk");
    const std::size_t lengthAt = out.Size();
    out.Number(0, 4);
    std::uint32_t previous = 0;
    std::uint8_t runningStatus = 0;
    const std::string where = "track " + std::to_string(index) + ": ";
    for (const SmfEvent& event : track.events) {
        if (event.tick < previous) {
            out.Fail(where + "event at tick " + std::to_string(event.tick) + " follows tick " +
                     std::to_string(previous));
        }
        out.VarLen(event.tick - previous, "delta time");
        previous = event.tick;
        if (event.IsChannelMessage()) {
            if (event.data1 >= 0x80 || event.data2 >= 0x80) {
                out.Fail(where + "channel message data byte above 0x7F at tick " +
                         std::to_string(event.tick));
            }
            // Running status: the status byte is left out when it repeats the previous one.
            if (event.status != runningStatus) {
                out.Byte(event.status);
                runningStatus = event.status;
            }
            out.Byte(event.data1);
            const std::uint8_t kind = event.status & 0xF0;
            if (kind != 0xC0 && kind != 0xD0) {
                out.Byte(event.data2);
            }
        } else if (event.status == smf_status::meta) {
            if (event.metaType == smf_meta::endOfTrack) {
                out.Fail(where + "end of track is the track's endTick, not an event");
            }
            runningStatus = 0;
            out.Byte(smf_status::meta);
            out.Byte(event.metaType);
            out.VarLen(event.bytes.size(), "meta event length");
            out.Bytes(event.bytes);
        } else if (event.status == smf_status::sysEx || event.status == smf_status::sysExEscape) {
            runningStatus = 0;
            out.Byte(event.status);
            out.VarLen(event.bytes.size(), "SysEx length");
            out.Bytes(event.bytes);
        } else {
            out.Fail(where + "status byte " + std::to_string(event.status) +
                     " cannot be stored in a file");
        }
    }
    const std::uint32_t endTick = std::max(track.endTick, previous);
    out.VarLen(endTick - previous, "delta time");
    out.Byte(smf_status::meta);
    out.Byte(smf_meta::endOfTrack);
    out.Byte(0);
    out.PatchLength(lengthAt, static_cast<std::uint32_t>(out.Size() - lengthAt - 4));
}

}  // namespace

// Layout written: "MThd" 00 00 00 06 <format> <track count> <ticks per quarter>, then one
// "MTrk" <length> chunk per track.
std::vector<std::uint8_t> EncodeSmf(const SmfFile& file, const std::string& name) {
    Encoder out(name);
    if (file.format > 1) {
        out.Fail("only formats 0 and 1 can be written");
    }
    if (file.format == 0 && file.tracks.size() != 1) {
        out.Fail("a format 0 file holds exactly one track");
    }
    if (file.ticksPerQuarter == 0 || file.ticksPerQuarter > 0x7FFF) {
        out.Fail("ticks per quarter " + std::to_string(file.ticksPerQuarter) +
                 " is outside 1..32767");
    }
    if (file.tracks.size() > 0xFFFF) {
        out.Fail("more than 65535 tracks");
    }
    out.Text("MThd");
    out.Number(6, 4);
    out.Number(file.format, 2);
    out.Number(static_cast<std::uint32_t>(file.tracks.size()), 2);
    out.Number(file.ticksPerQuarter, 2);
    for (std::size_t i = 0; i < file.tracks.size(); ++i) {
        EncodeTrack(out, file.tracks[i], i);
    }
    return out.Take();
}

void WriteSmf(const SmfFile& file, const std::string& path) {
    const std::vector<std::uint8_t> bytes = EncodeSmf(file, path);
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    if (!stream) {
        throw SmfError(path, std::nullopt, "cannot open the file for writing");
    }
    stream.write(reinterpret_cast<const char*>(bytes.data()),
                 static_cast<std::streamsize>(bytes.size()));
    if (!stream) {
        throw SmfError(path, std::nullopt, "write error");
    }
}

}  // namespace velt_core
