// Shows on disk: a directory holding a manifest `show.json` and one Standard MIDI File per song.
// This is where files become the song model: SongFromSmf maps a read file into a SongData
// (tracks, timeline, markers), LoadShow reads the manifest and adds to each song what a MIDI
// file cannot say (song number, start position, clicks, tempo scales, transpositions, markers,
// page numbers, range overrides, track groups). LoadPlayableShow does the same for a player,
// which goes on without a song whose file cannot be read, and also takes a single MIDI file.
// The manifest format is described in docs/show-format.md.
//
// Threads: no shared state; any thread may load shows concurrently. Warnings are written as
// "WARNING: " log lines through kit::CoutBuffer.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "interfaces/kit.h"
#include "interfaces/song_data.h"
#include "velt_core/smf_reader.h"

namespace velt_core {

/// A show manifest could not be read or is wrong. The message names the manifest and, for a
/// fault inside a song, the song and the key: `<manifest>: song 2 "Waltz": key "clicks[0].end":
/// <what>`.
class ShowError : public kit::IoError {
  public:
    explicit ShowError(const std::string& message) : kit::IoError(message) {}
};

/// The event in force at tick 0 when a file says nothing: 120 quarter notes per minute, 4/4
/// with a quarter-note click, C major.
inline constexpr std::uint32_t defaultMicrosecondsPerQuarter = 500000;

/// Maps a read file into a song.
///
/// Tracks: one VoiceTrack per (port, channel), track id (port << 4) | channel, the port coming
/// from the last MIDI-port meta event before the message in its file track (0 without one).
/// Channel messages of several file tracks on one port and channel merge into one track, in
/// tick order (file order within a tick). A note-on of velocity 0 becomes a note-off. The name
/// is the track name of the first file track playing on the channel (with " ch <n>" added when
/// that file track plays on several channels; "Channel <n>" without a name, n counted from 1),
/// the default program its first program change, the range its lowest and highest sounding
/// note ((255, 255) when it has no notes).
///
/// Timeline: tempos, meters and keys from the meta events of all tracks, sorted by tick (the
/// later of two at one tick wins), each with a record at tick 0 (a default where the file has
/// none); bars and beats derived from the meters; last tick = the latest event or end of track.
/// Markers from marker meta events. The song name is the first track's name when that track
/// plays no notes (the usual tempo track of a format 1 file).
///
/// A resolution that is not a multiple of 24 ticks per quarter (a MIDI clock must be a whole
/// number of ticks) is multiplied by the least factor that makes it one, and every tick with it,
/// so that the song keeps its time in seconds: 100 becomes 600, 128 becomes 384. Meta events
/// whose contents are unusable are skipped. SysEx and system messages, which are not played,
/// are counted in one warning for the file. All are recorded in `warnings`. Throws SmfError
/// (naming `name`) when ticks overflow 32 bits when scaled, or the song is too long.
velt_midi::SongData SongFromSmf(const SmfFile& file, const std::string& name,
                                std::vector<std::string>& warnings);

/// The file that SongFromSmf maps back to the same song: format 1, a first track holding the
/// song name, tempos, meters, keys and markers, then one track per voice track (name, MIDI port
/// when not 0, events), every track ending at the song's last tick. What a MIDI file cannot
/// hold (start position, change log, page numbers, a range other than the notes played, a
/// default program other than the first program change) is left out. Throws SmfError when the
/// song cannot be written (a resolution above 32767, a meter denominator that is not a power
/// of two).
SmfFile SmfFromSong(const velt_midi::SongData& song);

/// Reads the MIDI file at `path` and maps it, logging the reader's and the mapping's warnings.
/// Throws SmfError.
velt_midi::SongData LoadSongFile(const std::string& path);

/// Loads the show whose manifest is `location` (a file) or `location`/show.json (a directory).
/// Song files are found relative to the manifest's directory. Throws SmfError for a song file
/// fault and ShowError for every other failure, naming the manifest (and the key, for a fault
/// in the manifest's text or values).
std::shared_ptr<pv::ParvelShowData> LoadShow(const std::string& location);

/// One song of a show as a player offers it, in the show's order.
struct ShowEntry {
    std::string name;  // the song's name (from the manifest, else the file)
    std::shared_ptr<velt_midi::SongData> song;  // null when the song cannot be played
    std::string error;                          // why not (the SmfError text), when null
};

struct PlayableShow {
    std::shared_ptr<pv::ParvelShowData> show;  // the songs that can be played, in order
    std::vector<ShowEntry> songs;              // every song of the manifest, in order
};

/// `location` is a show folder, a show.json, or a single Standard MIDI File (.mid/.midi/.smf,
/// or any file starting with "MThd"): a one-song show named after the file. A song file that
/// cannot be read does not stop the show: its entry carries the error and a "WARNING: " log
/// line names it. Manifest faults still throw ShowError (of an unreadable song's entry, those
/// that need no song: the keys, the name and the number); a single MIDI file that cannot be
/// read throws SmfError (there is nothing else to play). Songs keep their manifest numbers, so
/// the show's songs may skip one.
PlayableShow LoadPlayableShow(const std::string& location);

/// The tick of a position "bar:beat" (bar and beat counted from 1, beat as displayed) in the
/// song's bars and beats, or nothing when the song has no such beat.
std::optional<std::uint32_t> FindBarBeat(const TL::Timeline& timeline, std::int32_t bar,
                                         std::int32_t beat);

}  // namespace velt_core
