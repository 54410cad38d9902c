#include "velt_core/show_loader.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <numeric>
#include <set>
#include <string_view>

#include <nlohmann/json.hpp>

#include "velt_core/song_builder.h"

namespace velt_core {

namespace {

// ---------------------------------------------------------------------------------------------
// File to song

// About 14 hours of music at 120 beats per minute.
constexpr std::uint64_t maxBeatsPerSong = 100000;

// What one (port, channel) collects while the file is walked.
struct TrackDraft {
    std::size_t firstFileTrack = 0;
    std::vector<velt_midi::VoiceEvent> events;
};

std::string ChannelName(std::uint16_t trackId) {
    const int port = trackId >> 4;
    const int channel = (trackId & 0x0F) + 1;
    std::string text = "Channel " + std::to_string(channel);
    return port == 0 ? text : "Port " + std::to_string(port) + " " + text;
}

// Keeps, of records at one tick, the last one (file order), then sorts by tick.
template <typename T>
void SortKeepingLastAtTick(std::vector<T>& records) {
    std::stable_sort(records.begin(), records.end(),
                     [](const T& a, const T& b) { return a.tick_index < b.tick_index; });
    std::vector<T> kept;
    for (const T& record : records) {
        if (!kept.empty() && kept.back().tick_index == record.tick_index) {
            kept.back() = record;
        } else {
            kept.push_back(record);
        }
    }
    records = std::move(kept);
}

template <typename T>
void EnsureRecordAtZero(std::vector<T>& records) {
    if (records.empty() || records.front().tick_index != 0) {
        records.insert(records.begin(), T{});
    }
}

class SongMapper {
  public:
    SongMapper(const SmfFile& file, const std::string& name, std::vector<std::string>& warnings)
        : file_(file), name_(name), warnings_(warnings) {}

    velt_midi::SongData Map() {
        ChooseResolution_();
        for (std::size_t i = 0; i < file_.tracks.size(); ++i) {
            WalkTrack_(i);
        }
        velt_midi::SongData song;
        song.SetTicksPerQuarter(ticksPerQuarter_);
        BuildTracks_(song);
        BuildTimeline_(song.GetTimeline());
        auto& markers = song.GetSongLog().GetMarkers().GetVector();
        markers = std::move(markers_);
        std::stable_sort(markers.begin(), markers.end(),
                         [](const auto& a, const auto& b) { return a.tick_index < b.tick_index; });
        song.GetSongLog().SetSongName(songName_);
        WarnNotPlayed_();
        return song;
    }

  private:
    // The engine counts in MIDI clocks of ticksPerQuarter / 24 ticks (integer division): any
    // other resolution than a multiple of 24 would make every clock too short and the song play
    // slow (100 ticks per quarter: 4 ticks a clock instead of 4 1/6, 4.2 % slow). It is multiplied
    // by the least factor that makes it a multiple of 24, and every tick with it, so the song
    // keeps its time in seconds.
    void ChooseResolution_() {
        scale_ = 24 / std::gcd(std::uint32_t{file_.ticksPerQuarter}, 24u);
        ticksPerQuarter_ = file_.ticksPerQuarter * scale_;
        if (scale_ != 1) {
            Warn_("resolution of " + std::to_string(file_.ticksPerQuarter) +
                  " ticks per quarter is not a multiple of 24; ticks scaled by " +
                  std::to_string(scale_) + " to " + std::to_string(ticksPerQuarter_));
        }
    }

    std::uint32_t Tick_(std::uint32_t fileTick) const {
        const std::uint64_t tick = static_cast<std::uint64_t>(fileTick) * scale_;
        if (tick > std::numeric_limits<std::uint32_t>::max()) {
            throw SmfError(name_, std::nullopt,
                           "tick " + std::to_string(fileTick) + " overflows when scaled by " +
                               std::to_string(scale_));
        }
        return static_cast<std::uint32_t>(tick);
    }

    void Warn_(const std::string& what) { warnings_.push_back(name_ + ": " + what); }

    // The engine plays channel messages only. What else the file would send is reported in one
    // line per file: a file may hold thousands of such messages.
    void WarnNotPlayed_() {
        auto count = [](std::size_t n, const std::string& what) {
            return std::to_string(n) + " " + what + (n == 1 ? " message" : " messages");
        };
        std::string text;
        if (sysExMessages_ != 0) {
            text = count(sysExMessages_, "System Exclusive");
        }
        if (file_.systemMessages != 0) {
            text += (text.empty() ? "" : " and ") +
                    count(file_.systemMessages, "system common or real-time");
        }
        if (!text.empty()) {
            const bool one = sysExMessages_ + file_.systemMessages == 1;
            Warn_(text + (one ? " is" : " are") + " not played.");
        }
    }

    // A SysEx message may be sent in packets: F0 with the first bytes, then F7 packets until one
    // ends with F7. An F7 packet that continues no message is an escape, a message of its own.
    void CountSysEx_(const SmfEvent& event, bool& unfinished) {
        const bool closes = !event.bytes.empty() && event.bytes.back() == 0xF7;
        if (event.status == smf_status::sysEx || !unfinished) {
            ++sysExMessages_;
        }
        unfinished = event.status == smf_status::sysEx ? !closes : unfinished && !closes;
    }

