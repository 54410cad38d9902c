#include "velt_core/song_builder.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace velt_core {

namespace {

template <typename Sequence>
void SortByTick(Sequence& sequence) {
    auto& records = sequence.GetVector();
    std::stable_sort(records.begin(), records.end(),
                     [](const auto& a, const auto& b) { return a.tick_index < b.tick_index; });
}

template <typename Sequence>
void SortByStart(Sequence& sequence) {
    auto& events = sequence.GetVector();
    std::stable_sort(events.begin(), events.end(),
                     [](const auto& a, const auto& b) { return a.start() < b.start(); });
}

}  // namespace

std::uint32_t TicksPerBeat(const TL::Meter& meter, std::uint32_t ticksPerQuarter) {
    std::uint32_t denominator = meter.denominator == 0 ? 4 : meter.denominator;
    return std::max<std::uint32_t>(1, ticksPerQuarter * 4 / denominator);
}

std::uint32_t TicksPerBar(const TL::Meter& meter, std::uint32_t ticksPerQuarter) {
    return TicksPerBeat(meter, ticksPerQuarter) * std::max<std::uint32_t>(1, meter.numerator);
}

std::uint8_t DefaultClocksPerClick(std::uint8_t numerator, std::uint8_t denominator) {
    std::uint32_t beatClocks = denominator == 0 ? 24 : 96u / denominator;
    bool compound = numerator > 3 && numerator % 3 == 0 && denominator >= 8;
    return static_cast<std::uint8_t>(
        std::clamp<std::uint32_t>(compound ? beatClocks * 3 : beatClocks, 1, 255));
}

TL::Meter MakeMeter(std::uint32_t tick, std::uint8_t numerator, std::uint8_t denominator) {
    TL::Meter meter;
    meter.tick_index = tick;
    meter.numerator = numerator;
    meter.denominator = denominator;
    meter.clocks_per_click = DefaultClocksPerClick(numerator, denominator);
    meter.notated_32nds = 8;
    return meter;
}

std::uint32_t TicksPerClick(const TL::Meter& meter, std::uint32_t ticksPerQuarter) {
    return std::max<std::uint32_t>(1, meter.clocks_per_click * (ticksPerQuarter / 24));
}

TL::TimelineSequence<TL::BarsBeats> DeriveBarsBeats(const TL::TimelineSequence<TL::Meter>& meters,
                                                    std::uint32_t lastTickIndex,
                                                    std::uint32_t ticksPerQuarter,
                                                    std::int32_t firstBar) {
    TL::TimelineSequence<TL::BarsBeats> result;
    std::vector<TL::Meter> segments(meters.begin(), meters.end());
    if (segments.empty() || segments.front().tick_index != 0) {
        segments.insert(segments.begin(), MakeMeter(0, 4, 4));
    }
    std::int32_t bar = firstBar;
    for (std::size_t i = 0; i < segments.size(); ++i) {
        const TL::Meter& meter = segments[i];
        // A meter change starts a new bar, cutting the bar before it short.
        const std::uint64_t segmentEnd = i + 1 < segments.size()
                                             ? std::uint64_t{segments[i + 1].tick_index}
                                             : std::uint64_t{lastTickIndex} + 1;
        const std::uint64_t barTicks = TicksPerBar(meter, ticksPerQuarter);
        const std::uint64_t clickTicks = TicksPerClick(meter, ticksPerQuarter);
        for (std::uint64_t barStart = meter.tick_index; barStart < segmentEnd;
             barStart += barTicks, ++bar) {
            const std::uint64_t barEnd = std::min(barStart + barTicks, segmentEnd);
            std::uint32_t beat = 1;
            for (std::uint64_t tick = barStart; tick < barEnd; tick += clickTicks, ++beat) {
                TL::BarsBeats record;
                record.tick_index = static_cast<std::uint32_t>(tick);
                record.bar = bar;
                record.bar_beat = static_cast<std::int32_t>(beat);
                record.beat = beat;
                result.push_back(record);
            }
        }
    }
    return result;
}

std::uint32_t MicrosecondsPerQuarter(double quarterNotesPerMinute) {
    if (quarterNotesPerMinute <= 0.0) {
        throw std::invalid_argument("tempo must be positive");
    }
    return static_cast<std::uint32_t>(std::lround(60'000'000.0 / quarterNotesPerMinute));
}

