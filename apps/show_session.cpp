#include "apps/show_session.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "midi/velt_midi_error.h"
#include "midi/win32/conducted_midi_clock.h"
#include "midi/win32/midi_buffer_win32.h"
#include "midi/win32/midi_device_info.h"
#include "midi/win32/precision_midi_clock_impl.h"
#include "midi/win32/standard_midi_clock_impl.h"
#include "velt_core/show_loader.h"

namespace velt_play {
namespace {

using namespace std::chrono_literals;

constexpr double minimumTempoScale = 0.5;
constexpr double maximumTempoScale = 2.0;
constexpr int maximumTransposition = 24;
// How long a stop waits for the clock's thread to finish its period.
constexpr auto clockStopLimit = 10s;
// How often the device list is read while a lost device is awaited.
constexpr auto deviceWatchInterval = 250ms;

// A caesura is a marker whose text begins with "caesura" (any case): the score holds there until
// the performer plays on.
bool IsCaesura(const std::string& text) {
    static constexpr std::string_view word = "caesura";
    if (text.size() < word.size()) {
        return false;
    }
    return std::equal(word.begin(), word.end(), text.begin(), [](char a, char b) {
        return a == std::tolower(static_cast<unsigned char>(b));
    });
}

unsigned char PortCount(const std::vector<SessionSong>& songs) {
    int ports = 1;
    for (const auto& entry : songs) {
        if (!entry.song) {
            continue;
        }
        for (const auto& [id, track] : entry.song->GetVoiceData()) {
            ports = std::max(ports, (id >> 4) + 1);
        }
    }
    return static_cast<unsigned char>(std::min(ports, 255));
}

}  // namespace

const char* ToString(PlayState state) {
    switch (state) {
        case PlayState::cued:
            return "cued";
        case PlayState::playing:
            return "playing";
        case PlayState::caesura:
            return "caesura";
        case PlayState::stopped:
            return "stopped";
        case PlayState::ended:
            return "ended";
    }
    return "?";
}

ShowSession::ShowSession(std::vector<SessionSong> songs, std::shared_ptr<pv::ParvelShowData> show,
                         SessionOptions options)
    : songs_(std::move(songs)), show_(std::move(show)), options_(std::move(options)) {
    const auto playable =
        std::find_if(songs_.begin(), songs_.end(), [](const auto& entry) { return entry.song; });
    if (playable == songs_.end()) {
        throw std::invalid_argument("the show has no song that can be played");
    }
    portCount_ = PortCount(songs_);
    const auto useClock = [this](auto clock) {
        waitForClockStop_ = [raw = clock.get()](auto limit) {
            return raw->WaitUntilStopped(limit);
        };
        clock_ = std::move(clock);
    };
    switch (options_.clock) {
        case ClockKind::precision:
            useClock(std::make_unique<PrecisionMidiClockImpl>());
            break;
        case ClockKind::standard:
            useClock(std::make_unique<StandardMidiClockImpl>());
            break;
        case ClockKind::conducted: {
            auto clock = std::make_unique<ConductedMidiClock>();
            conducted_ = clock.get();
            useClock(std::move(clock));
            break;
        }
    }
    position_ = std::make_unique<HowToPlayWithMidiClock>(controls_, *clock_);
    streams_ = std::make_unique<ParvelMidiStreamCollection>(*show_);
    output_ = std::make_unique<MidiOutputWin32>(
        portCount_, [this](MidiBuffer& buffer) { Fill_(buffer); },
        [this](unsigned int tick) { Downbeat_(tick); }, [this] { Stopped_(); }, [] {},
        [this](unsigned int tick) { return PeriodSent_(tick); }, *clock_, &clientMutex_);
    if (options_.timing) {
        output_->SetExactTiming(*options_.timing == TimingKind::exact);
    }
    output_->Initialize(portCount_);
    if (options_.device.empty()) {
        output_->CreateSynthOutput();
    } else {
        output_->CreateSynthOutput(options_.device);
    }
    deviceWatch_ = std::make_unique<DeviceReturnWatch>(
        [this](const std::string& name) { return ReopenDevice_(name); }, deviceWatchInterval);
    segue_ = std::make_unique<TaskThread>("session_segue");
    // Posted on the clock's thread with the client mutex held: only hand the name on.
    notify::callbackDispatcher.AddCallback(
        notify::names::midiOutputDeviceLost, this, [this](void* payload) {
            deviceWatch_->Watch(*static_cast<const std::string*>(payload));
            Publish_();
        });
    SelectSong(static_cast<int>(playable - songs_.begin()) + 1);
}

ShowSession::~ShowSession() {
    segue_.reset();  // a segue under way finishes; none starts after this
    notify::callbackDispatcher.RemoveCallbacksForTarget(this);
    deviceWatch_.reset();  // its callback takes the transport
    try {
        Stop();
    } catch (const std::exception& error) {
        kit::CoutBuffer() << "WARNING: stopping the show failed: " << error.what() << kit::endl;
    }
    output_->PrepareForExit();
    waitForClockStop_(clockStopLimit);
    output_.reset();
}

void ShowSession::SetStatusListener(StatusListener listener) {
    std::scoped_lock lock(statusMutex_);
    listener_ = std::move(listener);
}

const velt_midi::SongData& ShowSession::Song_() const {
    return *songs_.at(static_cast<std::size_t>(songIndex_)).song;
}

// ---------------------------------------------------------------------------------------------
// Songs and positions

void ShowSession::SelectSong(int number) {
    std::scoped_lock transport(transportMutex_);
    SelectSong_(number);
}

void ShowSession::SelectSong_(int number) {
    if (number < 1 || number > static_cast<int>(songs_.size())) {
        throw std::out_of_range("no song " + std::to_string(number) + " (the show has " +
                                std::to_string(songs_.size()) + ")");
    }
    const SessionSong& entry = songs_[static_cast<std::size_t>(number - 1)];
    if (!entry.song) {
        throw std::runtime_error("song " + std::to_string(number) + " \"" + entry.name +
                                 "\" cannot be played: " + entry.error);
    }
    if (State_() == PlayState::playing) {
        Halt_(PlayState::stopped);
    }
    const velt_midi::SongData& song = *entry.song;
    {
        std::scoped_lock lock(positionMutex_);
        songIndex_ = number - 1;
        stream_ = &streams_->GetStream(song.GetSongName());
        ticksPerClock_ = std::max<std::uint32_t>(1, song.GetTicksPerQuarter() / 24);
        position_->SetData(song.GetSongLog(), song.GetTimeline(), song.GetTicksPerQuarter());
    }
    {
        std::scoped_lock lock(sentMutex_);
        caesuras_.clear();
        for (const auto& marker : song.GetSongLog().GetMarkers()) {
            if (IsCaesura(marker.text)) {
                caesuras_.insert(marker.tick_index);
            }
        }
        caesuraReached_ = false;
        stopBefore_.reset();
        ticksPerClockSent_ = std::max<std::uint32_t>(1, song.GetTicksPerQuarter() / 24);
    }
    {
        std::scoped_lock lock(statusMutex_);
        shownSongIndex_ = number - 1;
        state_ = PlayState::cued;
        ticksPerClockShown_ = std::max<std::uint32_t>(1, song.GetTicksPerQuarter() / 24);
        display_ = std::make_unique<HowToPlay>(controls_);
        display_->SetData(song.GetSongLog(), song.GetTimeline(), song.GetTicksPerQuarter());
    }
    Cue_(song.GetSongStartTickIndex());
    SetState_(PlayState::cued);
    Publish_();
}

void ShowSession::NextSong() {
    const auto next = NextPlayableSong_(Status().songNumber);
    if (!next) {
        throw std::out_of_range("there is no song after this one");
    }
    SelectSong(*next);
}

std::optional<int> ShowSession::NextPlayableSong_(int after) const {
    for (int number = after + 1; number <= static_cast<int>(songs_.size()); ++number) {
        if (songs_[static_cast<std::size_t>(number - 1)].song) {
            return number;
        }
    }
    return std::nullopt;
}

void ShowSession::SetAttacca(bool on) {
    attacca_.store(on);
    Publish_();
}

// The song that ended (number `ended`) runs straight into the next: unless the performer has
// done something since (a stop, another song, a play, a cue), it is selected and played from its
// start.
void ShowSession::Segue_(int ended, std::uint64_t stops) {
    std::scoped_lock transport(transportMutex_);
    if (State_() != PlayState::ended || songIndex_ + 1 != ended || stops_ != stops) {
        return;
    }
    if (const auto next = NextPlayableSong_(ended)) {
        SelectSong_(*next);
        Play_();
        Publish_();
    }
}

void ShowSession::PreviousSong() {
    const int current = Status().songNumber;
    for (int number = current - 1; number >= 1; --number) {
        if (songs_[static_cast<std::size_t>(number - 1)].song) {
            SelectSong(number);
            return;
        }
    }
    throw std::out_of_range("there is no song before this one");
}

// Positions the stream and the position at `tick` without playing: nothing sounds afterwards.
void ShowSession::Cue_(std::uint32_t tick) {
    {
        std::scoped_lock lock(positionMutex_);
        position_->Seek(tick);
        stream_->Seek(tick);
        nextTick_ = tick;
        resumeTick_ = tick;
        firstFill_ = FirstFill::strike;
    }
    {
        std::scoped_lock lock(statusMutex_);
        shownTick_ = tick;
        display_->Seek(tick);
    }
    if (hooks_.located) {
        hooks_.located(Song_(), tick);
    }
}

std::uint32_t ShowSession::ResumeTick_() {
    std::scoped_lock lock(positionMutex_);
    return resumeTick_;
}

void ShowSession::Play() {
    std::scoped_lock transport(transportMutex_);
    Play_();
}

void ShowSession::PlayUntilBar(int bar) {
    std::scoped_lock transport(transportMutex_);
    const TL::Timeline& timeline = Song_().GetTimeline();
    if (!velt_core::FindBarBeat(timeline, bar, 1)) {
        throw std::out_of_range("the song has no bar " + std::to_string(bar));
    }
    // The song's own end stops a last bar, with the song's resets.
    auto end = velt_core::FindBarBeat(timeline, bar + 1, 1);
    if (end && *end >= timeline.lastTickIndex) {
        end.reset();
    }
    {
        std::scoped_lock lock(sentMutex_);
        stopBefore_ = end;
    }
    Play_();
}

void ShowSession::Play_() {
    switch (State_()) {
        case PlayState::playing:
            return;
        case PlayState::ended:
            Cue_(Song_().GetSongStartTickIndex());
            break;
        default:
            break;
    }
    Start_(ResumeTick_());
}

void ShowSession::Resume() {
    std::scoped_lock transport(transportMutex_);
    if (State_() == PlayState::playing) {
        return;
    }
    if (State_() == PlayState::ended) {
        throw std::logic_error("the song has ended; play it again or choose another");
    }
    Start_(ResumeTick_());
}

void ShowSession::ConductBeat() {
    std::scoped_lock transport(transportMutex_);
    if (!conducted_) {
        throw std::logic_error("beats are for a conducted clock (--clock conducted)");
    }
    if (State_() != PlayState::playing) {
        Play_();
    }
    conducted_->ConductBeat();
}

void ShowSession::Stop() {
    std::scoped_lock transport(transportMutex_);
    ++stops_;  // an attacca not yet under way is called off
    {
        std::scoped_lock lock(sentMutex_);
        stopBefore_.reset();
    }
    if (State_() == PlayState::playing) {
        Halt_(PlayState::stopped);
        Publish_();
    }
}

void ShowSession::SeekToBar(int bar) {
    std::scoped_lock transport(transportMutex_);
    const auto tick = velt_core::FindBarBeat(Song_().GetTimeline(), bar, 1);
    if (!tick) {
        throw std::out_of_range("the song has no bar " + std::to_string(bar));
    }
    MoveTo_(*tick);
}

bool ShowSession::NextMarker() {
    std::scoped_lock transport(transportMutex_);
    const std::uint32_t from = Status().tick;
    for (const auto& marker : Song_().GetSongLog().GetMarkers()) {
        if (marker.tick_index > from) {
            MoveTo_(marker.tick_index);
            return true;
        }
    }
    return false;
}

bool ShowSession::PreviousMarker() {
    std::scoped_lock transport(transportMutex_);
    const std::uint32_t from = Status().tick;
    const auto& markers = Song_().GetSongLog().GetMarkers().GetVector();
    for (auto marker = markers.rbegin(); marker != markers.rend(); ++marker) {
        if (marker->tick_index < from) {
            MoveTo_(marker->tick_index);
            return true;
        }
    }
    return false;
}

// While playing: a jump that goes on playing, with what sounds there chased. Otherwise a cue.
void ShowSession::MoveTo_(std::uint32_t tick) {
    if (State_() != PlayState::playing) {
        if (State_() == PlayState::caesura) {
            // What the caesura left held is released: the music starts afresh at the cue.
            ReleaseSoundingNotes_(true);
        }
        Cue_(tick);
        SetState_(PlayState::cued);
        Publish_();
        return;
    }
    if (Halt_(PlayState::playing)) {
        // Nothing sounds at the device any more: the restart strikes all that sounds there.
        std::scoped_lock lock(sentMutex_);
        sounding_.clear();
    } else {
        std::scoped_lock lock(positionMutex_);
        firstFill_ = FirstFill::chase;
    }
    Start_(tick);
}

// ---------------------------------------------------------------------------------------------
// Running and halting

void ShowSession::Start_(std::uint32_t tick) {
    int clocksPerClick = 0;
    double clockTime = 0;
    int clockNumber = 0;
    AskAgainForDroppedControls_();
    {
        std::scoped_lock lock(positionMutex_);
        if (firstFill_ == FirstFill::chase) {
            SyncStreamWithDevice_();
        }
        position_->Seek(tick);
        stream_->Seek(tick);
        nextTick_ = tick;
        clocksPerClick = position_->GetLastSeekClocksPerClick();
        clockTime = position_->GetLastSeekClockTime();
        clockNumber = position_->GetClockNumber();
    }
    {
        std::scoped_lock lock(sentMutex_);
        filledNotes_.clear();
        caesuraReached_ = false;
        stopBeforeReached_ = false;
        lastSentEnd_ = tick;
    }
    if (hooks_.located) {
        hooks_.located(Song_(), tick);
    }
    output_->Seek(tick);
    clock_->ArmPlayback(ticksPerClock_, clocksPerClick, clockTime, tick, clockNumber);
    {
        std::unique_lock lock(output_->GetMutex());
        output_->PrimeBuffers(lock);
    }
    if (!output_->ArmPlayback()) {
        throw std::logic_error("the output refused to arm after priming");
    }
    SetState_(PlayState::playing);
    if (hooks_.starting) {
        hooks_.starting(tick);
    }
    clock_->ContinuousMode();
    Publish_();
}

// The ring runs up to four periods ahead of the device, so the stream's own idea of what sounds
// is that of the last period filled. Before a jump with chase, and before a mute's releases at a
// caesura, it is brought back to what the device has actually received.
void ShowSession::SyncStreamWithDevice_() {
    std::uint32_t deviceTick = 0;
    {
        std::scoped_lock lock(sentMutex_);
        deviceTick = lastSentEnd_;
    }
    if (!scratch_) {
        scratch_ = CreateMidiBuffer(portCount_, MidiOutput::bufferCapacity, "Session Scratch");
    }
    const auto transposition = static_cast<signed char>(position_->GetTranspositionPair().second);
    scratch_->Reset();
    stream_->SyncWithDevice(deviceTick, transposition, *scratch_);
}

// Stops sending. `why` is the state afterwards; for a jump (playing) nothing is released, as the
// restart chases; otherwise every note the device holds gets its note-off, then the resets.
// Returns whether the disarm silenced the device: with exact timing it drops what the device has
// queued by stopping the stream, and a stopped stream turns off every note it holds.
bool ShowSession::Halt_(PlayState why) {
    const bool silenced = output_->GetExactTiming() && !output_->GetSynthIsLost();
    output_->DisarmPlayback();
    std::uint32_t resumeTick = 0;
    {
        // A send step already under way finishes before the device is touched again.
        std::scoped_lock client(clientMutex_);
        std::scoped_lock lock(sentMutex_);
        resumeTick = lastSentEnd_;
    }
    waitForClockStop_(clockStopLimit);
    if (hooks_.stopped) {
        hooks_.stopped();
    }
    {
        std::scoped_lock lock(positionMutex_);
        resumeTick_ = resumeTick;
        firstFill_ = FirstFill::strike;
    }
    if (why != PlayState::playing) {
        ReleaseSoundingNotes_(true);
        ShowStoppedAt_(resumeTick);
        SetState_(why);
    }
    return silenced;
}

void ShowSession::ReleaseSoundingNotes_(bool resets) {
    std::scoped_lock client(clientMutex_);
    std::vector<velt_midi::VoiceEvent> offs;
    {
        std::scoped_lock lock(sentMutex_);
        for (const auto& [key, voices] : sounding_) {
            const auto port = static_cast<std::uint16_t>(key >> 16);
            const auto status = static_cast<std::uint8_t>(0x80 | ((key >> 8) & 0x0F));
            // One note-off per voice: a synth that gives each note-on a voice of its own keeps
            // the rest sounding.
            offs.insert(offs.end(), static_cast<std::size_t>(voices),
                        velt_midi::VoiceEvent(0, status, static_cast<std::uint16_t>(port << 4),
                                              static_cast<std::uint8_t>(key & 0x7F), 0));
        }
        sounding_.clear();
    }
    if (!offs.empty()) {
        output_->InjectEvents(offs);
    }
    if (resets) {
        output_->AllNotesOff();
    }
}

// ---------------------------------------------------------------------------------------------
// The engine's callbacks

void ShowSession::Fill_(MidiBuffer& buffer) {
    std::unique_lock lock(positionMutex_);
    const std::uint32_t tick = nextTick_;
    buffer.SetTickIndex(tick);
    if (tick > Song_().GetTimeline().lastTickIndex) {
        buffer.SetIsLastBuffer(true);
        return;
    }
    position_->AdvanceToTickIndexWithLock(tick, lock);
    buffer.SetClockNumber(position_->GetClockNumber());
    const auto [now, before] = position_->GetTranspositionPair();
    const auto transposition = static_cast<signed char>(now);
    const std::uint32_t periodEnd = tick + ticksPerClock_;
    switch (std::exchange(firstFill_, FirstFill::none)) {
        case FirstFill::strike:
            stream_->EnqueueAttacca(periodEnd, transposition, buffer);
            break;
        case FirstFill::chase:
            stream_->EnqueueEventsWithPersistence(periodEnd, static_cast<signed char>(before),
                                                  transposition, buffer, false);
            break;
        case FirstFill::none:
            if (now != before) {
                // Notes sounding move to the new key: released at the old pitch, struck anew.
                stream_->Seek(stream_->GetCurrentTick());
                stream_->EnqueueEventsWithPersistence(periodEnd, static_cast<signed char>(before),
                                                      transposition, buffer, false);
            } else {
                stream_->EnqueueEvents(periodEnd, transposition, buffer, false);
            }
            break;
    }
    nextTick_ = periodEnd;
    RecordFilledNotes_(tick, buffer);
    if (!mutedSinceFill_.empty() || !unmutedSinceFill_.empty()) {
        std::scoped_lock sent(sentMutex_);
        TrackControls& carried = filledControls_[tick];
        carried.muted.merge(mutedSinceFill_);
        carried.unmuted.merge(unmutedSinceFill_);
        mutedSinceFill_.clear();
        unmutedSinceFill_.clear();
    }
    buffer.SetHasData(true);
}

void ShowSession::ApplyNoteChanges_(const std::vector<std::pair<NoteKey, NoteChange>>& changes,
                                    std::map<NoteKey, int>& voices) {
    for (const auto& [key, change] : changes) {
        if (change == NoteChange::on) {
            ++voices[key];
        } else if (const auto held = voices.find(key);
                   held != voices.end() && --held->second == 0) {
            voices.erase(held);
        }
    }
}

namespace {
// Every short message of a filled buffer, port by port, in the order the device receives them.
template <typename Visit>
void ForEachMessage(MidiBuffer& buffer, unsigned char portCount, const Visit& visit) {
    auto& packets = dynamic_cast<MidiBufferWin32&>(buffer);
    for (unsigned char port = 0; port < portCount; ++port) {
        const auto& packet = *packets.GetDataBuffer(port);
        for (std::uint16_t i = 0; i < packet.GetEventCount(); ++i) {
            const DWORD word = packet.GetMidiMessageAtMessageIndex(i).dwEvent;
            visit(port, static_cast<std::uint8_t>(word & 0xFF),
                  static_cast<std::uint8_t>((word >> 8) & 0x7F),
                  static_cast<std::uint8_t>((word >> 16) & 0x7F));
        }
    }
}
}  // namespace

std::vector<std::pair<ShowSession::NoteKey, ShowSession::NoteChange>> ShowSession::NoteChangesIn_(
    MidiBuffer& buffer) const {
    std::vector<std::pair<NoteKey, NoteChange>> notes;
    ForEachMessage(
        buffer, portCount_,
        [&](unsigned char port, std::uint8_t status, std::uint8_t data1, std::uint8_t data2) {
            const NoteKey channel = (NoteKey{port} << 16) | (NoteKey{status & 0x0Fu} << 8);
            const std::uint8_t kind = status & 0xF0;
            if (kind == 0x90 && data2 > 0) {
                notes.emplace_back(channel | data1, NoteChange::on);
            } else if (kind == 0x80 || kind == 0x90) {
                notes.emplace_back(channel | data1, NoteChange::off);
            }
        });
    return notes;
}

bool ShowSession::AskAgainForDroppedControls_() {
    TrackControls dropped;
    {
        std::scoped_lock lock(sentMutex_);
        for (auto& [tick, carried] : filledControls_) {
            for (unsigned short trackId : carried.muted) {
                dropped.muted.insert(trackId);
                dropped.unmuted.erase(trackId);
            }
            for (unsigned short trackId : carried.unmuted) {
                dropped.unmuted.insert(trackId);
                dropped.muted.erase(trackId);
            }
        }
        filledControls_.clear();
    }
    if (dropped.muted.empty() && dropped.unmuted.empty()) {
        return false;
    }
    std::scoped_lock lock(positionMutex_);
    stream_->ReleaseMutedTrackNotes(dropped.muted);
    stream_->RestoreTracks(dropped.unmuted);
    return !dropped.muted.empty();
}

// A mute asks the stream for its releases with the next period; at a caesura that period waits
// for the performer while the muted track's notes go on sounding. The releases are written into
// the scratch buffer instead and sent at once, and the notes they end leave what the device is
// known to hold.
void ShowSession::ReleaseMutedTracksNow_() {
    std::scoped_lock client(clientMutex_);
    std::vector<velt_midi::VoiceEvent> events;
    std::vector<std::pair<NoteKey, NoteChange>> notes;
    {
        std::scoped_lock lock(positionMutex_);
        SyncStreamWithDevice_();  // releases what the device holds, not what was filled ahead
        scratch_->Reset();
        const auto transposition =
            static_cast<signed char>(position_->GetTranspositionPair().second);
        stream_->EnqueueMutedTrackReleases(transposition, *scratch_);
        ForEachMessage(
            *scratch_, portCount_,
            [&](unsigned char port, std::uint8_t status, std::uint8_t data1, std::uint8_t data2) {
                events.emplace_back(0, status, static_cast<std::uint16_t>(port << 4), data1, data2);
            });
        notes = NoteChangesIn_(*scratch_);
    }
    {
        std::scoped_lock lock(sentMutex_);
        ApplyNoteChanges_(notes, sounding_);
    }
    if (!events.empty()) {
        output_->InjectEvents(events);
    }
}

// Remembers the note messages of a filled period, as the device will receive them.
void ShowSession::RecordFilledNotes_(std::uint32_t tick, MidiBuffer& buffer) {
    auto notes = NoteChangesIn_(buffer);
    std::scoped_lock lock(sentMutex_);
    filledNotes_[tick] = std::move(notes);
}

// The send step has sent the period starting at `tick`: what it carried now sounds at the device.
// Returns whether playback stops here: the next period would reach PlayUntilBar's limit, or this
// one holds a caesura.
bool ShowSession::PeriodSent_(unsigned int tick) {
    if (hooks_.periodSent) {
        hooks_.periodSent(tick, clock_->GetClockState().GetClockTime());
    }
    std::scoped_lock lock(sentMutex_);
    if (const auto filled = filledNotes_.find(tick); filled != filledNotes_.end()) {
        ApplyNoteChanges_(filled->second, sounding_);
        filledNotes_.erase(filledNotes_.begin(), std::next(filled));
    }
    filledControls_.erase(filledControls_.begin(), filledControls_.upper_bound(tick));
    lastSentEnd_ = tick + ticksPerClockSent_;
    if (stopBefore_ && lastSentEnd_ >= *stopBefore_) {
        stopBeforeReached_ = true;
        return true;
    }
    const auto caesura = caesuras_.lower_bound(tick);
    if (caesura != caesuras_.end() && *caesura < tick + ticksPerClockSent_) {
        caesuraReached_ = true;
        return true;
    }
    return false;
}

void ShowSession::Stopped_() {
    if (hooks_.stopped) {
        hooks_.stopped();
    }
    bool limit = false;
    bool caesura = false;
    std::uint32_t stoppedAt = 0;
    {
        std::scoped_lock lock(sentMutex_);
        limit = std::exchange(stopBeforeReached_, false);
        if (limit) {
            stopBefore_.reset();
        }
        caesura = caesuraReached_ && !limit;
        stoppedAt = lastSentEnd_;
    }
    if (!caesura) {
        // At the song's end the send step sent the controller resets; notes whose note-offs lie
        // past the song's last tick still get theirs. At a limit the stop is the performer's.
        ReleaseSoundingNotes_(limit);
    }
    {
        std::scoped_lock lock(positionMutex_);
        resumeTick_ = stoppedAt;
        firstFill_ = caesura ? FirstFill::chase : FirstFill::strike;
    }
    if (caesura && AskAgainForDroppedControls_()) {
        // A track muted just before the caesura: its releases rode on a period never sent.
        ReleaseMutedTracksNow_();
    }
    if (limit || caesura) {
        ShowStoppedAt_(stoppedAt);
    } else {
        ShowEnded_();
    }
    SetState_(limit ? PlayState::stopped : caesura ? PlayState::caesura : PlayState::ended);
    Publish_();
    if (!limit && !caesura && attacca_.exchange(false)) {
        // Played by the segue thread: a verb takes the transport mutex, which a host thread may
        // hold while it waits for this thread's stopped run to be over.
        int ended = 0;
        {
            std::scoped_lock lock(positionMutex_);
            ended = songIndex_ + 1;
        }
        segue_->Post([this, ended, stops = stops_.load()] { Segue_(ended, stops); });
    }
}

// A stop drops the downbeats still waiting for the display delay: the display jumps to where
// playback stopped, the start of the last period sent.
void ShowSession::ShowStoppedAt_(std::uint32_t end) {
    std::scoped_lock lock(statusMutex_);
    shownTick_ = end >= ticksPerClockShown_ ? end - ticksPerClockShown_ : 0;
}

// At the end the display rests on the song's last beat. Where the last period sent ends lies
// past it, on the bar line after the last bar, which would show a bar the song does not have.
void ShowSession::ShowEnded_() {
    std::uint32_t lastBeat = 0;
    {
        std::scoped_lock lock(positionMutex_);
        const TL::Timeline& timeline = Song_().GetTimeline();
        for (const TL::BarsBeats& beat : timeline.GetBarsBeats().GetVector()) {
            if (beat.tick_index < timeline.lastTickIndex) {
                lastBeat = beat.tick_index;
            }
        }
    }
    std::scoped_lock lock(statusMutex_);
    shownTick_ = lastBeat;
}

void ShowSession::Downbeat_(unsigned int tick) {
    {
        std::scoped_lock lock(statusMutex_);
        shownTick_ = tick;
    }
    Publish_();
}

// ---------------------------------------------------------------------------------------------
// Live adjustments

void ShowSession::SetTempoScale(double scale) {
    std::scoped_lock transport(transportMutex_);
    if (!(scale >= minimumTempoScale && scale <= maximumTempoScale)) {
        throw std::out_of_range("a tempo scale must lie between 0.5 and 2.0");
    }
    controls_.SetTempoScale(scale);
    // While playing, the clock takes the new period at once (the position schedules the later
    // changes itself). Not while stopped: a disarmed clock would keep the change and replay it
    // over the state of the next start, wherever that is; a start computes the period afresh.
    if (State_() == PlayState::playing) {
        std::unique_lock lock(positionMutex_);
        const double clockTime = position_->GetClockTime();
        lock.unlock();
        clock_->SetClockTime(clockTime, 0);
    }
    Publish_();
}

void ShowSession::SetTransposition(int semitones) {
    std::scoped_lock transport(transportMutex_);
    if (semitones < -maximumTransposition || semitones > maximumTransposition) {
        throw std::out_of_range("a transposition must lie between -24 and 24 semitones");
    }
    controls_.SetTransposition(semitones);
    Publish_();
}

void ShowSession::RequireTrack_(unsigned short trackId) const {
    if (!Tracks().contains(trackId)) {
        throw std::out_of_range("the show has no track " + std::to_string(trackId));
    }
}

void ShowSession::RequireGroup_(unsigned char group) const {
    if (show_->GetGroups().GetGroup(group).empty()) {
        throw std::out_of_range("the show has no group " + std::to_string(group));
    }
}

// Mutes and trims change the collection (which remembers them across songs) and the current
// stream, both of which the fill reads.
void ShowSession::ChangeStreams_(const std::function<void()>& change) {
    {
        std::scoped_lock lock(positionMutex_);
        change();
    }
    Publish_();
}

void ShowSession::MuteTrack(unsigned short trackId) {
    std::scoped_lock transport(transportMutex_);
    RequireTrack_(trackId);
    ChangeStreams_([&] {
        streams_->MuteTrack(trackId);
        stream_->SendAllNotesOffForMutedTracks();
        mutedSinceFill_.insert(trackId);
        unmutedSinceFill_.erase(trackId);
    });
    if (State_() == PlayState::caesura) {
        ReleaseMutedTracksNow_();
    }
}

void ShowSession::UnmuteTrack(unsigned short trackId) {
    std::scoped_lock transport(transportMutex_);
    RequireTrack_(trackId);
    ChangeStreams_([&] {
        streams_->UnmuteTrack(trackId);
        unmutedSinceFill_.insert(trackId);
        mutedSinceFill_.erase(trackId);
    });
}

void ShowSession::MuteGroup(unsigned char group) {
    std::scoped_lock transport(transportMutex_);
    RequireGroup_(group);
    ChangeStreams_([&] {
        const auto before = stream_->GetMutedTracks();
        streams_->MuteGroup(group);
        stream_->SendAllNotesOffForMutedTracks();
        for (unsigned short trackId : stream_->GetMutedTracks()) {
            if (before.count(trackId) == 0) {
                mutedSinceFill_.insert(trackId);
                unmutedSinceFill_.erase(trackId);
            }
        }
    });
    if (State_() == PlayState::caesura) {
        ReleaseMutedTracksNow_();
    }
}

void ShowSession::UnmuteGroup(unsigned char group) {
    std::scoped_lock transport(transportMutex_);
    RequireGroup_(group);
    ChangeStreams_([&] {
        const auto before = stream_->GetMutedTracks();
        streams_->UnmuteGroup(group);
        const auto after = stream_->GetMutedTracks();
        for (unsigned short trackId : before) {
            if (after.count(trackId) == 0) {
                unmutedSinceFill_.insert(trackId);
                mutedSinceFill_.erase(trackId);
            }
        }
    });
}

void ShowSession::SetTrackTrim(unsigned short trackId, unsigned char trim) {
    std::scoped_lock transport(transportMutex_);
    RequireTrack_(trackId);
    if (trim > 127) {
        throw std::out_of_range("a trim lies between 0 and 127");
    }
    ChangeStreams_([&] { streams_->SetTrackTrim(trackId, trim); });
}

void ShowSession::ChooseDevice(const std::string& deviceName) {
    std::scoped_lock transport(transportMutex_);
    ChangeDevice_(deviceName);
    deviceWatch_->Cancel();  // the performer's choice replaces the device awaited
    Publish_();
}

// The device watch found the lost device listed again.
bool ShowSession::ReopenDevice_(const std::string& deviceName) {
    std::scoped_lock transport(transportMutex_);
    if (!output_->GetSynthIsLost() || output_->GetSynthDeviceName() != deviceName) {
        return true;  // another device was chosen meanwhile: nothing to wait for
    }
    try {
        ChangeDevice_(deviceName);
    } catch (const MidiDeviceUnavailable& error) {
        // Listed but not open yet (a device still coming up, or held by another program): the
        // watch tries again, without a line each time.
        if (!std::exchange(reopenFailureLogged_, true)) {
            kit::CoutBuffer() << "WARNING: MIDI output device \"" << deviceName
                              << "\" is listed again but cannot be opened yet: " << error.what()
                              << kit::endl;
        }
        return false;
    }
    reopenFailureLogged_ = false;
    kit::CoutBuffer() << "MIDI output device \"" << deviceName
                      << "\" is back; playback goes on there." << kit::endl;
    Publish_();
    return true;
}

// A device newly opened holds nothing: no note, no controller, not even its program. Playing, the
// run is halted and started again at the same place, so that its first period strikes everything
// that sounds there; otherwise the next start does. The device changes between the halt and the
// start, so that no period goes to either device while what the device holds is forgotten; the
// device left is stopped as it is disconnected, which silences what it held. The halt is also
// what lets a switch away from a device that never hands packets back through: the send step
// holds the client mutex for seconds on such a device and only a disarmed clock stops asking
// for the next one. When the device cannot be opened (MidiDeviceUnavailable) the run goes on as
// it was.
void ShowSession::ChangeDevice_(const std::string& deviceName) {
    if (!output_->GetSynthIsLost() && output_->GetSynthDeviceName() == deviceName) {
        return;  // playing there already: the output keeps the device, and nothing need stop
    }
    const bool playing = State_() == PlayState::playing;
    if (playing) {
        Halt_(PlayState::playing);
    }
    try {
        output_->CreateSynthOutput(deviceName);
    } catch (...) {
        if (playing) {
            Start_(ResumeTick_());
        }
        throw;
    }
    {
        std::scoped_lock lock(sentMutex_);
        sounding_.clear();
    }
    {
        std::scoped_lock lock(positionMutex_);
        firstFill_ = FirstFill::strike;
    }
    if (playing) {
        Start_(ResumeTick_());
    }
}

void ShowSession::IncreaseDisplayDelay() {
    output_->IncreaseGuiDelay();
    Publish_();
}

void ShowSession::DecreaseDisplayDelay() {
    output_->DecreaseGuiDelay();
    Publish_();
}

// ---------------------------------------------------------------------------------------------
// Queries

std::map<unsigned short, std::string> ShowSession::Tracks() const {
    std::map<unsigned short, std::string> tracks;
    for (const auto& entry : songs_) {
        if (!entry.song) {
            continue;
        }
        for (const auto& [id, track] : entry.song->GetVoiceData()) {
            tracks.emplace(id, track->GetTrackName());
        }
    }
    return tracks;
}

PlayState ShowSession::State_() {
    std::scoped_lock lock(statusMutex_);
    return state_;
}

void ShowSession::SetState_(PlayState state) {
    {
        std::scoped_lock lock(statusMutex_);
        state_ = state;
    }
    stateChanged_.notify_all();
}

bool ShowSession::WaitUntilNotPlaying(std::chrono::milliseconds timeout) {
    std::unique_lock lock(statusMutex_);
    return stateChanged_.wait_for(lock, timeout, [this] { return state_ != PlayState::playing; });
}

SessionStatus ShowSession::Status() {
    SessionStatus status;
    {
        std::scoped_lock lock(positionMutex_);
        status.mutedTracks = streams_->GetMutedTracks();
    }
    status.tempoScale = controls_.GetTempoScale();
    status.transposition = controls_.GetTransposition();
    status.device = output_->GetSynthDeviceName();
    status.deviceLost = output_->GetSynthIsLost();
    status.displayDelay = output_->GetGuiDelay();
    if (conducted_) {
        if (const auto clockTime = conducted_->GetFollowedClockTime()) {
            status.followedTempo = 60.0 / (24 * *clockTime);
        }
    }
    status.attacca = attacca_.load();
    std::scoped_lock lock(statusMutex_);
    status.songNumber = shownSongIndex_ + 1;
    if (shownSongIndex_ >= 0) {
        status.songName = songs_[static_cast<std::size_t>(shownSongIndex_)].song->GetSongName();
    }
    status.state = state_;
    status.tick = shownTick_;
    if (display_) {
        if (shownTick_ < display_->GetTickIndex()) {
            display_->Seek(shownTick_);
        } else {
            display_->AdvanceToTickIndex(shownTick_);
        }
        // A song may lack a kind of record (no markers, no pages): its queries then throw
        // std::out_of_range, and the display shows nothing for it.
        const auto shown = [](auto query, auto fallback) {
            try {
                return query();
            } catch (const std::out_of_range&) {
                return decltype(query())(fallback);
            }
        };
        const HowToPlay& at = *display_;
        status.bar = shown([&] { return at.GetBarBeat().bar; }, 0);
        status.beat = shown([&] { return at.GetBarBeat().bar_beat; }, 0);
        status.tempo = shown([&] { return at.GetTempoDouble(); }, 0.0);
        status.key = shown([&] { return at.GetKeyString(); }, "");
        // Before its first marker a song has none in force, though the position names the first.
        status.marker = shown(
            [&] { return at.GetMarkerTickIndex() <= shownTick_ ? at.GetMarkerString() : ""; }, "");
        status.page = shown([&] { return at.GetPageNumberValue(); }, 0);
        status.clicksToEnd = shown([&] { return at.GetClicksToSongEnd(); }, 0);
    }
    return status;
}

void ShowSession::Publish_() {
    StatusListener listener;
    {
        std::scoped_lock lock(statusMutex_);
        listener = listener_;
    }
    if (listener) {
        listener(Status());
    }
}

}  // namespace velt_play
