// Mapping a MIDI file into the song model, and the show manifest.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/captured_log.h"
#include "tests/support/temp_folder.h"
#include "velt_core/show_loader.h"
#include "velt_core/smf_writer.h"
#include "velt_core/song_builder.h"

namespace {

using velt_core::SmfEvent;
using velt_core::SmfFile;
using velt_core::SmfTrack;
namespace meta = velt_core::smf_meta;

velt_midi::SongData Map(const SmfFile& file, std::vector<std::string>* warningsOut = nullptr) {
    std::vector<std::string> warnings;
    auto song = velt_core::SongFromSmf(file, "m.mid", warnings);
    if (warningsOut) {
        *warningsOut = warnings;
    } else {
        EXPECT_TRUE(warnings.empty()) << warnings.front();
    }
    return song;
}

SmfEvent Tempo(std::uint32_t tick, std::uint32_t us) {
    return SmfEvent::Meta(tick, meta::tempo,
                          {static_cast<std::uint8_t>(us >> 16), static_cast<std::uint8_t>(us >> 8),
                           static_cast<std::uint8_t>(us)});
}

TEST(SongFromSmf, TrackIdsComeFromPortAndChannelAndMergeAcrossFileTracks) {
    SmfFile file;
    file.ticksPerQuarter = 96;
    SmfTrack conductor;
    conductor.events = {SmfEvent::MetaText(0, meta::trackName, "Title")};
    SmfTrack multi;  // one file track on channels 1 and 3 (indices 0 and 2), then port 2
    multi.events = {SmfEvent::MetaText(0, meta::trackName, "Keys"),
                    SmfEvent::Channel(0, 0x90, 60, 100),
                    SmfEvent::Channel(10, 0x92, 40, 90),
                    SmfEvent::Channel(15, 0x90, 60, 0),
                    SmfEvent::Meta(20, meta::midiPort, {2}),
                    SmfEvent::Channel(30, 0x92, 41, 90)};
    SmfTrack more;  // unnamed, on channel index 0 again: merges into track 0x000
    more.events = {SmfEvent::Channel(5, 0xC0, 12), SmfEvent::Channel(15, 0xB0, 64, 127),
                   SmfEvent::Channel(25, 0xC0, 13), SmfEvent::Channel(40, 0x90, 72, 50),
                   SmfEvent::Channel(41, 0xB5, 7, 100)};
    file.tracks = {conductor, multi, more};
    const auto song = Map(file);

    EXPECT_EQ(song.GetSongName(), "Title");
    std::vector<unsigned short> ids;
    for (const auto& [id, track] : song.GetVoiceData()) {
        ids.push_back(id);
    }
    EXPECT_EQ(ids, (std::vector<unsigned short>{0x000, 0x002, 0x005, 0x022}));
    const auto& piano = song.GetVoiceData().at(0x000);
    EXPECT_EQ(piano.GetTrackName(), "Keys ch 1");
    EXPECT_EQ(piano.channelIndex, 0);
    EXPECT_EQ(piano.GetDefaultProgramChange(), 12);
    EXPECT_EQ(piano.range, (std::pair<std::uint8_t, std::uint8_t>{60, 72}));
    // Merged in tick order; at tick 15 the first file track's event comes first. The note-on
    // of velocity 0 is a note-off.
    const std::vector<velt_midi::VoiceEvent> expected = {
        {0, 0x90, 0x000, 60, 100},  {5, 0xC0, 0x000, 12, 0},  {15, 0x80, 0x000, 60, 0},
        {15, 0xB0, 0x000, 64, 127}, {25, 0xC0, 0x000, 13, 0}, {40, 0x90, 0x000, 72, 50}};
    EXPECT_EQ(piano.events, expected);
    EXPECT_EQ(song.GetVoiceData().at(0x002).GetTrackName(), "Keys ch 3");
    EXPECT_EQ(song.GetVoiceData().at(0x022).events[0].GetTrackId(), 0x022);
    EXPECT_EQ(song.GetVoiceData().at(0x022).events[0].port, 2);
    // A track playing no note has no range; without a name it is named after its channel.
    const auto& controls = song.GetVoiceData().at(0x005);
    EXPECT_EQ(controls.GetTrackName(), "Channel 6");
    EXPECT_EQ(controls.range, (std::pair<std::uint8_t, std::uint8_t>{255, 255}));
    EXPECT_EQ(song.GetTimeline().lastTickIndex, 41u);
}

TEST(SongFromSmf, TimelineHasRecordsAtTickZeroAndBarsFollowTheMeters) {
    SmfFile file;
    file.ticksPerQuarter = 120;
    SmfTrack conductor;
    conductor.events = {
        Tempo(240, 600000),
        Tempo(240, 400000),                                     // the later of two at one tick wins
        SmfEvent::Meta(0, meta::timeSignature, {3, 2, 24, 8}),  // 3/4
        SmfEvent::Meta(720, meta::timeSignature, {6, 3, 36, 8}),  // 6/8 at bar 3
        SmfEvent::Meta(720, meta::keySignature, {0xFD, 1}),       // 3 flats, minor
        SmfEvent::MetaText(360, meta::marker, "Verse"),
        SmfEvent::Meta(400, meta::timeSignature, {0, 2, 24, 8}),  // unusable: skipped
        SmfEvent::Meta(500, meta::keySignature, {9, 0})};         // unusable: skipped
    conductor.endTick = 1080;
    file.tracks = {conductor};
    std::vector<std::string> warnings;
    const auto song = Map(file, &warnings);
    EXPECT_EQ(warnings.size(), 2u);

    const TL::Timeline& t = song.GetTimeline();
    ASSERT_EQ(t.GetTempos().size(), 2u);
    EXPECT_EQ(t.GetTempos()[0].tick_index, 0u);
    EXPECT_EQ(t.GetTempos()[0].microseconds_per_quarter, velt_core::defaultMicrosecondsPerQuarter);
    EXPECT_EQ(t.GetTempos()[1].microseconds_per_quarter, 400000u);
    ASSERT_EQ(t.GetMeters().size(), 2u);
    EXPECT_EQ(t.GetMeters()[1].numerator, 6);
    EXPECT_EQ(t.GetMeters()[1].denominator, 8);
    EXPECT_EQ(t.GetMeters()[1].clocks_per_click, 36);
    ASSERT_EQ(t.GetKeys().size(), 2u);
    EXPECT_EQ(t.GetKeys()[0].sharps_flats, 0);  // C major supplied at tick 0
    EXPECT_EQ(t.GetKeys()[1].sharps_flats, -3);
    EXPECT_EQ(t.GetKeys()[1].minor, 1);
    EXPECT_EQ(t.lastTickIndex, 1080u);
    // 3/4 bars of 360 ticks: bars 1 and 2; 6/8 from 720, conducted in two dotted-quarter beats
    // of 180 ticks.
    EXPECT_EQ(velt_core::FindBarBeat(t, 2, 3), 600u);
    EXPECT_EQ(velt_core::FindBarBeat(t, 3, 1), 720u);
    EXPECT_EQ(velt_core::FindBarBeat(t, 3, 2), 900u);
    EXPECT_FALSE(velt_core::FindBarBeat(t, 3, 3).has_value());
    EXPECT_EQ(velt_core::FindBarBeat(t, 4, 1), 1080u);
    EXPECT_FALSE(velt_core::FindBarBeat(t, 2, 4).has_value());
    ASSERT_EQ(song.GetSongLog().GetMarkers().size(), 1u);
    EXPECT_EQ(song.GetSongLog().GetMarkers()[0].text, "Verse");
}

// Seconds from tick 0 to `tick` along a tempo map (records sorted, the first at tick 0).
double SecondsAt(const std::vector<TL::Tempo>& tempos, std::uint32_t tick,
                 std::uint32_t ticksPerQuarter) {
    double seconds = 0;
    for (std::size_t i = 0; i < tempos.size() && tempos[i].tick_index < tick; ++i) {
        const std::uint32_t end =
            i + 1 < tempos.size() ? std::min(tempos[i + 1].tick_index, tick) : tick;
        seconds += double(end - tempos[i].tick_index) / ticksPerQuarter *
                   tempos[i].microseconds_per_quarter / 1e6;
    }
    return seconds;
}

// The engine's MIDI clock lasts ticksPerQuarter / 24 ticks (integer division), so any other
// resolution than a multiple of 24 would play slow: every tick is multiplied by the least factor
// that makes it one, and the music keeps its time in seconds.
TEST(SongFromSmf, ResolutionIsScaledToAMultipleOf24KeepingTheTimeInSeconds) {
    const struct {
        std::uint16_t fileResolution;
        std::uint32_t resolution;
    } cases[] = {{100, 600}, {128, 384}, {256, 768}, {96, 96}, {480, 480}, {10, 120}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fileResolution);
        const std::uint32_t q = c.fileResolution;
        const std::uint32_t factor = c.resolution / q;
        SmfFile file;
        file.ticksPerQuarter = c.fileResolution;
        SmfTrack track;
        track.events = {Tempo(0, 700001), SmfEvent::Channel(q + 7, 0x90, 60, 1),
                        Tempo(3 * q / 2 + 1, 400000),
                        SmfEvent::MetaText(2 * q + 1, meta::marker, "M")};
        track.endTick = 8 * q + 3;
        file.tracks = {track};
        std::vector<std::string> warnings;
        const auto song = Map(file, &warnings);
        const TL::Timeline& t = song.GetTimeline();
        EXPECT_EQ(song.GetTicksPerQuarter(), c.resolution);
        EXPECT_EQ(song.GetVoiceData().at(0).events[0].time, (q + 7) * factor);
        EXPECT_EQ(t.GetTempos()[1].tick_index, (3 * q / 2 + 1) * factor);
        EXPECT_EQ(song.GetSongLog().GetMarkers()[0].tick_index, (2 * q + 1) * factor);
        EXPECT_EQ(t.lastTickIndex, (8 * q + 3) * factor);
        EXPECT_EQ(velt_core::FindBarBeat(t, 2, 1), 4 * c.resolution);
        const std::vector<TL::Tempo> fileTempos = {{0, 700001}, {3 * q / 2 + 1, 400000}};
        EXPECT_DOUBLE_EQ(
            SecondsAt(t.GetTempos().GetVector(), t.lastTickIndex, song.GetTicksPerQuarter()),
            SecondsAt(fileTempos, track.endTick, q));
        if (factor == 1) {
            EXPECT_TRUE(warnings.empty());
        } else {
            ASSERT_EQ(warnings.size(), 1u);
            EXPECT_EQ(warnings[0], "m.mid: resolution of " + std::to_string(q) +
                                       " ticks per quarter is not a multiple of 24; ticks scaled "
                                       "by " +
                                       std::to_string(factor) + " to " +
                                       std::to_string(c.resolution));
        }
    }
}