SongBuilder::SongBuilder(std::string name, std::uint32_t ticksPerQuarter)
    : ticksPerQuarter_(ticksPerQuarter), song_(std::make_shared<velt_midi::SongData>()) {
    song_->SetTicksPerQuarter(ticksPerQuarter);
    song_->GetSongLog().SetSongName(std::move(name));
    song_->GetSongLog().SetSongNumber("1");
}

SongBuilder& SongBuilder::Number(std::string number) {
    song_->GetSongLog().SetSongNumber(std::move(number));
    return *this;
}

SongBuilder& SongBuilder::StartTick(std::uint32_t tick) {
    song_->SetSongStartTickIndex(tick);
    return *this;
}

SongBuilder& SongBuilder::Tempo(std::uint32_t tick, double quarterNotesPerMinute) {
    return TempoMicroseconds(tick, MicrosecondsPerQuarter(quarterNotesPerMinute));
}

SongBuilder& SongBuilder::TempoMicroseconds(std::uint32_t tick, std::uint32_t microseconds) {
    TL::Tempo tempo;
    tempo.tick_index = tick;
    tempo.microseconds_per_quarter = microseconds;
    song_->GetTimeline().GetTempos().push_back(tempo);
    return *this;
}

SongBuilder& SongBuilder::Meter(std::uint32_t tick, std::uint8_t numerator,
                                std::uint8_t denominator, std::uint8_t clocksPerClick,
                                std::uint8_t notated32nds) {
    TL::Meter meter = MakeMeter(tick, numerator, denominator);
    if (clocksPerClick != 0) {
        meter.clocks_per_click = clocksPerClick;
    }
    meter.notated_32nds = notated32nds;
    song_->GetTimeline().GetMeters().push_back(meter);
    return *this;
}

SongBuilder& SongBuilder::Key(std::uint32_t tick, std::int16_t sharpsFlats, bool minor) {
    TL::Key key;
    key.tick_index = tick;
    key.sharps_flats = sharpsFlats;
    key.minor = minor ? 1 : 0;
    song_->GetTimeline().GetKeys().push_back(key);
    return *this;
}

SongBuilder& SongBuilder::Page(std::uint32_t tick, std::int32_t page) {
    TL::PageNum record;
    record.tick_index = tick;
    record.page = page;
    song_->GetTimeline().GetPageNums().push_back(record);
    return *this;
}

SongBuilder& SongBuilder::LastTick(std::uint32_t tick) {
    song_->GetTimeline().lastTickIndex = tick;
    hasLastTick_ = true;
    return *this;
}

SongBuilder& SongBuilder::Bars(std::uint32_t count) {
    TL::TimelineSequence<TL::Meter> meters = song_->GetTimeline().GetMeters();
    SortByTick(meters);
    if (meters.empty()) {
        meters.push_back(MakeMeter(0, 4, 4));
    }
    // Walk bar by bar through the meters to find where bar count + 1 starts.
    std::uint64_t tick = 0;
    std::size_t meterIndex = 0;
    for (std::uint32_t bar = 0; bar < count; ++bar) {
        while (meterIndex + 1 < meters.size() && meters[meterIndex + 1].tick_index <= tick) {
            ++meterIndex;
        }
        std::uint64_t next = tick + TicksPerBar(meters[meterIndex], ticksPerQuarter_);
        if (meterIndex + 1 < meters.size() && meters[meterIndex + 1].tick_index < next) {
            next = meters[meterIndex + 1].tick_index;  // a meter change cuts the bar short
        }
        tick = next;
    }
    return LastTick(static_cast<std::uint32_t>(tick));
}

SongBuilder& SongBuilder::Click(std::uint32_t start, std::uint32_t end, int notated32nds) {
    song_->GetSongLog().GetClicks().push_back(CL::Click(start, end, notated32nds));
    return *this;
}

SongBuilder& SongBuilder::TempoScale(std::uint32_t start, std::uint32_t end, float factor) {
    song_->GetSongLog().GetTempoScales().push_back(CL::TempoScale(start, end, factor));
    return *this;
}

SongBuilder& SongBuilder::Transpose(std::uint32_t start, std::uint32_t end, int semitones) {
    song_->GetSongLog().GetTranspositions().push_back(CL::Transpose(start, end, semitones));
    return *this;
}

SongBuilder& SongBuilder::Marker(std::uint32_t tick, std::string text) {
    song_->GetSongLog().GetMarkers().push_back(CL::Marker{tick, std::move(text)});
    return *this;
}