    void WalkTrack_(std::size_t index) {
        const SmfTrack& track = file_.tracks[index];
        std::uint8_t port = 0;
        std::string trackName;
        bool named = false;
        std::set<std::uint16_t> fed;
        bool sysExUnfinished = false;
        for (const SmfEvent& event : track.events) {
            const std::uint32_t tick = Tick_(event.tick);
            lastTick_ = std::max(lastTick_, tick);
            if (event.IsChannelMessage()) {
                const auto id = static_cast<std::uint16_t>((port << 4) | (event.status & 0x0F));
                AddChannelMessage_(index, id, tick, event);
                fed.insert(id);
            } else if (event.status == smf_status::meta) {
                if (event.metaType == smf_meta::trackName && !named) {
                    trackName = event.Text();
                    named = true;
                } else if (event.metaType == smf_meta::midiPort) {
                    if (event.bytes.size() == 1) {
                        port = event.bytes[0];
                    } else {
                        Warn_("MIDI port meta event of " + std::to_string(event.bytes.size()) +
                              " bytes at tick " + std::to_string(event.tick) + " ignored");
                    }
                } else {
                    AddTimelineMeta_(tick, event);
                }
            } else {
                CountSysEx_(event, sysExUnfinished);
            }
        }
        lastTick_ = std::max(lastTick_, Tick_(track.endTick));
        for (std::uint16_t id : fed) {
            if (drafts_.at(id).firstFileTrack != index) {
                continue;
            }
            std::string name = trackName;
            if (name.empty()) {
                name = ChannelName(id);
            } else if (fed.size() > 1) {
                name += " ch " + std::to_string((id & 0x0F) + 1);
            }
            names_[id] = name;
        }
        if (index == 0 && fed.empty()) {
            songName_ = trackName;
        }
    }

    void AddChannelMessage_(std::size_t fileTrack, std::uint16_t id, std::uint32_t tick,
                            const SmfEvent& event) {
        auto [it, added] = drafts_.try_emplace(id);
        if (added) {
            it->second.firstFileTrack = fileTrack;
        }
        std::uint8_t status = event.status;
        // The chase state holds every note-on as sounding, so a note-on of velocity 0 (the
        // common way of writing a note-off under running status) is stored as the note-off it
        // means.
        if ((status & 0xF0) == 0x90 && event.data2 == 0) {
            status = static_cast<std::uint8_t>(0x80 | (status & 0x0F));
        }
        it->second.events.emplace_back(tick, status, id, event.data1, event.data2);
    }

    // Meta event contents:
    //   tempo          FF 51 03 tt tt tt        microseconds per quarter note, 24-bit
    //   time signature FF 58 04 nn dd cc bb     numerator, denominator as a power of 2, MIDI
    //                                           clocks per click, notated 32nds per quarter
    //   key signature  FF 59 02 sf mi           sharps (+) or flats (-), 0 major / 1 minor
    //   marker         FF 06 len text
    void AddTimelineMeta_(std::uint32_t tick, const SmfEvent& event) {
        const auto& b = event.bytes;
        const std::string at = " at tick " + std::to_string(event.tick);
        switch (event.metaType) {
            case smf_meta::tempo: {
                const std::uint32_t value =
                    b.size() == 3 ? (std::uint32_t{b[0]} << 16) | (b[1] << 8) | b[2] : 0;
                if (value == 0) {
                    Warn_("unusable tempo" + at + " skipped");
                    return;
                }
                tempos_.push_back(TL::Tempo{tick, value});
                return;
            }
            case smf_meta::timeSignature: {
                if (b.size() < 4 || b[0] == 0 || b[1] > 7) {
                    Warn_("unusable time signature" + at + " skipped");
                    return;
                }
                TL::Meter meter;
                meter.tick_index = tick;
                meter.numerator = b[0];
                meter.denominator = static_cast<std::uint8_t>(1u << b[1]);
                meter.clocks_per_click = b[2];
                meter.notated_32nds = b[3];
                if (meter.clocks_per_click == 0 || meter.notated_32nds == 0) {
                    Warn_("time signature" + at +
                          " with zero clocks per click or 32nds; 24 and 8 used");
                    meter.clocks_per_click = meter.clocks_per_click ? meter.clocks_per_click : 24;
                    meter.notated_32nds = meter.notated_32nds ? meter.notated_32nds : 8;
                }
                meters_.push_back(meter);
                return;
            }
            case smf_meta::keySignature: {
                const int sharpsFlats = b.size() == 2 ? static_cast<std::int8_t>(b[0]) : 99;
                if (sharpsFlats < -7 || sharpsFlats > 7 || b[1] > 1) {
                    Warn_("unusable key signature" + at + " skipped");
                    return;
                }
                keys_.push_back(TL::Key{tick, static_cast<std::int16_t>(sharpsFlats), b[1]});
                return;
            }
            case smf_meta::marker:
                markers_.push_back(CL::Marker{tick, event.Text()});
                return;
            default:
                return;
        }
    }

