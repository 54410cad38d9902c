// velt-demo: builds a short song in code and prints its timeline the way the engine will see it:
// tempos, meters, bars and beats, keys under a transposition, the clicks with how many follow
// each, and the change log. A stand-in for the host program until that exists.
//
//   velt-demo [transposition in semitones, default 2]
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <string>

#include "interfaces/kit.h"
#include "velt_core/song_builder.h"

namespace {

std::shared_ptr<velt_midi::SongData> BuildDemoSong() {
    // Eight bars: four of 4/4 at 120, two of 6/8 clicked in dotted quarters at a slower tempo,
    // two of 3/4 with eighth-note clicks in the last bar; E-flat major turning to C minor.
    return velt_core::SongBuilder("Overture", 480)
        .Number("1")
        .Tempo(0, 120.0)
        .Meter(0, 4, 4)
        .Key(0, -3)
        .Tempo(7680, 96.0)
        .Meter(7680, 6, 8)
        .Meter(10560, 3, 4)
        .Key(10560, -3, true)
        .Bars(8)
        .Click(12000, 13440, 4)
        .TempoScale(3840, 7680, 0.9f)
        .Transpose(1920, 3840, 1)
        .Marker(0, "Intro")
        .Marker(7680, "Waltz")
        .Track(0x01, "Strings", 48, {36, 96})
        .Note(0x01, 0, 63, 100, 1920)
        .Track(0x19, "Harp", 46)
        .Note(0x19, 7680, 70, 90, 720)
        .Build();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const int transposition = argc > 1 ? std::atoi(argv[1]) : 2;
        kit::threadNames.SetNameOfCurrentThread("velt-demo");
        auto song = BuildDemoSong();
        const TL::Timeline& timeline = song->GetTimeline();
        const CL::SongLog& log = song->GetSongLog();
        const std::uint32_t tpq = song->GetTicksPerQuarter();

        kit::CoutBuffer out;
        out << "Song " << log.GetSongNumber() << " \"" << log.GetSongName() << "\", " << tpq
            << " ticks per quarter, last tick " << timeline.lastTickIndex << kit::endl;

        out << "Tempos:" << kit::endl;
        for (const auto& tempo : timeline.GetTempos()) {
            out << "  tick " << tempo.tick_index << ": " << tempo.microseconds_per_quarter
                << " us/quarter = " << std::fixed << std::setprecision(2) << tempo.bpm(24)
                << " quarters/min, " << std::setprecision(6) << tempo.seconds_per_clock()
                << " s/clock" << kit::endl;
        }
        out << "Meters:" << kit::endl;
        for (const auto& meter : timeline.GetMeters()) {
            out << "  tick " << meter.tick_index << ": " << as_string(meter) << ", "
                << static_cast<int>(meter.clocks_per_click) << " clocks per click" << kit::endl;
        }
        out << "Keys (transposed by " << transposition << "):" << kit::endl;
        for (const auto& key : timeline.GetKeys()) {
            out << "  tick " << key.tick_index << ": "
                << Keys::getTransposedName(key.minor, key.sharps_flats, 0) << " -> "
                << Keys::getTransposedName(key.minor, key.sharps_flats,
                                           static_cast<std::int16_t>(transposition))
                << kit::endl;
        }

        out << "Bars and beats:";
        for (const auto& position : timeline.GetBarsBeats()) {
            if (position.beat == 1) {
                out << kit::endl
                    << "  bar " << position.bar << " at " << position.tick_index << ":";
            }
            out << ' ' << as_string(position);
        }
        out << kit::endl;

        auto clicks = CreateBeatTicks(timeline.GetBarsBeats(), log.GetClicks(),
                                      timeline.GetMeters(), timeline.lastTickIndex, tpq);
        out << "Clicks (" << clicks.size() << "; tick/clicks to the end):";
        std::size_t remaining = clicks.size();
        int column = 0;
        for (unsigned int tick : clicks) {
            if (column++ % 8 == 0) {
                out << kit::endl << " ";
            }
            out << ' ' << tick << '/' << --remaining;
        }
        out << kit::endl;

        out << "Change log:" << kit::endl;
        for (const auto& click : log.GetClicks()) {
            out << "  ";
            click.WriteString(out);
            const TL::Meter& meter =
                timeline.GetMeters()[timeline.GetMeters().IndexAt(click.start())];
            out << ", " << click.ClocksPerClick(meter.notated_32_per_click()) << " clocks per click"
                << kit::endl;
        }
        for (const auto& scale : log.GetTempoScales()) {
            out << "  ";
            scale.WriteString(out);
            out << kit::endl;
        }
        for (const auto& transpose : log.GetTranspositions()) {
            out << "  ";
            transpose.WriteString(out);
            out << kit::endl;
        }
        for (const auto& marker : log.GetMarkers()) {
            out << "  marker at " << marker.tick_index << ": " << marker.text << kit::endl;
        }

        out << "Tracks:" << kit::endl;
        for (const auto& [id, track] : song->GetVoiceData()) {
            out << "  track " << id << " (port " << (id >> 4) << ", channel index " << (id & 0x0F)
                << ") \"" << track->GetTrackName() << "\", " << track->events.size() << " events"
                << kit::endl;
            for (const auto& event : track->events) {
                out << "    " << kit::midi::GetNoteName(event.data1) << ' ';
                event.WriteString(out.stream());
                out << kit::endl;
            }
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "velt-demo: " << error.what() << '\n';
        return 1;
    }
}
