#include "midi/time_code_converter.h"

#include <algorithm>
#include <vector>

SongTimeCodeReference::SongTimeCodeReference(double startSeconds, const TL::Timeline& timeline,
                                             std::uint32_t ticksPerQuarter)
    : startSeconds_(startSeconds) {
    double seconds = startSeconds;
    double secondsPerTick = 0.0;
    std::uint32_t previousTick = 0;
    for (const TL::Tempo& tempo : timeline.GetTempos().GetVector()) {
        seconds += static_cast<double>(tempo.tick_index - previousTick) * secondsPerTick;
        previousTick = tempo.tick_index;
        secondsPerTick = tempo.tick_time(static_cast<std::uint16_t>(ticksPerQuarter));
        points_[tempo.tick_index] = TimeCodePoint(tempo.tick_index, seconds, secondsPerTick);
    }
    songEndSeconds_ = GetTimeCodeAtTickIndex(timeline.lastTickIndex).GetSeconds();
}

TimeCodePoint SongTimeCodeReference::GetTimeCodeAtTickIndex(std::uint32_t tickIndex) const {
    auto after = points_.upper_bound(tickIndex);
    if (after == points_.begin()) {  // before the first tempo, or no tempo at all
        return TimeCodePoint(tickIndex, startSeconds_, 0.0);
    }
    const TimeCodePoint& point = std::prev(after)->second;
    const std::uint32_t ticks = tickIndex - point.GetTickIndex();
    return TimeCodePoint(
        tickIndex, point.GetSeconds() + static_cast<double>(ticks) * point.GetSecondsPerTick(),
        point.GetSecondsPerTick());
}

ShowTimeCodeReference::ShowTimeCodeReference(const velt_midi::ShowData& show) {
    std::vector<const velt_midi::SongData*> songs;
    for (const auto& song : show.GetSongs()) {
        songs.push_back(song.get());
    }
    // Ascending name; songs of one name keep the show's order, and the last one is kept.
    std::stable_sort(songs.begin(), songs.end(), [](const auto* a, const auto* b) {
        return a->GetSongName() < b->GetSongName();
    });
    double running = 0.0;
    for (const velt_midi::SongData* song : songs) {
        const auto ticksPerQuarter = static_cast<std::uint16_t>(song->GetTicksPerQuarter());
        SongTimeCodeReference reference(running, song->GetTimeline(), ticksPerQuarter);
        running = reference.GetSongEndSeconds();
        songs_[song->GetSongName()] = std::move(reference);
    }
}

SongTimeCodeReference& ShowTimeCodeReference::Get(const std::string& songName) {
    return songs_[songName];
}

TimeCodeConverter::TimeCodeConverter(const velt_midi::ShowData& show) : show_(show) {}

TimeCodeConverter::TimeCodeConverter(const TimeCodeConverter& other)
    : show_(other.show_),
      currentName_(other.currentName_),
      ticksPerQuarter_(other.ticksPerQuarter_) {
    if (other.current_ != nullptr) {
        Rebind_();
    }
}

TimeCodeConverter& TimeCodeConverter::operator=(const TimeCodeConverter& other) {
    if (this != &other) {
        TimeCodeConverter copy(other);
        *this = std::move(copy);
    }
    return *this;
}

// A moved map keeps its nodes, so the pointer stays valid in the new owner.
TimeCodeConverter::TimeCodeConverter(TimeCodeConverter&& other) noexcept
    : show_(std::move(other.show_)),
      currentName_(std::move(other.currentName_)),
      current_(std::exchange(other.current_, nullptr)),
      ticksPerQuarter_(other.ticksPerQuarter_) {}

TimeCodeConverter& TimeCodeConverter::operator=(TimeCodeConverter&& other) noexcept {
    show_ = std::move(other.show_);
    currentName_ = std::move(other.currentName_);
    current_ = std::exchange(other.current_, nullptr);
    ticksPerQuarter_ = other.ticksPerQuarter_;
    return *this;
}

void TimeCodeConverter::Rebind_() {
    current_ = &show_.Get(currentName_);
}

void TimeCodeConverter::UpdateToNewSong(const std::string& songName,
                                        std::uint32_t ticksPerQuarter) {
    currentName_ = songName;
    ticksPerQuarter_ = ticksPerQuarter;
    Rebind_();
}

double TimeCodeConverter::ConvertTickIndexToSeconds(std::uint32_t tickIndex) const {
    return current_ == nullptr ? 0.0 : current_->GetTimeCodeAtTickIndex(tickIndex).GetSeconds();
}

std::pair<double, double> TimeCodeConverter::GetTimeCodeSecondsPair(std::uint32_t tickIndex) const {
    const std::uint32_t nextClock = tickIndex + ticksPerQuarter_ / 24;
    return {ConvertTickIndexToSeconds(tickIndex), ConvertTickIndexToSeconds(nextClock)};
}