    void BuildTracks_(velt_midi::SongData& song) {
        for (auto& [id, draft] : drafts_) {
            auto track = std::make_shared<velt_midi::VoiceTrack>();
            track->SetTrackName(names_[id]);
            track->channelIndex = static_cast<std::uint8_t>(id & 0x0F);
            std::stable_sort(draft.events.begin(), draft.events.end(),
                             [](const auto& a, const auto& b) { return a.time < b.time; });
            bool programSet = false;
            for (const velt_midi::VoiceEvent& e : draft.events) {
                const std::uint8_t kind = e.status & 0xF0;
                if (kind == 0xC0 && !programSet) {
                    track->SetDefaultProgramChange(e.data1);
                    programSet = true;
                } else if (kind == 0x90) {
                    auto& [low, high] = track->range;
                    low = low == 255 ? e.data1 : std::min(low, e.data1);
                    high = high == 255 ? e.data1 : std::max(high, e.data1);
                }
            }
            track->events = std::move(draft.events);
            song.GetVoiceData().insert(id, std::move(track));
        }
    }

    void BuildTimeline_(TL::Timeline& timeline) {
        SortKeepingLastAtTick(tempos_);
        SortKeepingLastAtTick(meters_);
        SortKeepingLastAtTick(keys_);
        EnsureRecordAtZero(tempos_);
        EnsureRecordAtZero(meters_);
        EnsureRecordAtZero(keys_);
        timeline.GetTempos().GetVector() = std::move(tempos_);
        timeline.GetMeters().GetVector() = std::move(meters_);
        timeline.GetKeys().GetVector() = std::move(keys_);
        timeline.lastTickIndex = lastTick_;
        RefuseTooManyBeats_(timeline.GetMeters());
        timeline.GetBarsBeats() =
            DeriveBarsBeats(timeline.GetMeters(), lastTick_, ticksPerQuarter_);
    }

    // A few bytes of file can put the last tick billions of ticks away; one bars-beats record per
    // beat (click) up to there would exhaust memory, so a song longer than any show plays is
    // refused. Counts the records DeriveBarsBeats makes: per whole bar its clicks, then the
    // clicks of the part bar before the next meter or the song's end.
    void RefuseTooManyBeats_(const TL::TimelineSequence<TL::Meter>& meters) const {
        std::uint64_t beats = 0;
        for (std::size_t i = 0; i < meters.size(); ++i) {
            const std::uint64_t end =
                i + 1 < meters.size() ? meters[i + 1].tick_index : std::uint64_t{lastTick_} + 1;
            const std::uint64_t length = end - meters[i].tick_index;
            const std::uint64_t bar = TicksPerBar(meters[i], ticksPerQuarter_);
            const std::uint64_t click = TicksPerClick(meters[i], ticksPerQuarter_);
            auto clicksIn = [click](std::uint64_t ticks) { return (ticks + click - 1) / click; };
            beats += length / bar * clicksIn(bar) + clicksIn(length % bar);
        }
        if (beats > maxBeatsPerSong) {
            throw SmfError(name_, std::nullopt,
                           "song of " + std::to_string(beats) + " beats is too long (at most " +
                               std::to_string(maxBeatsPerSong) + ")");
        }
    }

