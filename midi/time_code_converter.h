// Song ticks to seconds of show time, for labelling positions with time code.
//
// A show's songs lie end to end on one time axis, taken in ascending order of song name
// (whatever order the show plays them in): each song starts where the previous one in that order
// ends. Inside a song the conversion follows the tempo map change by change.
//
// A song reference keeps one point per tempo change: the tick, the seconds at that tick and the
// seconds per tick from it on. The first tempo adds nothing before it, so a song whose first
// tempo lies after tick 0 maps every tick up to it onto the song's start seconds; and a tick
// before the first point, or any tick of a song without tempos (an unknown song name included),
// answers the song's start seconds with 0 seconds per tick. Two tempi on one tick: the second
// wins, the seconds already reached stay.
//
// Value types: not thread-safe, each owned by one thread at a time.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "interfaces/song_data.h"
#include "interfaces/timeline.h"

class TimeCodePoint {
  public:
    TimeCodePoint() = default;
    TimeCodePoint(std::uint32_t tickIndex, double seconds, double secondsPerTick)
        : tickIndex_(tickIndex), seconds_(seconds), secondsPerTick_(secondsPerTick) {}

    std::uint32_t GetTickIndex() const { return tickIndex_; }
    double GetSeconds() const { return seconds_; }
    double GetSecondsPerTick() const { return secondsPerTick_; }

  private:
    std::uint32_t tickIndex_ = 0;
    double seconds_ = 0.0;
    double secondsPerTick_ = 0.0;
};

class SongTimeCodeReference {
  public:
    SongTimeCodeReference() = default;
    /// The song starts at `startSeconds`; its tempo map is the timeline's tempi at
    /// `ticksPerQuarter` (used as a 16-bit resolution, as the tempo records take it).
    SongTimeCodeReference(double startSeconds, const TL::Timeline& timeline,
                          std::uint32_t ticksPerQuarter);

    /// The seconds at `tickIndex` and the tempo in force there (see the header comment).
    TimeCodePoint GetTimeCodeAtTickIndex(std::uint32_t tickIndex) const;
    /// The seconds of the timeline's last tick.
    double GetSongEndSeconds() const { return songEndSeconds_; }

  private:
    std::map<std::uint32_t, TimeCodePoint> points_;
    double songEndSeconds_ = 0.0;
    double startSeconds_ = 0.0;
};

class ShowTimeCodeReference {
  public:
    ShowTimeCodeReference() = default;
    explicit ShowTimeCodeReference(const velt_midi::ShowData& show);

    /// The song's reference; a name the show does not hold gets an empty reference (start 0,
    /// no points), stored under that name.
    SongTimeCodeReference& Get(const std::string& songName);

  private:
    std::map<std::string, SongTimeCodeReference> songs_;
};

class TimeCodeConverter {
  public:
    explicit TimeCodeConverter(const velt_midi::ShowData& show);
    // A copy refers to its own show reference's entry for the current song.
    TimeCodeConverter(const TimeCodeConverter& other);
    TimeCodeConverter& operator=(const TimeCodeConverter& other);
    TimeCodeConverter(TimeCodeConverter&& other) noexcept;
    TimeCodeConverter& operator=(TimeCodeConverter&& other) noexcept;

    /// The song whose ticks are converted from now on, and its resolution.
    void UpdateToNewSong(const std::string& songName, std::uint32_t ticksPerQuarter);
    /// Seconds of show time at `tickIndex` of the current song; 0 before UpdateToNewSong.
    double ConvertTickIndexToSeconds(std::uint32_t tickIndex) const;
    /// The seconds at `tickIndex` and one MIDI clock later (ticks per quarter / 24 ticks, in
    /// whole ticks: the two are equal below 24 ticks per quarter).
    std::pair<double, double> GetTimeCodeSecondsPair(std::uint32_t tickIndex) const;

  private:
    void Rebind_();

    ShowTimeCodeReference show_;
    std::string currentName_;
    SongTimeCodeReference* current_ = nullptr;  // into show_, or none
    std::uint32_t ticksPerQuarter_ = 0;
};