TEST(SongFromSmf, TicksOverflowingWhenScaledAndHugeSongsAreRefused) {
    SmfFile file;
    file.ticksPerQuarter = 100;
    SmfTrack track;
    track.endTick = 0x30000000;  // times 6 passes 2^32
    file.tracks = {track};
    std::vector<std::string> warnings;
    try {
        Map(file, &warnings);
        ADD_FAILURE() << "no error";
    } catch (const velt_core::SmfError& e) {
        EXPECT_STREQ(e.what(), "m.mid: tick 805306368 overflows when scaled by 6");
    }
    file.ticksPerQuarter = 96;
    file.tracks[0].endTick = 0xF0000000;
    EXPECT_THROW(Map(file, &warnings), velt_core::SmfError);
    // The limit counts clicks: 400 000 ticks are 4 167 quarter-note clicks but 100 001 clicks
    // of one MIDI clock (4 ticks).
    file.tracks[0].endTick = 400000;
    EXPECT_NO_THROW(Map(file, &warnings));
    file.tracks[0].events.push_back(SmfEvent::Meta(0, meta::timeSignature, {4, 2, 1, 8}));
    EXPECT_THROW(Map(file, &warnings), velt_core::SmfError);
}

// A show directory in the test's temporary folder with one song file.
class ShowManifest : public ::testing::Test {
  protected:
    void SetUp() override {
        // The folder is fresh for every run: files left by an earlier run must not be read or
        // overwritten (overwriting one with copy_file failed in the Windows build under Wine).
        auto song = velt_core::SongBuilder("From File", 480)
                        .Meter(0, 3, 4)
                        .Track(0x011, "Flute", 73)
                        .ProgramChange(0x011, 0, 73)
                        .Note(0x011, 0, 24, 100, 10)  // a keyswitch
                        .Note(0x011, 480, 72, 100, 480)
                        .Marker(1440, "File marker")
                        .Bars(8)
                        .Build();
        velt_core::WriteSmf(velt_core::SmfFromSong(*song), (dir_ / "a.mid").string());
    }