    const SmfFile& file_;
    const std::string& name_;
    std::vector<std::string>& warnings_;
    std::uint32_t ticksPerQuarter_ = 480;
    std::uint32_t scale_ = 1;
    std::uint32_t lastTick_ = 0;
    std::size_t sysExMessages_ = 0;
    std::map<std::uint16_t, TrackDraft> drafts_;
    std::map<std::uint16_t, std::string> names_;
    std::vector<TL::Tempo> tempos_;
    std::vector<TL::Meter> meters_;
    std::vector<TL::Key> keys_;
    std::vector<CL::Marker> markers_;
    std::string songName_;
};

void LogWarnings(const std::vector<std::string>& warnings) {
    for (const std::string& warning : warnings) {
        kit::CoutBuffer() << "WARNING: " << warning << kit::endl;
    }
}

// A song file's song and the factor its ticks were multiplied by (1 when the file's resolution
// is a multiple of 24), which ticks written elsewhere against the file (the manifest's
// positions) need too.
struct ImportedSong {
    velt_midi::SongData song;
    std::uint32_t tickScale = 1;
};

// The name of a song that no one named: the file's song name, else the file's name without its
// extension.
std::string DefaultSongName(const std::string& fromFile, const std::filesystem::path& file) {
    return fromFile.empty() ? file.stem().string() : fromFile;
}

}  // namespace

velt_midi::SongData SongFromSmf(const SmfFile& file, const std::string& name,
                                std::vector<std::string>& warnings) {
    return SongMapper(file, name, warnings).Map();
}

namespace {

ImportedSong ImportSongFile(const std::string& path) {
    SmfFile file = ReadSmf(path);
    ImportedSong imported{SongFromSmf(file, path, file.warnings)};
    imported.tickScale = imported.song.GetTicksPerQuarter() / file.ticksPerQuarter;
    LogWarnings(file.warnings);
    return imported;
}

}  // namespace

velt_midi::SongData LoadSongFile(const std::string& path) {
    return ImportSongFile(path).song;
}

// ---------------------------------------------------------------------------------------------
// Song to file

SmfFile SmfFromSong(const velt_midi::SongData& song) {
    const std::string name = song.GetSongName().empty() ? "<song>" : song.GetSongName();
    if (song.GetTicksPerQuarter() == 0 || song.GetTicksPerQuarter() > 0x7FFF) {
        throw SmfError(name, std::nullopt,
                       "ticks per quarter " + std::to_string(song.GetTicksPerQuarter()) +
                           " cannot be written");
    }
    SmfFile file;
    file.format = 1;
    file.ticksPerQuarter = static_cast<std::uint16_t>(song.GetTicksPerQuarter());
    const TL::Timeline& timeline = song.GetTimeline();
    const std::uint32_t end = timeline.lastTickIndex;

    SmfTrack conductor;
    conductor.endTick = end;
    if (!song.GetSongName().empty()) {
        conductor.events.push_back(SmfEvent::MetaText(0, smf_meta::trackName, song.GetSongName()));
    }
    std::vector<SmfEvent> meta;
    for (const TL::Tempo& t : timeline.GetTempos()) {
        const std::uint32_t v = t.microseconds_per_quarter;
        meta.push_back(
            SmfEvent::Meta(t.tick_index, smf_meta::tempo,
                           {static_cast<std::uint8_t>(v >> 16), static_cast<std::uint8_t>(v >> 8),
                            static_cast<std::uint8_t>(v)}));
    }
    for (const TL::Meter& m : timeline.GetMeters()) {
        const int power = std::countr_zero(static_cast<unsigned>(m.denominator));
        if (m.denominator == 0 || (1u << power) != m.denominator) {
            throw SmfError(
                name, std::nullopt,
                "meter denominator " + std::to_string(m.denominator) + " is not a power of two");
        }
        meta.push_back(SmfEvent::Meta(
            m.tick_index, smf_meta::timeSignature,
            {m.numerator, static_cast<std::uint8_t>(power), m.clocks_per_click, m.notated_32nds}));
    }
    for (const TL::Key& k : timeline.GetKeys()) {
        meta.push_back(SmfEvent::Meta(
            k.tick_index, smf_meta::keySignature,
            {static_cast<std::uint8_t>(k.sharps_flats), static_cast<std::uint8_t>(k.minor)}));
    }
    for (const CL::Marker& m : song.GetSongLog().GetMarkers()) {
        meta.push_back(SmfEvent::MetaText(m.tick_index, smf_meta::marker, m.text));
    }
    std::stable_sort(meta.begin(), meta.end(),
                     [](const SmfEvent& a, const SmfEvent& b) { return a.tick < b.tick; });
    conductor.events.insert(conductor.events.end(), meta.begin(), meta.end());
    file.tracks.push_back(std::move(conductor));

    for (const auto& [id, track] : song.GetVoiceData()) {
        SmfTrack out;
        out.endTick = end;
        if (!track->GetTrackName().empty()) {
            out.events.push_back(SmfEvent::MetaText(0, smf_meta::trackName, track->GetTrackName()));
        }
        if ((id >> 4) != 0) {
            out.events.push_back(
                SmfEvent::Meta(0, smf_meta::midiPort, {static_cast<std::uint8_t>(id >> 4)}));
        }
        for (const velt_midi::VoiceEvent& e : track->events) {
            out.events.push_back(SmfEvent::Channel(e.time, e.status, e.data1, e.data2));
        }
        file.tracks.push_back(std::move(out));
    }
    return file;
}

// ---------------------------------------------------------------------------------------------
// Manifest

std::optional<std::uint32_t> FindBarBeat(const TL::Timeline& timeline, std::int32_t bar,
                                         std::int32_t beat) {
    for (const TL::BarsBeats& record : timeline.GetBarsBeats()) {
        if (record.bar == bar && record.bar_beat == beat) {
            return record.tick_index;
        }
    }
    return std::nullopt;
}

namespace {

using Json = nlohmann::json;

constexpr int maxTransposition = 24;
constexpr unsigned maxTrackId = 0xFFF;

// Reads one song's entry of the manifest. Every fault names the song and the key path.
class SongEntryReader {
  public:
    SongEntryReader(const std::string& manifest, const std::filesystem::path& directory,
                    std::size_t position)
        : manifest_(manifest), directory_(directory), position_(position) {}

    /// Throws SmfError when the song's file cannot be read, ShowError for a fault of the entry.
    std::shared_ptr<velt_midi::SongData> Read(const Json& entry) {
        const std::string file = File_(entry);
        ImportedSong imported = ImportSongFile((directory_ / std::filesystem::path(file)).string());
        auto song = std::make_shared<velt_midi::SongData>(std::move(imported.song));
        song_ = song.get();
        tickScale_ = imported.tickScale;
        CL::SongLog& log = song->GetSongLog();
        log.SetSongName(entry.contains("name") ? label_ : DefaultSongName(log.GetSongName(), file));
        label_ = log.GetSongName();
        CheckSongKeys_(entry);
        log.SetSongNumber(Number_(entry));
        if (entry.contains("start")) {
            song->SetSongStartTickIndex(Position_(entry["start"], "start"));
        }
        ReadPaired_<CL::Click>(entry, "clicks", "notated_32nds", log.GetClicks().GetVector());
        ReadPaired_<CL::TempoScale>(entry, "tempo_scales", "factor",
                                    log.GetTempoScales().GetVector());
        ReadPaired_<CL::Transpose>(entry, "transpositions", "semitones",
                                   log.GetTranspositions().GetVector());
        ReadMarkers_(entry, log.GetMarkers().GetVector());
        ReadPages_(entry, song->GetTimeline().GetPageNums().GetVector());
        ReadRanges_(entry, *song);
        return song;
    }

    /// For an entry whose song file Read could not read: checks what can be checked without the
    /// song (every key but the positions and ranges, which need its bars and tracks) and returns
    /// the song's name, the manifest's or the file's. Throws ShowError for a fault.
    std::string ReadUnplayable(const Json& entry) {
        const std::string file = File_(entry);
        if (!entry.contains("name")) {
            label_ = DefaultSongName("", file);
        }
        CheckSongKeys_(entry);
        Number_(entry);
        return label_;
    }