velt_midi::VoiceTrack& SongBuilder::TrackRef_(std::uint16_t trackId) {
    auto& voices = song_->GetVoiceData();
    if (!voices.contains(trackId)) {
        voices.insert(trackId, std::make_shared<velt_midi::VoiceTrack>(
                                   "", static_cast<std::uint8_t>(trackId & 0x0F), 0));
    }
    return voices.at(trackId);
}

SongBuilder& SongBuilder::Track(std::uint16_t trackId, std::string name,
                                std::uint8_t defaultProgram,
                                std::pair<std::uint8_t, std::uint8_t> range) {
    velt_midi::VoiceTrack& track = TrackRef_(trackId);
    track.SetTrackName(std::move(name));
    track.SetDefaultProgramChange(defaultProgram);
    track.range = range;
    return *this;
}

SongBuilder& SongBuilder::Note(std::uint16_t trackId, std::uint32_t tick, std::uint8_t note,
                               std::uint8_t velocity, std::uint32_t duration) {
    Event(trackId, tick, 0x90, note, velocity);
    return Event(trackId, tick + duration, 0x80, note, 0x40);
}

SongBuilder& SongBuilder::Event(std::uint16_t trackId, std::uint32_t tick, std::uint8_t status,
                                std::uint8_t data1, std::uint8_t data2) {
    TrackRef_(trackId).events.emplace_back(tick, status, trackId, data1, data2);
    return *this;
}

SongBuilder& SongBuilder::ControlChange(std::uint16_t trackId, std::uint32_t tick,
                                        std::uint8_t controller, std::uint8_t value) {
    return Event(trackId, tick, 0xB0, controller, value);
}

SongBuilder& SongBuilder::ProgramChange(std::uint16_t trackId, std::uint32_t tick,
                                        std::uint8_t program) {
    return Event(trackId, tick, 0xC0, program, 0);
}

SongBuilder& SongBuilder::PitchBend(std::uint16_t trackId, std::uint32_t tick,
                                    std::uint16_t value) {
    return Event(trackId, tick, 0xE0, static_cast<std::uint8_t>(value & 0x7F),
                 static_cast<std::uint8_t>((value >> 7) & 0x7F));
}

std::shared_ptr<velt_midi::SongData> SongBuilder::Build() const {
    // Deep copy, so that the builder can go on and build variations.
    auto song = std::make_shared<velt_midi::SongData>(*song_);
    velt_midi::VoiceData tracks;
    for (const auto& [id, track] : song_->GetVoiceData()) {
        auto copy = std::make_shared<velt_midi::VoiceTrack>(*track);
        std::stable_sort(copy->events.begin(), copy->events.end(),
                         [](const auto& a, const auto& b) { return a.time < b.time; });
        tracks.insert(id, std::move(copy));
    }
    song->GetVoiceData() = tracks;

    TL::Timeline& timeline = song->GetTimeline();
    if (timeline.GetTempos().empty()) {
        timeline.GetTempos().push_back(TL::Tempo{0, 500000});
    }
    if (timeline.GetMeters().empty()) {
        timeline.GetMeters().push_back(MakeMeter(0, 4, 4));
    }
    if (timeline.GetKeys().empty()) {
        timeline.GetKeys().push_back(TL::Key{0, 0, 0});
    }
    SortByTick(timeline.GetTempos());
    SortByTick(timeline.GetMeters());
    SortByTick(timeline.GetKeys());
    SortByTick(timeline.GetPageNums());
    CL::SongLog& log = song->GetSongLog();
    SortByStart(log.GetClicks());
    SortByStart(log.GetTempoScales());
    SortByStart(log.GetTranspositions());
    SortByTick(log.GetMarkers());

    if (!hasLastTick_) {
        std::uint32_t last = 0;
        for (const auto& [id, track] : tracks) {
            if (!track->events.empty()) {
                last = std::max(last, track->events.back().time);
            }
        }
        for (const auto& event : log.GetClicks())
            last = std::max(last, event.end());
        for (const auto& event : log.GetTempoScales())
            last = std::max(last, event.end());
        for (const auto& event : log.GetTranspositions())
            last = std::max(last, event.end());
        for (const auto& marker : log.GetMarkers())
            last = std::max(last, marker.tick_index);
        timeline.lastTickIndex = last;
    }
    timeline.GetBarsBeats() =
        DeriveBarsBeats(timeline.GetMeters(), timeline.lastTickIndex, ticksPerQuarter_);
    return song;
}

}  // namespace velt_core
