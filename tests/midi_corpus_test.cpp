// Every MIDI file of the shared corpus (real files nobody on this project wrote) is imported:
// valid ones load, damaged ones load with a warning where their music is unambiguous, the rest
// are refused with an error naming the file and byte offset; none crashes.
//
// Choices for the damaged files of the corpus:
//   refused  empty file, text file          no header (byte 0)
//            track chunk one byte short     its length runs past the end of the file (byte 18)
//            format 2                       independent sequences have no single timeline
//   loaded   one stray byte after the end   a warning; nothing follows that could be music
//            format 0 with two tracks       read as format 1; both tracks play
//            running status over meta/SysEx read as the writer meant it, with a warning
//            system messages F1..FE         stepped over (with their data bytes), with a warning
//   noted    SysEx and system messages      not played: one warning per file, with the count
//            100 ticks per quarter          rescaled to 600, with a warning (a MIDI clock is a
//                                           whole number of ticks)
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "velt_core/show_loader.h"
#include "velt_core/smf_reader.h"

namespace {

namespace fs = std::filesystem;

struct Refusal {
    std::size_t offset;
    std::string text;
};

const std::map<std::string, Refusal> refused = {
    {"test-empty-file.mid", {0, "missing header"}},
    {"test-not-a-midi-file.mid", {0, "missing header"}},
    {"test-corrupt-file-missing-byte.mid", {18, "chunk length 246 runs past the end of the file"}},
    {"test-2-tracks-type-2.mid", {8, "format 2"}},
};

// The warning a file loads with; files in neither table load without one.
std::string ExpectedWarning(const std::string& name) {
    if (name == "test-corrupt-file-extra-byte.mid") {
        return "byte 275: 1 stray bytes after the last chunk ignored";
    }
    if (name == "test-2-tracks-type-0.mid") {
        return "format 0 file with several tracks read as format 1";
    }
    if (name.starts_with("test-running-status-")) {
        return "running status carried over a meta event or SysEx";
    }
    if (name.starts_with("test-illegal-message-")) {
        return "system common or real-time message";
    }
    if (name.starts_with("test-sysex-")) {
        return "System Exclusive";
    }
    return "";
}

// What the mapping notes of any file beside the expected warning: the messages it does not play
// (at most one line per file) and a rescaled resolution.
bool IsNotPlayed(const std::string& warning) {
    return warning.ends_with(" not played.");
}
bool IsNote(const std::string& warning) {
    return IsNotPlayed(warning) || warning.find("ticks scaled by") != std::string::npos;
}

struct Loaded {
    velt_core::SmfFile file;
    velt_midi::SongData song;
};

fs::path CorpusFile(const std::string& name) {
    return fs::path(VELT_MIDI_CORPUS_DIR) / "jazz-soft" / name;
}

Loaded Load(const fs::path& path) {
    Loaded out{velt_core::ReadSmf(path.string()), {}};
    out.song = velt_core::SongFromSmf(out.file, path.string(), out.file.warnings);
    return out;
}

class MidiCorpus : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!fs::is_directory(VELT_MIDI_CORPUS_DIR)) {
            GTEST_SKIP() << "MIDI corpus not found at " << VELT_MIDI_CORPUS_DIR
                         << " (set VELT_MIDI_CORPUS_DIR when configuring to point elsewhere)";
        }
    }
};