    std::shared_ptr<pv::ParvelShowData> Load(const std::string& json) {
        std::ofstream(dir_ / "show.json") << json;
        return velt_core::LoadShow(dir_.string());
    }

    /// Expects loading `json` to throw an `Error` whose text contains `expected`.
    template <typename Error = std::runtime_error>
    void ExpectError(const std::string& json, const std::string& expected) {
        try {
            Load(json);
            ADD_FAILURE() << "no error for " << json;
        } catch (const Error& e) {
            EXPECT_NE(std::string(e.what()).find(expected), std::string::npos) << e.what();
        }
    }

    test_support::TempFolder folder_;
    const std::filesystem::path dir_ = folder_.path();
};

TEST_F(ShowManifest, AddsTheChangeLogPagesRangesAndGroupsAtBarBeatPositions) {
    const auto show = Load(R"({
      "name": "Test Show",
      "groups": {"1": [17, 0], "200": []},
      "songs": [
        {"file": "a.mid"},
        {"number": 7, "name": "Second", "file": "a.mid", "start": "2:1",
         "clicks": [{"start": "5:1", "end": "end", "notated_32nds": 24}],
         "tempo_scales": [{"start": "3:1", "end": "4:1", "factor": 0.5},
                          {"start": 0, "end": "2:2", "factor": 1.25}],
         "transpositions": [{"start": "1:2", "end": 4000, "semitones": -3}],
         "markers": [{"at": "1:1", "text": "Top"}, {"at": "3:1", "text": "Also at 3:1"}],
         "pages": [{"at": "4:1", "page": 12}, {"at": 0, "page": 11}],
         "ranges": {"0x11": [60, 96]}},
        {"file": "a.mid", "ranges": {"17": null}}
      ]})");
    EXPECT_EQ(show->GetShowName(), "Test Show");
    EXPECT_EQ(show->GetGroups().GetGroup(1), (std::set<unsigned short>{0, 17}));
    ASSERT_EQ(show->GetSongs().size(), 3u);

    const auto& first = *show->GetSongs()[0];
    EXPECT_EQ(first.GetSongLog().GetSongNumber(), "1");
    EXPECT_EQ(first.GetSongName(), "From File");
    EXPECT_EQ(first.GetVoiceData().at(0x011).range,
              (std::pair<std::uint8_t, std::uint8_t>{24, 72}));

    const auto& second = *show->GetSongs()[1];
    const CL::SongLog& log = second.GetSongLog();
    EXPECT_EQ(log.GetSongNumber(), "7");
    EXPECT_EQ(second.GetSongName(), "Second");
    EXPECT_EQ(second.GetSongStartTickIndex(), 1440u);
    ASSERT_EQ(log.GetClicks().size(), 1u);
    EXPECT_EQ(log.GetClicks()[0].start(), 4u * 1440);
    EXPECT_EQ(log.GetClicks()[0].end(), 8u * 1440);
    EXPECT_EQ(log.GetClicks()[0].int_value(), 24);
    ASSERT_EQ(log.GetTempoScales().size(), 2u);  // sorted by start
    EXPECT_EQ(log.GetTempoScales()[0].end(), 1440u + 480);
    EXPECT_FLOAT_EQ(log.GetTempoScales()[0].float_value(), 1.25f);
    EXPECT_EQ(log.GetTempoScales()[1].start(), 2880u);
    EXPECT_EQ(log.GetTranspositions()[0].start(), 480u);
    EXPECT_EQ(log.GetTranspositions()[0].int_value(), -3);
    // Manifest markers join the file's marker, in tick order.
    ASSERT_EQ(log.GetMarkers().size(), 3u);
    EXPECT_EQ(log.GetMarkers()[0].text, "Top");
    EXPECT_EQ(log.GetMarkers()[1].text, "File marker");
    EXPECT_EQ(log.GetMarkers()[2].tick_index, 2880u);
    const auto& pages = second.GetTimeline().GetPageNums();
    ASSERT_EQ(pages.size(), 2u);
    EXPECT_EQ(pages[0].page, 11);
    EXPECT_EQ(pages[1].tick_index, 4320u);
    EXPECT_EQ(second.GetVoiceData().at(0x011).range,
              (std::pair<std::uint8_t, std::uint8_t>{60, 96}));
    EXPECT_EQ(show->GetSongs()[2]->GetVoiceData().at(0x011).range,
              (std::pair<std::uint8_t, std::uint8_t>{255, 255}));
}

