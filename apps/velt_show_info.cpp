// velt-show-info: loads a show (a directory with show.json, or the manifest itself) or a single
// MIDI file and prints, per song, its tracks, bars, tempo map, meters, keys, markers, pages and
// change-log events. Exit status 0 when everything loaded, 1 on an error (printed to stderr),
// 2 on bad usage.
#include <cstdio>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "interfaces/song_data.h"
#include "velt_core/show_loader.h"

namespace {

// "12:3" for a tick on a beat, "12:3+120" for a tick between beats.
std::string Position(const TL::Timeline& timeline, std::uint32_t tick) {
    const auto& beats = timeline.GetBarsBeats();
    if (beats.empty()) {
        return "-";
    }
    const TL::BarsBeats& at = beats[beats.IndexAt(tick)];
    std::string text = as_string(at);
    if (tick > at.tick_index) {
        text += "+" + std::to_string(tick - at.tick_index);
    }
    return text;
}

std::string TickAndPosition(const TL::Timeline& timeline, std::uint32_t tick) {
    std::ostringstream out;
    out << "tick " << std::setw(7) << tick << " (" << Position(timeline, tick) << ")";
    return out.str();
}

std::string Range(const velt_midi::VoiceTrack& track) {
    if (track.range == std::pair<std::uint8_t, std::uint8_t>{255, 255}) {
        return "none";
    }
    return kit::midi::GetNoteName(track.range.first) + "-" +
           kit::midi::GetNoteName(track.range.second);
}

// Bars that start before the song's end (a bar starting at the last tick is where it ends).
std::size_t BarCount(const TL::Timeline& timeline) {
    std::size_t bars = 0;
    for (const TL::BarsBeats& record : timeline.GetBarsBeats()) {
        const bool ends = record.tick_index == timeline.lastTickIndex && record.tick_index > 0;
        bars += record.beat == 1 && !ends ? 1 : 0;
    }
    return bars;
}

template <typename Sequence>
void PrintPaired(std::ostream& out, const char* title, const Sequence& events,
                 const TL::Timeline& timeline) {
    if (events.empty()) {
        return;
    }
    out << "  " << title << ":\n";
    for (const auto& event : events) {
        out << "    " << TickAndPosition(timeline, event.start()) << " to "
            << TickAndPosition(timeline, event.end()) << "  " << event.value() << "\n";
    }
}

void PrintSong(std::ostream& out, const velt_midi::SongData& song, std::size_t position) {
    const TL::Timeline& timeline = song.GetTimeline();
    const CL::SongLog& log = song.GetSongLog();
    out << "Song " << position << ": number " << log.GetSongNumber() << " \"" << log.GetSongName()
        << "\"\n";
    out << "  " << song.GetTicksPerQuarter() << " ticks per quarter, start "
        << TickAndPosition(timeline, song.GetSongStartTickIndex()) << ", last "
        << TickAndPosition(timeline, timeline.lastTickIndex) << ", " << BarCount(timeline)
        << " bars\n";

    out << "  Tracks (" << song.GetVoiceData().size() << "):\n";
    out << "    id     port  ch  program  range      events  name\n";
    for (const auto& [id, track] : song.GetVoiceData()) {
        char line[96];
        std::snprintf(line, sizeof line, "    0x%03X  %4d  %2d  %7d  %-9s  %6zu  ", id, id >> 4,
                      track->channelIndex + 1, track->GetDefaultProgramChange(),
                      Range(*track).c_str(), track->events.size());
        out << line << track->GetTrackName() << "\n";
    }

    out << "  Tempo map:\n";
    for (const TL::Tempo& tempo : timeline.GetTempos()) {
        out << "    " << TickAndPosition(timeline, tempo.tick_index) << "  " << std::fixed
            << std::setprecision(2) << tempo.bpm(24) << " quarter notes per minute ("
            << tempo.microseconds_per_quarter << " us per quarter)\n";
    }
    out << "  Meters:\n";
    for (const TL::Meter& meter : timeline.GetMeters()) {
        out << "    " << TickAndPosition(timeline, meter.tick_index) << "  " << as_string(meter)
            << ", click " << int{meter.clocks_per_click} << " clocks, " << int{meter.notated_32nds}
            << " 32nds per quarter\n";
    }
    out << "  Keys:\n";
    for (const TL::Key& key : timeline.GetKeys()) {
        out << "    " << TickAndPosition(timeline, key.tick_index) << "  "
            << Keys::getTransposedName(key.minor, key.sharps_flats, 0) << "\n";
    }
    if (!log.GetMarkers().empty()) {
        out << "  Markers:\n";
        for (const CL::Marker& marker : log.GetMarkers()) {
            out << "    " << TickAndPosition(timeline, marker.tick_index) << "  \"" << marker.text
                << "\"\n";
        }
    }
    if (!timeline.GetPageNums().empty()) {
        out << "  Pages:\n";
        for (const TL::PageNum& page : timeline.GetPageNums()) {
            out << "    " << TickAndPosition(timeline, page.tick_index) << "  page " << page.page
                << "\n";
        }
    }
    PrintPaired(out, "Clicks (notated 32nds per click)", log.GetClicks(), timeline);
    PrintPaired(out, "Tempo scales", log.GetTempoScales(), timeline);
    PrintPaired(out, "Transpositions (semitones)", log.GetTranspositions(), timeline);
}

void PrintGroups(std::ostream& out, const velt_midi::Groups& groups) {
    if (groups.size() == 0) {
        return;
    }
    out << "Groups:\n";
    for (unsigned group = 0; group < 256; ++group) {
        const auto ids = groups.GetGroup(static_cast<unsigned char>(group));
        if (ids.empty()) {
            continue;
        }
        out << "  " << group << ":";
        for (unsigned short id : ids) {
            char text[16];
            std::snprintf(text, sizeof text, " 0x%03X", id);
            out << text;
        }
        out << "\n";
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: velt-show-info <show directory | show.json | file.mid>\n";
        return 2;
    }
    const std::string location = argv[1];
    try {
        const std::string extension = std::filesystem::path(location).extension().string();
        if (extension == ".mid" || extension == ".midi" || extension == ".MID") {
            const velt_midi::SongData song = velt_core::LoadSongFile(location);
            PrintSong(std::cout, song, 1);
            return 0;
        }
        const auto show = velt_core::LoadShow(location);
        std::cout << "Show \"" << show->GetShowName() << "\", " << show->GetSongs().size()
                  << " songs\n";
        PrintGroups(std::cout, show->GetGroups());
        std::size_t position = 0;
        for (const auto& song : show->GetSongs()) {
            std::cout << "\n";
            PrintSong(std::cout, *song, ++position);
        }
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "velt-show-info: " << e.what() << "\n";
        return 1;
    }
}
