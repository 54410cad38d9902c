// Building songs in code: for tests, tools and the example generator.
//
//   auto song = velt_core::SongBuilder("Overture", 480)
//                   .Tempo(0, 120.0).Meter(0, 3, 4).Bars(16)
//                   .Track(0x01, "Strings", 48, {36, 96})
//                   .Note(0x01, 0, 60, 100, 480)
//                   .Transpose(960, 1920, 2)
//                   .Build();
//
// Build() sorts everything by tick, derives the bars and beats from the meters (one record per
// click of the meter, beat 1 at each bar start), and fills in what was not given: a tempo of 120
// quarter notes per minute, a 4/4 meter and C major at tick 0.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "interfaces/song_data.h"

namespace velt_core {

/// Ticks in one beat of the meter (one denominator note): ticks per quarter × 4 / denominator.
std::uint32_t TicksPerBeat(const TL::Meter& meter, std::uint32_t ticksPerQuarter);
/// Ticks in one bar of the meter: numerator beats.
std::uint32_t TicksPerBar(const TL::Meter& meter, std::uint32_t ticksPerQuarter);

/// The usual click of a written meter, in MIDI clocks: a beat of the denominator (24 clocks per
/// quarter), or a dotted beat in compound meters (6/8, 9/8, 12/8, 6/4 ...), e.g. 36 for 6/8.
std::uint8_t DefaultClocksPerClick(std::uint8_t numerator, std::uint8_t denominator);

/// A meter record with the default click and 8 notated 32nds per quarter-note click.
TL::Meter MakeMeter(std::uint32_t tick, std::uint8_t numerator, std::uint8_t denominator);

/// Ticks in one click of the meter: clocks per click × ticks per clock (ticks per quarter / 24),
/// at least 1.
std::uint32_t TicksPerClick(const TL::Meter& meter, std::uint32_t ticksPerQuarter);

/// The bars and beats of a song from its meters, up to and including the last tick. Bars start at
/// each meter's tick and follow one another at the meter's bar length; a meter change always
/// starts a new bar. A beat is a click of the meter (one conducted beat), so within a bar there is
/// one record per click from the bar start, numbered 1, 2, ... (6/8 clicked in dotted quarters
/// has two beats a bar, 3/4 three); without click events these are exactly the ticks
/// CreateBeatTicks yields. Bars are numbered from `firstBar`; the display beat equals the beat.
TL::TimelineSequence<TL::BarsBeats> DeriveBarsBeats(const TL::TimelineSequence<TL::Meter>& meters,
                                                    std::uint32_t lastTickIndex,
                                                    std::uint32_t ticksPerQuarter,
                                                    std::int32_t firstBar = 1);

/// Converts quarter notes per minute to the tempo record's microseconds per quarter.
std::uint32_t MicrosecondsPerQuarter(double quarterNotesPerMinute);

class SongBuilder {
  public:
    explicit SongBuilder(std::string name = "Song", std::uint32_t ticksPerQuarter = 480);

    SongBuilder& Number(std::string number);
    SongBuilder& StartTick(std::uint32_t tick);
    /// Tempo in quarter notes per minute from `tick` on.
    SongBuilder& Tempo(std::uint32_t tick, double quarterNotesPerMinute);
    SongBuilder& TempoMicroseconds(std::uint32_t tick, std::uint32_t microsecondsPerQuarter);
    /// Meter from `tick` on, with the default click (DefaultClocksPerClick) unless one is given.
    SongBuilder& Meter(std::uint32_t tick, std::uint8_t numerator, std::uint8_t denominator,
                       std::uint8_t clocksPerClick = 0, std::uint8_t notated32nds = 8);
    SongBuilder& Key(std::uint32_t tick, std::int16_t sharpsFlats, bool minor = false);
    SongBuilder& Page(std::uint32_t tick, std::int32_t page);
    /// The song ends at this tick (its last tick index).
    SongBuilder& LastTick(std::uint32_t tick);
    /// The song ends at the start of bar `count` + 1 (so it has `count` whole bars); needs the
    /// meters given before it.
    SongBuilder& Bars(std::uint32_t count);

    SongBuilder& Click(std::uint32_t start, std::uint32_t end, int notated32ndsPerClick);
    SongBuilder& TempoScale(std::uint32_t start, std::uint32_t end, float factor);
    SongBuilder& Transpose(std::uint32_t start, std::uint32_t end, int semitones);
    SongBuilder& Marker(std::uint32_t tick, std::string text);

    /// Adds (or replaces) the track `trackId` (port = id >> 4, channel = id & 0x0F).
    SongBuilder& Track(std::uint16_t trackId, std::string name, std::uint8_t defaultProgram = 0,
                       std::pair<std::uint8_t, std::uint8_t> range = {255, 255});
    /// A note-on at `tick` and its note-off (velocity 0x40) `duration` ticks later. The track is
    /// created unnamed if it does not exist.
    SongBuilder& Note(std::uint16_t trackId, std::uint32_t tick, std::uint8_t note,
                      std::uint8_t velocity, std::uint32_t duration);
    /// Any channel message; `status` is the kind (0x80..0xE0), the channel comes from the id.
    SongBuilder& Event(std::uint16_t trackId, std::uint32_t tick, std::uint8_t status,
                       std::uint8_t data1, std::uint8_t data2 = 0);
    SongBuilder& ControlChange(std::uint16_t trackId, std::uint32_t tick, std::uint8_t controller,
                               std::uint8_t value);
    SongBuilder& ProgramChange(std::uint16_t trackId, std::uint32_t tick, std::uint8_t program);
    /// 14-bit pitch bend value, 8192 = centre.
    SongBuilder& PitchBend(std::uint16_t trackId, std::uint32_t tick, std::uint16_t value);

    /// The song. The last tick, when not given, is the latest of every event and change-log tick.
    std::shared_ptr<velt_midi::SongData> Build() const;

  private:
    velt_midi::VoiceTrack& TrackRef_(std::uint16_t trackId);

    std::uint32_t ticksPerQuarter_;
    std::shared_ptr<velt_midi::SongData> song_;
    bool hasLastTick_ = false;
};

}  // namespace velt_core