TEST_F(ShowManifest, FaultsNameTheSongAndTheKey) {
    auto ExpectSongError = [&](const std::string& songJson, const std::string& expected) {
        ExpectError<velt_core::ShowError>(R"({"name": "S", "songs": [)" + songJson + "]}",
                                          expected);
    };
    ExpectSongError(R"({"file": "a.mid", "tempo": 1})",
                    R"(song 1 "From File": key "tempo": unknown key)");
    ExpectSongError(R"({"name": "N", "file": "a.mid", "start": "10:1"})",
                    R"(song 1 "N": key "start": the song has no bar 10 beat 1)");
    ExpectSongError(R"({"file": "a.mid", "start": "1:4"})", "no bar 1 beat 4");
    ExpectSongError(R"({"file": "a.mid", "start": "1-1"})", R"(key "start": "1-1" is not a tick)");
    ExpectSongError(R"({"file": "a.mid", "start": 99999})",
                    R"(key "start": 99999 is outside 0..11520)");
    ExpectSongError(
        R"({"file": "a.mid", "clicks": [{"start": "2:1", "end": "2:1", "notated_32nds": 8}]})",
        R"(key "clicks[0].end": must lie after start)");
    ExpectSongError(R"({"file": "a.mid", "clicks": [{"start": 0, "end": 10}]})",
                    R"(key "clicks[0].notated_32nds": missing)");
    ExpectSongError(
        R"({"file": "a.mid", "transpositions": [{"start": 0, "end": 10, "semitones": 30}]})",
        R"(key "transpositions[0].semitones": 30 is outside -24..24)");
    ExpectSongError(R"({"file": "a.mid", "tempo_scales": [{"start": 0, "end": 10, "factor": 0}]})",
                    R"(key "tempo_scales[0].factor": expected a factor above 0)");
    ExpectSongError(R"({"file": "a.mid", "transpositions": [
                    {"start": 0, "end": 100, "semitones": 1},
                    {"start": 99, "end": 200, "semitones": 2}]})",
                    R"(key "transpositions": events at ticks 0 and 99 overlap)");
    ExpectSongError(R"({"file": "a.mid", "ranges": {"16": [1, 2]}})",
                    R"(key "ranges.16": the song has no track 16)");
    ExpectSongError(R"({"file": "a.mid", "ranges": {"17": [70, 60]}})",
                    R"(key "ranges.17[1]": 60 is outside 70..127)");
    ExpectSongError(R"({"file": "a.mid", "markers": [{"at": 0, "text": 5}]})",
                    R"(key "markers[0].text": expected a string)");
    ExpectSongError(R"({"file": "a.mid", "pages": [{"at": 0, "page": 1}, {"at": 0, "page": 2}]})",
                    R"(key "pages": two pages at tick 0)");
    ExpectSongError(R"({"name": "No File"})", R"(song 1 "No File": key "file": missing)");
}