  private:
    [[noreturn]] void Fail_(const std::string& key, const std::string& what) const {
        std::string text = manifest_ + ": song " + std::to_string(position_);
        if (!label_.empty()) {
            text += " \"" + label_ + "\"";
        }
        if (!key.empty()) {
            text += ": key \"" + key + "\"";
        }
        throw ShowError(text + ": " + what);
    }

    std::string String_(const Json& value, const std::string& key) const {
        if (!value.is_string()) {
            Fail_(key, "expected a string");
        }
        return value.get<std::string>();
    }

    // The entry's object, name and file (returned), read before the song is.
    std::string File_(const Json& entry) {
        if (!entry.is_object()) {
            Fail_("", "a song is an object");
        }
        if (entry.contains("name")) {
            label_ = String_(entry["name"], "name");
        }
        if (!entry.contains("file")) {
            Fail_("file", "missing");
        }
        return String_(entry["file"], "file");
    }

    // Checked once the song's name is known, so that the fault names the song.
    void CheckSongKeys_(const Json& entry) const {
        static const std::set<std::string> known = {
            "number",       "name",           "file",    "start", "clicks",
            "tempo_scales", "transpositions", "markers", "pages", "ranges"};
        for (const auto& [key, value] : entry.items()) {
            if (!known.contains(key)) {
                Fail_(key, "unknown key");
            }
        }
    }

    // The song number, default its position in the show.
    std::string Number_(const Json& entry) const {
        if (!entry.contains("number")) {
            return std::to_string(position_);
        }
        const Json& value = entry["number"];
        if (value.is_number_unsigned()) {
            return std::to_string(value.get<std::uint64_t>());
        }
        if (value.is_string() && !value.get<std::string>().empty()) {
            return value.get<std::string>();
        }
        Fail_("number", "expected a non-negative integer or a non-empty string");
    }

    std::int64_t Integer_(const Json& value, const std::string& key, std::int64_t low,
                          std::int64_t high) const {
        if (!value.is_number_integer()) {
            Fail_(key, "expected an integer");
        }
        if (value.is_number_unsigned() && value.get<std::uint64_t>() > std::uint64_t{INT64_MAX}) {
            Fail_(key, "out of range");
        }
        const auto n = value.get<std::int64_t>();
        if (n < low || n > high) {
            Fail_(key, std::to_string(n) + " is outside " + std::to_string(low) + ".." +
                           std::to_string(high));
        }
        return n;
    }

    // A position: a tick (non-negative integer), "bar:beat" (as displayed, from 1) or "end"
    // (the song's last tick). Positions lie within the song. A tick counts in the file's ticks,
    // as the author read them there, and is scaled with the song's ticks.
    std::uint32_t Position_(const Json& value, const std::string& key) const {
        const std::uint32_t last = song_->GetTimeline().lastTickIndex;
        if (value.is_number_integer()) {
            return static_cast<std::uint32_t>(Integer_(value, key, 0, last / tickScale_)) *
                   tickScale_;
        }
        if (!value.is_string()) {
            Fail_(key, "expected a tick, \"bar:beat\" or \"end\"");
        }
        const std::string text = value.get<std::string>();
        if (text == "end") {
            return last;
        }
        std::uint64_t bar = 0;
        std::uint64_t beat = 0;
        if (!ParseBarBeat_(text, bar, beat)) {
            Fail_(key, "\"" + text + "\" is not a tick, \"bar:beat\" or \"end\"");
        }
        // Bars and beats are counted in 32 bits: a larger number names no beat of the song.
        std::optional<std::uint32_t> tick;
        if (bar <= INT32_MAX && beat <= INT32_MAX) {
            tick = FindBarBeat(song_->GetTimeline(), static_cast<std::int32_t>(bar),
                               static_cast<std::int32_t>(beat));
        }
        if (!tick) {
            Fail_(key,
                  "the song has no bar " + std::to_string(bar) + " beat " + std::to_string(beat));
        }
        return *tick;
    }

    // Two runs of decimal digits around a colon. An unsigned conversion takes no sign, and one
    // that does not fit reports it instead of throwing.
    static bool ParseBarBeat_(const std::string& text, std::uint64_t& bar, std::uint64_t& beat) {
        const auto colon = text.find(':');
        if (colon == std::string::npos || text.size() > 16) {
            return false;
        }
        auto digits = [](const char* first, const char* last, std::uint64_t& out) {
            const auto [end, error] = std::from_chars(first, last, out);
            return first != last && error == std::errc() && end == last;
        };
        const char* begin = text.data();
        return digits(begin, begin + colon, bar) &&
               digits(begin + colon + 1, begin + text.size(), beat);
    }

    const Json& Array_(const Json& entry, const std::string& key) const {
        const Json& list = entry[key];
        if (!list.is_array()) {
            Fail_(key, "expected an array");
        }
        return list;
    }

    void CheckKeys_(const Json& item, const std::string& key,
                    const std::set<std::string>& allowed) const {
        if (!item.is_object()) {
            Fail_(key, "expected an object");
        }
        for (const auto& [name, value] : item.items()) {
            if (!allowed.contains(name)) {
                Fail_(key + "." + name, "unknown key");
            }
        }
        for (const std::string& name : allowed) {
            if (!item.contains(name)) {
                Fail_(key + "." + name, "missing");
            }
        }
    }

