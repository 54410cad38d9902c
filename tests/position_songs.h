// Songs for the playback-position tests. Resolution 480 ticks per quarter: 20 ticks per clock,
// a 4/4 beat is 480 ticks and a 6/8 beat 240.
#pragma once

#include <memory>

#include "interfaces/song_data.h"
#include "midi/how_to_play.h"
#include "velt_core/song_builder.h"

namespace position_songs {

constexpr unsigned int kTicksPerQuarter = 480;

/// Three bars of 4/4 (bars at 0, 1920, 3840), then three bars of 6/8 (5760, 7200, 8640); the
/// song ends at 10080. Quarter = 120 until 3840, then 60. C major, G major from 3840. Pages 12
/// and 13 (from 5760). A tempo scale of 0.5 over [1000, 2000), a transposition of +2 over
/// [2000, 3000) (sharing the tick 2000), a click of 16 notated 32nds (48 clocks) over
/// [7200, 8640), markers "Verse" at 1920 and "Bridge" at 5760.
inline std::shared_ptr<velt_midi::SongData> MainSong() {
    return velt_core::SongBuilder("Overture", kTicksPerQuarter)
        .Number("7")
        .Tempo(0, 120)
        .Tempo(3840, 60)
        .Meter(0, 4, 4)
        .Meter(5760, 6, 8)
        .Key(0, 0)
        .Key(3840, 1)
        .Page(0, 12)
        .Page(5760, 13)
        .Bars(6)
        .TempoScale(1000, 2000, 0.5f)
        .Transpose(2000, 3000, 2)
        .Click(7200, 8640, 16)
        .Marker(1920, "Verse")
        .Marker(5760, "Bridge")
        .Build();
}
constexpr unsigned int kMainLastTick = 10080;

/// Four bars of 4/4 at 120, ending at 7680. A tempo scale of 0.5 over [960, 1920); from 5760 to
/// the song end a tempo scale of 0.8, a transposition of +3 and a click of 12 notated 32nds
/// (36 clocks).
inline std::shared_ptr<velt_midi::SongData> SongEndSong() {
    return velt_core::SongBuilder("Finale", kTicksPerQuarter)
        .Number("12")
        .Tempo(0, 120)
        .Meter(0, 4, 4)
        .Bars(4)
        .TempoScale(960, 1920, 0.5f)
        .TempoScale(5760, 7680, 0.8f)
        .Transpose(5760, 7680, 3)
        .Click(5760, 7680, 12)
        .Build();
}
constexpr unsigned int kSongEndLastTick = 7680;

/// Two bars of 4/4 at 120 with no change-log events, no pages and no markers.
inline std::shared_ptr<velt_midi::SongData> BareSong() {
    return velt_core::SongBuilder("Bare", kTicksPerQuarter).Number("1").Bars(2).Build();
}

inline void Load(HowToPlay& position, const velt_midi::SongData& song) {
    position.SetData(song.GetSongLog(), song.GetTimeline(), kTicksPerQuarter);
}

/// Seconds per clock at a tempo in quarter notes per minute.
inline double ClockTimeAt(double quarterNotesPerMinute) {
    return 60.0 / quarterNotesPerMinute / 24.0;
}

}  // namespace position_songs