// Numbers that no field can hold, of the wrong type or sign, wherever the manifest takes a
// number: every one is a ShowError naming the manifest and the key, never an exception of the
// JSON reader or of a number conversion. A number too large for any type is found while the
// text is parsed, where the key is the path from the manifest's root.
TEST_F(ShowManifest, NumbersOutOfRangeOrOfTheWrongTypeAreShowErrorsNamingTheKey) {
    const auto song = [](const std::string& keys) {
        return R"({"name": "S", "songs": [{"file": "a.mid", )" + keys + "}]}";
    };
    const auto paired = [&](const std::string& list, const std::string& valueKey,
                            const std::string& value) {
        return song("\"" + list + R"(": [{"start": 0, "end": 10, ")" + valueKey + "\": " + value +
                    "}]");
    };
    const struct {
        std::string json;
        std::string key;
    } cases[] = {
        {R"({"name": "S", "songs": 1e400})", "songs"},
        {song(R"("start": "1:99999999999")"), "start"},
        {song(R"("start": "99999999999:1")"), "start"},
        {song(R"("start": "4294967297:1")"), "start"},
        {song(R"("start": "1:9999999999999999")"), "start"},
        {song(R"("start": -1)"), "start"},
        {song(R"("start": 1e400)"), "songs[0].start"},
        {song(R"("start": 18446744073709551616)"), "start"},
        {song(R"("start": 1.5)"), "start"},
        {song(R"("number": -1)"), "number"},
        {song(R"("number": 1e400)"), "songs[0].number"},
        {paired("clicks", "notated_32nds", "9223372036854775808"), "clicks[0].notated_32nds"},
        {paired("clicks", "notated_32nds", "-1"), "clicks[0].notated_32nds"},
        {paired("clicks", "notated_32nds", "\"12\""), "clicks[0].notated_32nds"},
        {paired("clicks", "notated_32nds", "-1e400"), "songs[0].clicks[0].notated_32nds"},
        {paired("tempo_scales", "factor", "1e400"), "songs[0].tempo_scales[0].factor"},
        {paired("tempo_scales", "factor", "-0.5"), "tempo_scales[0].factor"},
        {paired("tempo_scales", "factor", "1e-400"), "tempo_scales[0].factor"},
        {paired("transpositions", "semitones", "-9223372036854775809"),
         "transpositions[0].semitones"},
        {paired("transpositions", "semitones", "2.5"), "transpositions[0].semitones"},
        {song(R"("pages": [{"at": 0, "page": 2147483648}])"), "pages[0].page"},
        {song(R"("pages": [{"at": 0, "page": -1}])"), "pages[0].page"},
        {song(R"("pages": [{"at": "1:1", "page": 1e999}])"), "songs[0].pages[0].page"},
        {song(R"("markers": [{"at": "2147483648:1", "text": "m"}])"), "markers[0].at"},
        {song(R"("markers": [{"at": "1:99999999999", "text": "m"}])"), "markers[0].at"},
        {song(R"("ranges": {"17": [-1, 60]})"), "ranges.17[0]"},
        {song(R"("ranges": {"17": [60, 1e400]})"), "songs[0].ranges.17[1]"},
        {song(R"("ranges": {"99999999999": [60, 70]})"), "ranges.99999999999"},
        {R"({"name": "S", "groups": {"1": [-1]}, "songs": [{"file": "a.mid"}]})", "groups.1[0]"},
        {R"({"name": "S", "groups": {"1": [0, 1e400]}, "songs": [{"file": "a.mid"}]})",
         "groups.1[1]"},
    };
    const std::string manifest = (dir_ / "show.json").string();
    for (const auto& c : cases) {
        try {
            Load(c.json);
            ADD_FAILURE() << "no error for " << c.json;
        } catch (const velt_core::ShowError& e) {
            const std::string text = e.what();
            EXPECT_EQ(text.rfind(manifest + ": ", 0), 0u) << text;
            EXPECT_NE(text.find("key \"" + c.key + "\": "), std::string::npos) << text;
        } catch (const std::exception& e) {
            ADD_FAILURE() << "not a ShowError for " << c.json << ": " << e.what();
        }
    }
}

TEST_F(ShowManifest, ShowLevelFaultsAndMissingFilesAreNamed) {
    ExpectError(R"({"name": "S", "songs": [], "extra": 1})", R"(key "extra": unknown key)");
    ExpectError(R"({"name": "S", "songs": []})", R"(key "songs": expected a non-empty array)");
    ExpectError(R"({"songs": [{"file": "a.mid"}]})", R"(key "name")");
    ExpectError(R"({"name": "S", "groups": {"300": [1]}, "songs": [{"file": "a.mid"}]})",
                R"(key "groups.300")");
    ExpectError(R"({"name": "S", "songs": [{"file": "a.mid"},)", "not valid JSON");
    ExpectError(R"({"name": "S", "songs": [{"file": "a.mid"}, {"file": "missing.mid"}]})",
                "missing.mid: cannot open the file");
    // A folder (an empty name is the manifest's own) is refused before it is read.
    ExpectError<velt_core::SmfError>(R"({"name": "S", "songs": [{"file": ""}]})",
                                     "not a regular file");
}

// A player's show: every song of the manifest has an entry, the playable ones are the show.
TEST_F(ShowManifest, PlayableShowFromAFolderAManifestOrASingleMidiFile) {
    // 100 ticks per quarter: rescaled by 6, the manifest's tick positions with it.
    auto coarse = velt_core::SongBuilder("", 100)
                      .Meter(0, 4, 4)
                      .Track(0x000, "Piano", 0)
                      .Note(0x000, 150, 60, 100, 50)
                      .Bars(4)
                      .Build();
    velt_core::WriteSmf(velt_core::SmfFromSong(*coarse), (dir_ / "coarse.mid").string());
    std::ofstream(dir_ / "show.json") << R"({"name": "Two", "songs": [
        {"name": "One", "file": "a.mid"},
        {"file": "coarse.mid", "start": 150, "markers": [{"at": "2:1", "text": "B"}]}]})";
    for (const auto& location : {dir_, dir_ / "show.json"}) {
        SCOPED_TRACE(location);
        const auto playable = velt_core::LoadPlayableShow(location.string());
        EXPECT_EQ(playable.show->GetShowName(), "Two");
        ASSERT_EQ(playable.show->GetSongs().size(), 2u);
        ASSERT_EQ(playable.songs.size(), 2u);
        EXPECT_EQ(playable.songs[0].name, "One");
        EXPECT_EQ(playable.songs[1].name, "coarse");  // the file names no song
        for (std::size_t i = 0; i < 2; ++i) {
            EXPECT_EQ(playable.songs[i].song, playable.show->GetSongs()[i]);
            EXPECT_EQ(playable.songs[i].error, "");
        }
        const auto& second = *playable.songs[1].song;
        EXPECT_EQ(second.GetTicksPerQuarter(), 600u);
        EXPECT_EQ(second.GetVoiceData().at(0x000).events[0].time, 900u);
        EXPECT_EQ(second.GetSongStartTickIndex(), 900u);
        EXPECT_EQ(second.GetSongLog().GetMarkers()[0].tick_index, 2400u);
    }
    // A MIDI file by its extension or by its first bytes: a show of one song, named after it.
    std::filesystem::copy_file(dir_ / "a.mid", dir_ / "take 2",
                               std::filesystem::copy_options::overwrite_existing);
    for (const std::string file : {"a.mid", "take 2"}) {
        SCOPED_TRACE(file);
        const auto playable = velt_core::LoadPlayableShow((dir_ / file).string());
        EXPECT_EQ(playable.show->GetShowName(), file == "a.mid" ? "a" : file);
        ASSERT_EQ(playable.show->GetSongs().size(), 1u);
        ASSERT_EQ(playable.songs.size(), 1u);
        EXPECT_EQ(playable.songs[0].name, "From File");
        EXPECT_EQ(playable.songs[0].song, playable.show->GetSongs()[0]);
        EXPECT_EQ(playable.songs[0].song->GetSongLog().GetSongNumber(), "1");
    }
}