    // Change-log events: {"start": position, "end": position, <value key>: value}, covering
    // [start, end); events of one kind may not overlap.
    template <typename Event>
    void ReadPaired_(const Json& entry, const std::string& listKey, const std::string& valueKey,
                     std::vector<Event>& out) const {
        if (!entry.contains(listKey)) {
            return;
        }
        const Json& list = Array_(entry, listKey);
        for (std::size_t i = 0; i < list.size(); ++i) {
            const std::string key = listKey + "[" + std::to_string(i) + "]";
            const Json& item = list[i];
            CheckKeys_(item, key, {"start", "end", valueKey});
            const std::uint32_t start = Position_(item["start"], key + ".start");
            const std::uint32_t end = Position_(item["end"], key + ".end");
            if (end <= start) {
                Fail_(key + ".end", "must lie after start");
            }
            out.push_back(MakeEvent_<Event>(start, end, item[valueKey], key + "." + valueKey));
        }
        std::stable_sort(out.begin(), out.end(),
                         [](const Event& a, const Event& b) { return a.start() < b.start(); });
        for (std::size_t i = 1; i < out.size(); ++i) {
            if (out[i].start() < out[i - 1].end()) {
                Fail_(listKey, "events at ticks " + std::to_string(out[i - 1].start()) + " and " +
                                   std::to_string(out[i].start()) + " overlap");
            }
        }
    }

    template <typename Event>
    Event MakeEvent_(std::uint32_t start, std::uint32_t end, const Json& value,
                     const std::string& key) const {
        if constexpr (std::is_same_v<Event, CL::Click>) {
            return CL::Click(start, end, static_cast<int>(Integer_(value, key, 1, 255)));
        } else if constexpr (std::is_same_v<Event, CL::Transpose>) {
            return CL::Transpose(
                start, end,
                static_cast<int>(Integer_(value, key, -maxTransposition, maxTransposition)));
        } else {
            if (!value.is_number() || !(value.get<double>() > 0.0) ||
                !(value.get<double>() <= 10.0)) {
                Fail_(key, "expected a factor above 0 and at most 10");
            }
            return CL::TempoScale(start, end, value.get<float>());
        }
    }

    void ReadMarkers_(const Json& entry, std::vector<CL::Marker>& out) const {
        if (!entry.contains("markers")) {
            return;
        }
        const Json& list = Array_(entry, "markers");
        for (std::size_t i = 0; i < list.size(); ++i) {
            const std::string key = "markers[" + std::to_string(i) + "]";
            CheckKeys_(list[i], key, {"at", "text"});
            out.push_back(CL::Marker{Position_(list[i]["at"], key + ".at"),
                                     String_(list[i]["text"], key + ".text")});
        }
        std::stable_sort(out.begin(), out.end(),
                         [](const auto& a, const auto& b) { return a.tick_index < b.tick_index; });
    }

    void ReadPages_(const Json& entry, std::vector<TL::PageNum>& out) const {
        if (!entry.contains("pages")) {
            return;
        }
        const Json& list = Array_(entry, "pages");
        for (std::size_t i = 0; i < list.size(); ++i) {
            const std::string key = "pages[" + std::to_string(i) + "]";
            CheckKeys_(list[i], key, {"at", "page"});
            out.push_back(TL::PageNum{
                Position_(list[i]["at"], key + ".at"),
                static_cast<std::int32_t>(Integer_(list[i]["page"], key + ".page", 0, INT32_MAX))});
        }
        std::stable_sort(out.begin(), out.end(),
                         [](const auto& a, const auto& b) { return a.tick_index < b.tick_index; });
        for (std::size_t i = 1; i < out.size(); ++i) {
            if (out[i].tick_index == out[i - 1].tick_index) {
                Fail_("pages", "two pages at tick " + std::to_string(out[i].tick_index));
            }
        }
    }

    // "ranges": {"<track id>": [low, high] or null}; null means the track has no range (no
    // note is transposed, every note is chased as a switch).
    void ReadRanges_(const Json& entry, velt_midi::SongData& song) const {
        if (!entry.contains("ranges")) {
            return;
        }
        const Json& ranges = entry["ranges"];
        if (!ranges.is_object()) {
            Fail_("ranges", "expected an object of track id to [low, high] or null");
        }
        for (const auto& [idText, value] : ranges.items()) {
            const std::string key = "ranges." + idText;
            const auto id = ParseTrackId(idText);
            if (!id) {
                Fail_(key, "\"" + idText + "\" is not a track id");
            }
            if (!song.GetVoiceData().contains(*id)) {
                Fail_(key, "the song has no track " + idText);
            }
            std::pair<std::uint8_t, std::uint8_t> range{255, 255};
            if (!value.is_null()) {
                if (!value.is_array() || value.size() != 2) {
                    Fail_(key, "expected [low, high] or null");
                }
                range.first = static_cast<std::uint8_t>(Integer_(value[0], key + "[0]", 0, 127));
                range.second =
                    static_cast<std::uint8_t>(Integer_(value[1], key + "[1]", range.first, 127));
            }
            song.GetVoiceData().at(*id).range = range;
        }
    }

