// Writes the example show "Harbour Lights": four short original pieces as Standard MIDI Files
// and the show manifest that adds what the files cannot say (numbers, start positions, clicks,
// tempo scales, transpositions, pages, track ranges, groups).
//
//   generate_example_show <output directory>
//
// The output is committed under examples/harbour_lights; regenerate it with
//   cmake --build build --target example_show
//
// The pieces are written to give playback something to chase after a seek: keyswitch notes
// below a track's range, controllers (volume, expression, modulation, sustain), pitch bend,
// program changes mid-song, a drum track on channel index 9 and a track on a second port.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "velt_core/show_loader.h"
#include "velt_core/smf_writer.h"
#include "velt_core/song_builder.h"

namespace {

using velt_core::SongBuilder;
using Json = nlohmann::ordered_json;

constexpr std::uint32_t tpq = 480;

// A note of a line: pitch (-1 for a rest) and length in quarter notes.
struct Step {
    int note;
    double quarters;
};

// Writes a melodic line from `tick` on and returns the tick after it.
std::uint32_t Line(SongBuilder& song, std::uint16_t track, std::uint32_t tick,
                   const std::vector<Step>& steps, std::uint8_t velocity, double legato = 0.95) {
    for (const Step& step : steps) {
        const auto length = static_cast<std::uint32_t>(step.quarters * tpq);
        if (step.note >= 0) {
            song.Note(track, tick, static_cast<std::uint8_t>(step.note), velocity,
                      static_cast<std::uint32_t>(length * legato));
        }
        tick += length;
    }
    return tick;
}

// Chords, one per `quarters` quarter notes, each a list of pitches.
std::uint32_t Chords(SongBuilder& song, std::uint16_t track, std::uint32_t tick,
                     const std::vector<std::vector<int>>& chords, double quarters,
                     std::uint8_t velocity) {
    const auto length = static_cast<std::uint32_t>(quarters * tpq);
    for (const auto& chord : chords) {
        for (int note : chord) {
            song.Note(track, tick, static_cast<std::uint8_t>(note), velocity, length - 20);
        }
        tick += length;
    }
    return tick;
}

std::uint32_t Bar(int bar, int beatsPerBar, int beat = 1, double beatQuarters = 1.0) {
    return static_cast<std::uint32_t>(((bar - 1) * beatsPerBar + (beat - 1)) * beatQuarters * tpq);
}

// 1. "Lanterns": a chorale for strings and organ. Slows into a caesura at the end of bar 4 (a
// held chord, a fermata the conductor releases), a tempo, then a ritardando to the end.
// Strings use keyswitches C1 (legato) and D1 (staccato) below their range.
std::shared_ptr<velt_midi::SongData> Lanterns() {
    constexpr std::uint16_t strings = 0x000;
    constexpr std::uint16_t organ = 0x001;
    SongBuilder song("Lanterns", tpq);
    song.Meter(0, 4, 4).Key(0, 0).Tempo(0, 72).Tempo(Bar(4, 4), 60).Tempo(Bar(5, 4), 72);
    song.Tempo(Bar(7, 4), 66).Tempo(Bar(8, 4), 58).Bars(8);
    song.Track(strings, "Strings", 48).Track(organ, "Organ", 19);
    song.ProgramChange(strings, 0, 48).ProgramChange(organ, 0, 19);
    song.ControlChange(strings, 0, 7, 100).ControlChange(organ, 0, 7, 90);
    song.Note(strings, 0, 24, 100, 60);  // keyswitch: legato
    song.Marker(Bar(4, 4, 4), "Caesura");

    const std::vector<std::vector<int>> chords = {
        {48, 60, 64, 67}, {53, 60, 65, 69}, {55, 59, 62, 67}, {48, 60, 64, 67}, {45, 57, 60, 64},
        {50, 57, 62, 65}, {43, 55, 59, 62}, {48, 55, 64, 72}, {53, 57, 65, 72}, {50, 57, 65, 69},
        {55, 59, 62, 67}, {48, 55, 60, 64}, {52, 55, 60, 67}, {53, 57, 60, 65}, {48, 55, 60, 64}};
    std::uint32_t tick = 0;
    for (std::size_t i = 0; i < chords.size(); ++i) {
        const double quarters = (i == 6) ? 4.0 : 2.0;  // the caesura chord is held a whole bar
        tick = Chords(song, strings, tick, {chords[i]}, quarters, 84);
    }
    // Expression swells per bar on the strings; sustain pedal on the organ per two bars.
    for (int bar = 1; bar <= 8; ++bar) {
        song.ControlChange(strings, Bar(bar, 4), 11, 80);
        song.ControlChange(strings, Bar(bar, 4, 3), 11, 110);
        if (bar % 2 == 1) {
            song.ControlChange(organ, Bar(bar, 4), 64, 127);
            song.ControlChange(organ, Bar(bar + 2, 4) - 10, 64, 0);
        }
    }
    song.Note(strings, Bar(5, 4), 26, 100, 60);  // keyswitch: staccato for the a tempo
    song.Note(strings, Bar(7, 4), 24, 100, 60);  // back to legato
    Line(song, organ, 0, {{36, 4}, {41, 4}, {43, 4}, {43, 4}, {36, 4}, {41, 4}, {38, 4}, {36, 4}},
         70, 0.99);
    return song.Build();
}

// 2. "Harbour Waltz": 3/4 with sections A, B and A' (a marker each), accordion melody, bass,
// drums on channel index 9 and a glockenspiel on the second port doubling the B section.
std::shared_ptr<velt_midi::SongData> HarbourWaltz() {
    constexpr std::uint16_t accordion = 0x002;
    constexpr std::uint16_t bass = 0x003;
    constexpr std::uint16_t drums = 0x009;
    constexpr std::uint16_t glock = 0x010;  // port 1, channel index 0
    SongBuilder song("Harbour Waltz", tpq);
    song.Meter(0, 3, 4).Key(0, 1).Tempo(0, 150).Bars(16);
    song.Track(accordion, "Accordion", 21).Track(bass, "Bass", 32).Track(drums, "Drums", 0);
    song.Track(glock, "Glockenspiel", 9);
    song.ProgramChange(accordion, 0, 21).ProgramChange(bass, 0, 32).ProgramChange(glock, 0, 9);
    song.ProgramChange(drums, 0, 0).ControlChange(drums, 0, 7, 96);
    song.Marker(Bar(1, 3), "A").Marker(Bar(9, 3), "B").Marker(Bar(13, 3), "A'");

    // Section A is eight bars, B and A' four bars each (a bar is three quarters).
    const std::vector<Step> a = {{67, 2}, {71, 1}, {74, 2}, {71, 1}, {72, 3}, {69, 3},
                                 {66, 2}, {69, 1}, {72, 2}, {69, 1}, {71, 3}, {67, 3}};
    const std::vector<Step> b = {{76, 1}, {74, 1}, {72, 1}, {71, 2},
                                 {72, 1}, {74, 3}, {67, 2}, {66, 1}};
    const std::vector<Step> aEnd = {{67, 2}, {71, 1}, {74, 2}, {71, 1}, {67, 6}};
    std::uint32_t tick = Line(song, accordion, 0, a, 90);
    const std::uint32_t bStart = tick;
    tick = Line(song, accordion, tick, b, 94);
    Line(song, glock, bStart, b, 70, 0.5);
    Line(song, accordion, tick, aEnd, 80);
    // Volume swell in the B section.
    song.ControlChange(accordion, Bar(9, 3), 7, 90).ControlChange(accordion, Bar(11, 3), 7, 110);
    song.ControlChange(accordion, Bar(13, 3), 7, 95);

    const std::vector<int> roots = {43, 43, 50, 43, 38, 38, 43, 43, 48, 43, 45, 50, 43, 43, 50, 43};
    for (int bar = 1; bar <= 16; ++bar) {
        const int root = roots[static_cast<std::size_t>(bar - 1)];
        song.Note(bass, Bar(bar, 3), static_cast<std::uint8_t>(root), 96, tpq - 40);
        song.Note(drums, Bar(bar, 3), 36, 100, 60);    // kick
        song.Note(drums, Bar(bar, 3, 2), 42, 70, 60);  // closed hat
        song.Note(drums, Bar(bar, 3, 3), 42, 70, 60);
    }
    song.Note(drums, Bar(13, 3), 49, 110, 200);  // crash into A'
    return song.Build();
}

// 3. "Tide Turns": D major, modulating to F major at bar 9. A lead synth with pitch-bend
// scoops, a modulation wheel and a program change at the modulation; piano chords.
std::shared_ptr<velt_midi::SongData> TideTurns() {
    constexpr std::uint16_t piano = 0x004;
    constexpr std::uint16_t lead = 0x005;
    SongBuilder song("Tide Turns", tpq);
    song.Meter(0, 4, 4).Key(0, 2).Key(Bar(9, 4), -1).Tempo(0, 96).Bars(16);
    song.Track(piano, "Piano", 0).Track(lead, "Lead Synth", 81);
    song.ProgramChange(piano, 0, 0).ProgramChange(lead, 0, 81);
    song.ControlChange(lead, 0, 1, 0);

    const std::vector<std::vector<int>> inD = {
        {50, 62, 66, 69}, {47, 62, 66, 71}, {43, 59, 62, 67}, {45, 61, 64, 69}};
    const std::vector<std::vector<int>> inF = {
        {53, 65, 69, 72}, {50, 65, 69, 74}, {46, 62, 65, 70}, {48, 64, 67, 72}};
    std::uint32_t tick = 0;
    for (int i = 0; i < 2; ++i) {
        tick = Chords(song, piano, tick, inD, 4.0, 72);
    }
    for (int i = 0; i < 2; ++i) {
        tick = Chords(song, piano, tick, inF, 4.0, 76);
    }
    const std::vector<Step> phraseD = {{74, 1.5}, {73, 0.5}, {71, 1}, {69, 1}, {71, 3}, {-1, 1},
                                       {67, 1},   {69, 1},   {71, 1}, {73, 1}, {69, 4}};
    const std::vector<Step> phraseF = {{77, 1.5}, {76, 0.5}, {74, 1}, {72, 1}, {74, 3}, {-1, 1},
                                       {70, 1},   {72, 1},   {74, 1}, {76, 1}, {77, 4}};
    tick = Line(song, lead, Bar(1, 4), phraseD, 96);
    tick = Line(song, lead, tick, phraseD, 100);
    song.ProgramChange(lead, Bar(9, 4), 82);
    tick = Line(song, lead, Bar(9, 4), phraseF, 100);
    Line(song, lead, tick, phraseF, 104);
    // A scoop into each phrase: bend from a semitone below back to the centre.
    for (int bar : {1, 5, 9, 13}) {
        const std::uint32_t at = Bar(bar, 4);
        song.PitchBend(lead, at, 4096)
            .PitchBend(lead, at + 60, 6144)
            .PitchBend(lead, at + 120, 8192);
        song.ControlChange(lead, at + tpq * 2, 1, 64).ControlChange(lead, at + tpq * 4, 1, 0);
    }
    return song.Build();
}

// 4. "Last Ferry": 6/8 with dotted-quarter clicks, drums on channel index 9, bass and strings
// (with their keyswitch), slowing over the last two bars.
std::shared_ptr<velt_midi::SongData> LastFerry() {
    constexpr std::uint16_t strings = 0x000;
    constexpr std::uint16_t bass = 0x003;
    constexpr std::uint16_t drums = 0x009;
    SongBuilder song("Last Ferry", tpq);
    song.Meter(0, 6, 8).Key(0, -3, true).Tempo(0, 120).Tempo(Bar(7, 6, 1, 0.5), 100).Bars(8);
    song.Track(strings, "Strings", 48).Track(bass, "Bass", 33).Track(drums, "Drums", 0);
    song.ProgramChange(strings, 0, 48).ProgramChange(bass, 0, 33).ProgramChange(drums, 0, 0);
    song.Note(strings, 0, 26, 100, 60);  // keyswitch: staccato
    song.ControlChange(strings, 0, 7, 96).ControlChange(bass, 0, 7, 100);

    const std::vector<int> roots = {36, 36, 44, 43, 41, 43, 36, 36};
    const std::vector<std::vector<int>> chords = {{60, 63, 67}, {60, 63, 67}, {60, 63, 68},
                                                  {59, 62, 67}, {60, 65, 68}, {59, 62, 67},
                                                  {60, 63, 67}, {60, 63, 67}};
    for (int bar = 1; bar <= 8; ++bar) {
        const auto i = static_cast<std::size_t>(bar - 1);
        const std::uint32_t start = Bar(bar, 6, 1, 0.5);
        const std::uint32_t half = start + static_cast<std::uint32_t>(1.5 * tpq);
        song.Note(bass, start, static_cast<std::uint8_t>(roots[i]), 100, tpq);
        song.Note(bass, half, static_cast<std::uint8_t>(roots[i] + 7), 90, tpq);
        for (std::uint32_t at : {start, half}) {
            for (int note : chords[i]) {
                song.Note(strings, at, static_cast<std::uint8_t>(note), 80, tpq / 2);
            }
        }
        song.Note(drums, start, 36, 100, 60).Note(drums, half, 38, 90, 60);
        for (int eighth = 0; eighth < 6; ++eighth) {
            song.Note(drums, start + static_cast<std::uint32_t>(eighth) * tpq / 2, 42, 60, 60);
        }
    }
    song.Note(strings, Bar(7, 6, 1, 0.5) - 60, 24, 100, 60);  // keyswitch: legato for the end
    Chords(song, strings, Bar(8, 6, 1, 0.5), {{60, 63, 67, 72}}, 3.0, 90);
    return song.Build();
}

void WriteSong(const velt_midi::SongData& song, const std::filesystem::path& path) {
    velt_core::WriteSmf(velt_core::SmfFromSong(song), path.string());
    std::cout << "wrote " << path.string() << "\n";
}

Json Manifest() {
    Json show;
    show["name"] = "Harbour Lights";
    show["groups"] = {{"1", {0x000, 0x001}}, {"2", {0x003, 0x009}}, {"3", {0x002, 0x005, 0x010}}};
    Json songs = Json::array();
    songs.push_back({
        {"number", "1"},
        {"name", "Lanterns"},
        {"file", "01_lanterns.mid"},
        {"start", 0},
        {"tempo_scales", {{{"start", "7:1"}, {"end", "end"}, {"factor", 0.9}}}},
        {"markers", {{{"at", "5:1"}, {"text", "A tempo"}}}},
        {"pages", {{{"at", 0}, {"page", 1}}, {{"at", "5:1"}, {"page", 2}}}},
        {"ranges", {{"0", {36, 96}}}},
    });
    songs.push_back({
        {"number", "2"},
        {"name", "Harbour Waltz"},
        {"file", "02_harbour_waltz.mid"},
        {"start", "1:1"},
        {"clicks", {{{"start", "13:1"}, {"end", "end"}, {"notated_32nds", 24}}}},
        {"pages", {{{"at", 0}, {"page", 3}}, {{"at", "9:1"}, {"page", 4}}}},
        {"ranges", {{"9", nullptr}}},
    });
    songs.push_back({
        {"number", "3"},
        {"name", "Tide Turns"},
        {"file", "03_tide_turns.mid"},
        {"start", "1:1"},
        {"transpositions", {{{"start", "5:1"}, {"end", "9:1"}, {"semitones", 2}}}},
        {"markers", {{{"at", "9:1"}, {"text", "Key change"}}}},
        {"pages", {{{"at", 0}, {"page", 5}}}},
    });
    songs.push_back({
        {"number", "4"},
        {"name", "Last Ferry"},
        {"file", "04_last_ferry.mid"},
        {"start", "1:1"},
        {"tempo_scales", {{{"start", "7:1"}, {"end", "end"}, {"factor", 0.85}}}},
        {"markers", {{{"at", "1:1"}, {"text", "Intro"}}, {{"at", "7:1"}, {"text", "Tag"}}}},
        {"pages", {{{"at", 0}, {"page", 6}}}},
        {"ranges", {{"0", {36, 96}}, {"9", nullptr}}},
    });
    show["songs"] = songs;
    return show;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: generate_example_show <output directory>\n";
        return 2;
    }
    try {
        const std::filesystem::path out(argv[1]);
        std::filesystem::create_directories(out);
        WriteSong(*Lanterns(), out / "01_lanterns.mid");
        WriteSong(*HarbourWaltz(), out / "02_harbour_waltz.mid");
        WriteSong(*TideTurns(), out / "03_tide_turns.mid");
        WriteSong(*LastFerry(), out / "04_last_ferry.mid");
        std::ofstream manifest(out / "show.json");
        manifest << Manifest().dump(2) << "\n";
        if (!manifest) {
            throw std::runtime_error("cannot write " + (out / "show.json").string());
        }
        std::cout << "wrote " << (out / "show.json").string() << "\n";
        // Read back what was written, so that a generator change that breaks the show fails here.
        const auto show = velt_core::LoadShow(out.string());
        std::cout << "loaded \"" << show->GetShowName() << "\" with " << show->GetSongs().size()
                  << " songs\n";
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "generate_example_show: " << e.what() << "\n";
        return 1;
    }
}