TEST_F(MidiCorpus, EveryFileLoadsOrIsRefusedWithTheByteOffset) {
    std::size_t files = 0;
    std::size_t loaded = 0;
    for (const auto& entry : fs::recursive_directory_iterator(VELT_MIDI_CORPUS_DIR)) {
        if (!entry.is_regular_file() || entry.path().extension() != ".mid") {
            continue;
        }
        ++files;
        const std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        const auto refusal = refused.find(name);
        try {
            const Loaded result = Load(entry.path());
            ++loaded;
            EXPECT_EQ(refusal, refused.end()) << "loaded, expected: " << refusal->second.text;
            const std::string warning = ExpectedWarning(name);
            const auto& warnings = result.file.warnings;
            auto expected = [&warning](const std::string& w) {
                return !warning.empty() && w.find(warning) != std::string::npos;
            };
            EXPECT_EQ(warning.empty(), std::none_of(warnings.begin(), warnings.end(), expected));
            for (const std::string& w : warnings) {
                EXPECT_TRUE(expected(w) || IsNote(w)) << w;
            }
            EXPECT_LE(std::count_if(warnings.begin(), warnings.end(), IsNotPlayed), 1);
            // Whatever loads is usable: a record at tick 0 in every timeline sequence the
            // engine assumes non-empty, and every event within the song.
            const TL::Timeline& t = result.song.GetTimeline();
            EXPECT_EQ(t.GetTempos()[0].tick_index, 0u);
            EXPECT_EQ(t.GetMeters()[0].tick_index, 0u);
            EXPECT_EQ(t.GetKeys()[0].tick_index, 0u);
            EXPECT_EQ(t.GetBarsBeats()[0].beat, 1u);
            for (const auto& [id, track] : result.song.GetVoiceData()) {
                for (const auto& event : track->events) {
                    EXPECT_TRUE(event.IsValidVoiceEvent());
                    EXPECT_LE(event.time, t.lastTickIndex);
                }
            }
        } catch (const velt_core::SmfError& e) {
            ASSERT_NE(refusal, refused.end()) << "refused: " << e.what();
            ASSERT_TRUE(e.Offset().has_value()) << e.what();
            EXPECT_EQ(*e.Offset(), refusal->second.offset) << e.what();
            const std::string what = e.what();
            EXPECT_NE(what.find(entry.path().string()), std::string::npos) << what;
            EXPECT_NE(what.find(refusal->second.text), std::string::npos) << what;
        }
    }
    EXPECT_GE(files, 70u);
    EXPECT_EQ(loaded, files - refused.size());
}

TEST_F(MidiCorpus, SpotChecksOfLoadedFiles) {
    const auto scale = Load(CorpusFile("test-c-major-scale.mid")).song;
    EXPECT_EQ(scale.GetTicksPerQuarter(), 96u);
    EXPECT_EQ(scale.GetTimeline().lastTickIndex, 768u);
    ASSERT_EQ(scale.GetVoiceData().size(), 1u);
    const auto& track = scale.GetVoiceData().at(0x000);
    EXPECT_EQ(track.events.size(), 16u);
    EXPECT_EQ(track.range, (std::pair<std::uint8_t, std::uint8_t>{60, 72}));
    EXPECT_EQ(track.GetTrackName(), "C Major Scale Test");

    // The same scale with its bytes written differently reads as the same events.
    for (const char* variant : {"test-vlq-4-byte.mid", "test-running-status-sysex.mid",
                                "test-running-status-metaevent.mid", "test-illegal-message-all.mid",
                                "test-corrupt-file-extra-byte.mid"}) {
        SCOPED_TRACE(variant);
        const auto same = Load(CorpusFile(variant)).song;
        ASSERT_TRUE(same.GetVoiceData().contains(0x000));
        const auto& events = same.GetVoiceData().at(0x000).events;
        ASSERT_EQ(events.size(), 16u);
        for (std::size_t i = 0; i < events.size(); ++i) {
            EXPECT_EQ(events[i].time, track.events[i].time);
            EXPECT_EQ(events[i].status, track.events[i].status);
            EXPECT_EQ(events[i].data1, track.events[i].data1);
        }
    }

    // 100 ticks per quarter, rescaled by 6.
    const auto karaoke = Load(CorpusFile("test-karaoke-kar.mid")).song;
    EXPECT_EQ(karaoke.GetTicksPerQuarter(), 600u);
    EXPECT_EQ(karaoke.GetTimeline().GetTempos()[0].microseconds_per_quarter, 666667u);
    EXPECT_EQ(karaoke.GetTimeline().lastTickIndex, 6u * 1590);
    EXPECT_EQ(karaoke.GetVoiceData().at(0x000).GetDefaultProgramChange(), 11);

    const auto drums = Load(CorpusFile("test-all-gm-percussion.mid")).song;
    ASSERT_TRUE(drums.GetVoiceData().contains(0x009));
    EXPECT_EQ(drums.GetVoiceData().at(0x009).channelIndex, 9);

    const auto twoTracks = Load(CorpusFile("test-2-tracks-type-1.mid")).song;
    EXPECT_EQ(twoTracks.GetVoiceData().size(), 2u);
    EXPECT_TRUE(twoTracks.GetVoiceData().contains(0x001));
}

}  // namespace