  public:
    // A track id as written in the manifest: decimal ("17") or hexadecimal ("0x11").
    static std::optional<std::uint16_t> ParseTrackId(const std::string& text) {
        const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
        const std::string digits = hex ? text.substr(2) : text;
        if (digits.empty() || digits.size() > 5) {
            return std::nullopt;
        }
        unsigned value = 0;
        for (char c : digits) {
            int d = -1;
            if (c >= '0' && c <= '9') {
                d = c - '0';
            } else if (hex && c >= 'a' && c <= 'f') {
                d = c - 'a' + 10;
            } else if (hex && c >= 'A' && c <= 'F') {
                d = c - 'A' + 10;
            }
            if (d < 0) {
                return std::nullopt;
            }
            value = value * (hex ? 16 : 10) + static_cast<unsigned>(d);
        }
        if (value > maxTrackId) {
            return std::nullopt;
        }
        return static_cast<std::uint16_t>(value);
    }

  private:
    const std::string& manifest_;
    const std::filesystem::path& directory_;
    std::size_t position_;
    std::string label_;
    velt_midi::SongData* song_ = nullptr;
    std::uint32_t tickScale_ = 1;
};

[[noreturn]] void FailAtKey(const std::string& manifest, const std::string& key,
                            const std::string& what) {
    throw ShowError(manifest + ": key \"" + key + "\": " + what);
}

// "groups": {"<group number 0..255>": [track id, ...]}
void ReadGroups(const Json& groups, const std::string& manifest, velt_midi::Groups& out) {
    if (!groups.is_object()) {
        FailAtKey(manifest, "groups", "expected an object of group number to track ids");
    }
    for (const auto& [numberText, ids] : groups.items()) {
        const std::string key = "groups." + numberText;
        const auto number = SongEntryReader::ParseTrackId(numberText);
        if (!number || *number > 255 || numberText.starts_with("0x")) {
            FailAtKey(manifest, key, "\"" + numberText + "\" is not a group number 0..255");
        }
        if (!ids.is_array()) {
            FailAtKey(manifest, key, "expected an array of track ids");
        }
        std::set<unsigned short> members;
        for (std::size_t i = 0; i < ids.size(); ++i) {
            const Json& id = ids[i];
            if (!id.is_number_unsigned() || id.get<std::uint64_t>() > maxTrackId) {
                FailAtKey(manifest, key + "[" + std::to_string(i) + "]",
                          "expected a track id 0..4095");
            }
            members.insert(static_cast<unsigned short>(id.get<std::uint64_t>()));
        }
        out.SetGroup(static_cast<unsigned char>(*number), std::move(members));
    }
}

// Follows the parser through the manifest's text as a key path ("songs[1].clicks[0].end": the
// element being read), so that a fault found while the text is parsed (bad syntax, a number too
// large for any type) names its key like the faults found in the parsed manifest.
class KeyPath {
  public:
    // The parser's callback: called for every start and end of an object or array, every key and
    // every finished plain value. Keeps everything.
    bool Follow(Json::parse_event_t event, const Json& parsed) {
        using Event = Json::parse_event_t;
        switch (event) {
            case Event::object_start:
            case Event::array_start:
                levels_.push_back(Level{event == Event::array_start, 0, std::nullopt});
                break;
            case Event::key:
                levels_.back().key = parsed.get<std::string>();
                break;
            case Event::object_end:
            case Event::array_end:
                levels_.pop_back();
                ElementDone_();
                break;
            case Event::value:
                ElementDone_();
                break;
        }
        return true;
    }

    std::string Text() const {
        std::string text;
        for (const Level& level : levels_) {
            if (level.array) {
                text += "[" + std::to_string(level.index) + "]";
            } else if (level.key) {
                text += (text.empty() ? "" : ".") + *level.key;
            }
        }
        return text;
    }

  private:
    // An array counts its elements; an object holds the key whose value is being read, none
    // between a value and the next key.
    struct Level {
        bool array = false;
        std::size_t index = 0;
        std::optional<std::string> key;
    };

    void ElementDone_() {
        if (levels_.empty()) {
            return;
        }
        if (levels_.back().array) {
            ++levels_.back().index;
        } else {
            levels_.back().key.reset();
        }
    }