// Streams are found by song name: a reprise under the same name must not play as, or replace,
// the first.
TEST_F(ShowManifest, SongsSharingANameAreToldApartByANumber) {
    CapturedLog log;
    const auto show = Load(R"json({"name": "S", "songs": [{"name": "Reprise", "file": "a.mid"},
        {"name": "Reprise", "file": "a.mid"}, {"name": "Reprise (2)", "file": "a.mid"}]})json");
    std::vector<std::string> names;
    for (const auto& song : show->GetSongs())
        names.push_back(song->GetSongName());
    EXPECT_EQ(names, (std::vector<std::string>{"Reprise", "Reprise (2)", "Reprise (2) (2)"}));
    EXPECT_EQ(log.Lines().size(), 2u);
}

TEST_F(ShowManifest, APlayableShowGoesOnWithoutASongFileThatCannotBeRead) {
    std::ofstream(dir_ / "bad.mid") << "MThd";  // too short for a header
    // The broken song's start cannot be checked without its bars.
    std::ofstream(dir_ / "show.json") << R"({"name": "S", "songs": [{"file": "a.mid"},
        {"name": "Broken", "file": "bad.mid", "start": "9:9"}, {"file": "a.mid"}]})";
    CapturedLog log;
    const auto playable = velt_core::LoadPlayableShow(dir_.string());
    ASSERT_EQ(playable.songs.size(), 3u);
    ASSERT_EQ(playable.show->GetSongs().size(), 2u);
    const std::string error =
        (dir_ / "bad.mid").string() +
        ": byte 0: missing header: not a Standard MIDI File (no \"MThd\" chunk)";
    EXPECT_EQ(playable.songs[1].name, "Broken");
    EXPECT_EQ(playable.songs[1].song, nullptr);
    EXPECT_EQ(playable.songs[1].error, error);
    EXPECT_EQ(playable.songs[2].song, playable.show->GetSongs()[1]);
    EXPECT_EQ(playable.songs[2].song->GetSongLog().GetSongNumber(), "3");
    // The same file again is a song of its own name.
    EXPECT_EQ(playable.songs[2].name, "From File (2)");
    EXPECT_EQ(playable.songs[2].song->GetSongName(), "From File (2)");
    const std::string manifest = (dir_ / "show.json").string();
    EXPECT_EQ(log.Lines(),
              (std::vector<std::string>{
                  "WARNING: " + manifest + ": song 2 \"Broken\" cannot be played: " + error,
                  "WARNING: " + manifest +
                      ": song 3 is named \"From File\" as an earlier song is; it is called "
                      "\"From File (2)\"."}));

    // The strict loader still refuses the show; a manifest fault still fails the player's show,
    // also in the broken song's entry; a single file that cannot be read is refused.
    EXPECT_THROW(velt_core::LoadShow(dir_.string()), velt_core::SmfError);
    std::ofstream(dir_ / "show.json")
        << R"({"name": "S", "songs": [{"file": "a.mid"}, {"file": "bad.mid", "tempo": 1}]})";
    try {
        velt_core::LoadPlayableShow(dir_.string());
        ADD_FAILURE() << "no error";
    } catch (const velt_core::ShowError& e) {
        EXPECT_NE(std::string(e.what()).find(R"(song 2 "bad": key "tempo": unknown key)"),
                  std::string::npos)
            << e.what();
    }
    EXPECT_THROW(velt_core::LoadPlayableShow((dir_ / "bad.mid").string()), velt_core::SmfError);
}

}  // namespace
