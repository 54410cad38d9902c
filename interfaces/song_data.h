// Songs and shows as the core library hands them to the engine: voice tracks of timed channel
// messages, keyed by track id, with each song's timeline and change log.
//
// Track id: unsigned 16-bit; output port index = track id >> 4, MIDI channel = track id & 0x0F.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "interfaces/change_log.h"
#include "interfaces/kit.h"
#include "interfaces/timeline.h"

namespace velt_midi {

/// One channel message at a tick, eight bytes: tick index, status, data1, data2, port.
///
/// The track id given to the constructor is held as its two parts: its port (id >> 4, at most
/// 255) is the eighth byte, and its channel (id & 0x0F) goes into the low nibble of a
/// channel-message status byte that does not already name a channel. A status byte given with a
/// channel (0xB5) keeps it, so that code which builds the message itself ("0xB0 | channel" with
/// track id 0, as the panic messages do) gets what it wrote; a status given as a bare kind (0xB0)
/// takes the track's channel. System status bytes (0xF0 and up) are kept as given.
/// `GetTrackId()` gives back (port << 4) | the status byte's channel.
struct VoiceEvent {
    std::uint32_t time = 0;
    std::uint8_t status = 0;
    std::uint8_t data1 = 0;
    std::uint8_t data2 = 0;
    std::uint8_t port = 0;

    VoiceEvent() = default;
    VoiceEvent(std::uint32_t tickIndex, std::uint8_t statusByte, std::uint16_t trackId,
               std::uint8_t firstData, std::uint8_t secondData)
        : time(tickIndex),
          status(statusByte < 0xF0 && (statusByte & 0x0F) == 0
                     ? static_cast<std::uint8_t>(statusByte | (trackId & 0x0F))
                     : statusByte),
          data1(firstData),
          data2(secondData),
          port(static_cast<std::uint8_t>(trackId >> 4)) {}

    std::uint16_t GetTrackId() const {
        return static_cast<std::uint16_t>((port << 4) | (status & 0x0F));
    }
    /// Whether the event may be sent: a channel voice message (status 0x80..0xEF) with both data
    /// bytes below 0x80.
    bool IsValidVoiceEvent() const {
        return status >= 0x80 && status < 0xF0 && data1 < 0x80 && data2 < 0x80;
    }
    /// "<tick> <status hex> <data1> <data2>", e.g. "480 0x90 60 100".
    void WriteString(std::ostream& out) const;

    bool operator==(const VoiceEvent&) const = default;
};
static_assert(sizeof(VoiceEvent) == 8, "VoiceEvent is an eight-byte value");

/// One voice track: its events sorted by tick index, its channel and its playable note range.
class VoiceTrack {
  public:
    VoiceTrack() = default;
    VoiceTrack(std::string name, std::uint8_t channel, std::uint8_t defaultProgram)
        : channelIndex(channel), name_(std::move(name)), defaultProgram_(defaultProgram) {}

    std::string GetTrackName() const { return name_; }
    void SetTrackName(std::string name) { name_ = std::move(name); }
    /// The program to send when the track starts.
    std::uint8_t GetDefaultProgramChange() const { return defaultProgram_; }
    void SetDefaultProgramChange(std::uint8_t program) { defaultProgram_ = program; }

    /// The track's events, sorted by tick index.
    std::vector<VoiceEvent> events;
    /// MIDI channel index 0..15 (9 is the percussion channel).
    std::uint8_t channelIndex = 0;
    /// Lowest and highest note the track plays; (255, 255) means the track has no range.
    std::pair<std::uint8_t, std::uint8_t> range{255, 255};

  private:
    std::string name_;
    std::uint8_t defaultProgram_ = 0;
};

/// A song's tracks by track id.
using VoiceData = kit::ptr_map<unsigned short, VoiceTrack>;

/// One song: tracks, timeline, change log, resolution and start position.
class SongData {
  public:
    SongData() = default;
    SongData(const SongData&) = default;
    SongData& operator=(const SongData&) = default;
    ~SongData() = default;