    std::vector<Level> levels_;
};

Json ParseManifest(std::istream& stream, const std::string& manifest) {
    KeyPath path;
    auto at = [&path] {
        const std::string key = path.Text();
        return key.empty() ? std::string() : ": key \"" + key + "\"";
    };
    try {
        return Json::parse(stream, [&path](int, Json::parse_event_t event, Json& parsed) {
            return path.Follow(event, parsed);
        });
    } catch (const Json::parse_error& e) {
        throw ShowError(manifest + ": byte " + std::to_string(e.byte) + at() +
                        ": not valid JSON: " + e.what());
    } catch (const Json::exception& e) {
        // A number beyond the range of every number type.
        throw ShowError(manifest + at() + ": " + e.what());
    }
}

// Manifest layout (docs/show-format.md):
//   {"name": <show name>, "groups": {...}, "songs": [<song>, ...]}
// Without `entries`, a song file that cannot be read fails the show (SmfError); with them, the
// song is left out of the show and its entry carries the error.
std::shared_ptr<pv::ParvelShowData> ReadShow(const std::filesystem::path& manifestPath,
                                             const std::string& manifest,
                                             std::vector<ShowEntry>* entries) {
    std::ifstream stream(manifestPath);
    if (!stream) {
        throw ShowError(manifest + ": cannot open the show manifest");
    }
    Json root = ParseManifest(stream, manifest);
    if (!root.is_object()) {
        throw ShowError(manifest + ": expected an object with \"name\" and \"songs\"");
    }
    for (const auto& [key, value] : root.items()) {
        if (key != "name" && key != "songs" && key != "groups") {
            FailAtKey(manifest, key, "unknown key");
        }
    }
    auto show = std::make_shared<pv::ParvelShowData>();
    if (!root.contains("name") || !root["name"].is_string()) {
        FailAtKey(manifest, "name", "expected the show's name as a string");
    }
    show->SetShowName(root["name"].get<std::string>());
    if (root.contains("groups")) {
        ReadGroups(root["groups"], manifest, show->GetGroups());
    }
    if (!root.contains("songs") || !root["songs"].is_array() || root["songs"].empty()) {
        FailAtKey(manifest, "songs", "expected a non-empty array of songs");
    }
    const std::filesystem::path directory = manifestPath.parent_path();
    const Json& songs = root["songs"];
    // The player finds a song's music by its name, so no two songs share one. A song reprised
    // from the same file, or two files that carry the same sequence name, are told apart by a
    // number.
    std::set<std::string> names;
    const auto ownName = [&](const std::string& name, std::size_t position) {
        std::string unique = name;
        for (int n = 2; names.contains(unique); ++n) {
            unique = name + " (" + std::to_string(n) + ")";
        }
        if (unique != name) {
            kit::CoutBuffer() << "WARNING: " << manifest << ": song " << position << " is named \""
                              << name << "\" as an earlier song is; it is called \"" << unique
                              << "\"." << kit::endl;
        }
        names.insert(unique);
        return unique;
    };
    for (std::size_t i = 0; i < songs.size(); ++i) {
        SongEntryReader reader(manifest, directory, i + 1);
        if (entries == nullptr) {
            auto song = reader.Read(songs[i]);
            song->GetSongLog().SetSongName(ownName(song->GetSongName(), i + 1));
            show->AddSong(song);
            continue;
        }
        try {
            auto song = reader.Read(songs[i]);
            song->GetSongLog().SetSongName(ownName(song->GetSongName(), i + 1));
            show->AddSong(song);
            entries->push_back(ShowEntry{song->GetSongName(), song, {}});
        } catch (const SmfError& e) {
            ShowEntry entry{ownName(reader.ReadUnplayable(songs[i]), i + 1), nullptr, e.what()};
            kit::CoutBuffer() << "WARNING: " << manifest << ": song " << i + 1 << " \""
                              << entry.name << "\" cannot be played: " << entry.error << kit::endl;
            entries->push_back(std::move(entry));
        }
    }
    return show;
}

std::shared_ptr<pv::ParvelShowData> LoadManifest(const std::string& location,
                                                 std::vector<ShowEntry>* entries) {
    std::filesystem::path manifestPath(location);
    std::error_code error;  // a location that cannot be examined is opened as a file, and fails
    if (std::filesystem::is_directory(manifestPath, error)) {
        manifestPath /= "show.json";
    }
    const std::string manifest = manifestPath.string();
    try {
        return ReadShow(manifestPath, manifest, entries);
    } catch (const ShowError&) {
        throw;
    } catch (const SmfError&) {
        throw;  // a song file's fault, named by the song file
    } catch (const std::exception& e) {
        // Every value is checked before it is used; whatever else fails is still a fault of this
        // manifest to the host, which handles the loader's two errors.
        throw ShowError(manifest + ": " + e.what());
    }
}

// A Standard MIDI File by its extension (any case), else by its first four bytes. A folder, or
// a file that cannot be opened, is not: it is taken for a show and fails as one.
bool IsMidiFile(const std::filesystem::path& path) {
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) {
        return false;
    }
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (extension == ".mid" || extension == ".midi" || extension == ".smf") {
        return true;
    }
    if (!std::filesystem::is_regular_file(path, error)) {
        return false;
    }
    char magic[4] = {};
    std::ifstream stream(path, std::ios::binary);
    return stream.read(magic, sizeof magic) && std::string_view(magic, sizeof magic) == "MThd";
}

// One MIDI file as a show of one song, both named after the file unless the file names its song.
PlayableShow LoadMidiFileShow(const std::filesystem::path& path) {
    ImportedSong imported = ImportSongFile(path.string());
    auto song = std::make_shared<velt_midi::SongData>(std::move(imported.song));
    CL::SongLog& log = song->GetSongLog();
    log.SetSongName(DefaultSongName(log.GetSongName(), path));
    log.SetSongNumber("1");
    PlayableShow playable;
    playable.show = std::make_shared<pv::ParvelShowData>();
    playable.show->SetShowName(path.stem().string());
    playable.show->AddSong(song);
    playable.songs.push_back(ShowEntry{log.GetSongName(), song, {}});
    return playable;
}

}  // namespace

std::shared_ptr<pv::ParvelShowData> LoadShow(const std::string& location) {
    return LoadManifest(location, nullptr);
}

PlayableShow LoadPlayableShow(const std::string& location) {
    if (IsMidiFile(location)) {
        return LoadMidiFileShow(location);
    }
    PlayableShow playable;
    playable.show = LoadManifest(location, &playable.songs);
    return playable;
}

}  // namespace velt_core