    /// The tick at which playback of the song starts.
    std::uint32_t GetSongStartTickIndex() const { return startTickIndex_; }
    void SetSongStartTickIndex(std::uint32_t tick) { startTickIndex_ = tick; }
    VoiceData& GetVoiceData() { return voiceData_; }
    const VoiceData& GetVoiceData() const { return voiceData_; }
    TL::Timeline& GetTimeline() { return timeline_; }
    const TL::Timeline& GetTimeline() const { return timeline_; }
    CL::SongLog& GetSongLog() { return songLog_; }
    const CL::SongLog& GetSongLog() const { return songLog_; }
    /// The song's resolution in ticks per quarter note.
    std::uint32_t GetTicksPerQuarter() const { return ticksPerQuarter_; }
    void SetTicksPerQuarter(std::uint32_t ticksPerQuarter) { ticksPerQuarter_ = ticksPerQuarter; }
    /// The song's name (its song log's name).
    std::string GetSongName() const { return songLog_.GetSongName(); }

  private:
    std::uint32_t startTickIndex_ = 0;
    std::uint32_t ticksPerQuarter_ = 480;
    VoiceData voiceData_;
    TL::Timeline timeline_;
    CL::SongLog songLog_;
};

/// Numbered groups of tracks of a show.
class Groups {
  public:
    /// The track ids of group `group`; an unknown group is empty.
    std::set<unsigned short> GetGroup(unsigned char group) const;
    void SetGroup(unsigned char group, std::set<unsigned short> trackIds);
    std::size_t size() const { return groups_.size(); }

  private:
    std::map<unsigned char, std::set<unsigned short>> groups_;
};

/// A show: its songs in playing order.
class ShowData {
  public:
    virtual ~ShowData() = default;

    const std::vector<std::shared_ptr<SongData>>& GetSongs() const { return songs_; }
    std::vector<std::shared_ptr<SongData>>& GetSongs() { return songs_; }
    void AddSong(std::shared_ptr<SongData> song) { songs_.push_back(std::move(song)); }
    std::string GetShowName() const { return name_; }
    void SetShowName(std::string name) { name_ = std::move(name); }

  private:
    std::string name_;
    std::vector<std::shared_ptr<SongData>> songs_;
};

}  // namespace velt_midi

namespace pv {
/// A show with numbered track groups.
class ParvelShowData : public velt_midi::ShowData {
  public:
    const velt_midi::Groups& GetGroups() const { return groups_; }
    velt_midi::Groups& GetGroups() { return groups_; }

  private:
    velt_midi::Groups groups_;
};
}  // namespace pv

namespace std_midi {
/// A three-byte channel message.
struct VoiceMessage {
    std::uint8_t status = 0;
    std::uint8_t data1 = 0;
    std::uint8_t data2 = 0;

    VoiceMessage() = default;
    VoiceMessage(std::uint8_t s, std::uint8_t d1, std::uint8_t d2)
        : status(s), data1(d1), data2(d2) {}
    bool operator==(const VoiceMessage&) const = default;
};
}  // namespace std_midi

/// The tick index of every click of the song from tick 0 up to and including the last tick,
/// ascending and without duplicates.
///
/// Rule: the song is cut into segments at tick 0, at every bar start (a `barsBeats` record with
/// beat 1), at every meter change and at the start and the end of every click event. Each
/// segment's first tick is a click, and further clicks follow every click length up to the next
/// segment. The click length is that of the click event in force at the segment's start (the
/// last event starting at or before it, if it covers it: CL::Click::ClocksPerClick of the
/// meter's notated 32nds), else the meter's clocks per click, times ticks per clock
/// (ticksPerQuarter / 24). So every bar starts on a click, a click event's first click is at its
/// start, and the meter's clicks resume from the event's end. A click length of 0 (resolution
/// below 24, or a zero meter) leaves only the segments' first ticks.
std::list<unsigned int> CreateBeatTicks(const TL::TimelineSequence<TL::BarsBeats>& barsBeats,
                                        const CL::ChangeLogSequence<CL::Click>& clicks,
                                        const TL::TimelineSequence<TL::Meter>& meters,
                                        std::uint32_t lastTickIndex, std::uint32_t ticksPerQuarter);
