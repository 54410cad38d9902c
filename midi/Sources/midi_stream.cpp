#include "midi/midi_stream.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <utility>

#include "interfaces/kit.h"
#include "midi/Sources/channel_messages.h"
#include "midi/velt_midi_error.h"

using velt_midi::VoiceEvent;

using namespace channel_message;

namespace {
constexpr unsigned char kPitchBendCentreMsb = 64;

unsigned char PortOf(unsigned short trackId) {
    return static_cast<unsigned char>(trackId >> 4);
}

// A song's tracks are shared values; a stream copies each so that it owns what it plays.
void OwnTracks(velt_midi::SongData& song) {
    for (auto& [trackId, track] : song.GetVoiceData()) {
        song.GetVoiceData().insert(trackId, std::make_shared<velt_midi::VoiceTrack>(*track));
    }
}

const PersistentMIDI& EmptyState() {
    static const PersistentMIDI empty;
    return empty;
}

// The first event at or after `tick` in a vector sorted by time.
std::size_t FirstEventAtOrAfter(const std::vector<VoiceEvent>& events, unsigned int tick) {
    auto it = std::lower_bound(events.begin(), events.end(), tick,
                               [](const VoiceEvent& e, unsigned int t) { return e.time < t; });
    return static_cast<std::size_t>(it - events.begin());
}

// Adds events from index `from` while their time is before `tick`; returns the index reached.
std::size_t AddEventsBefore(PersistentMIDI& state, const std::vector<VoiceEvent>& events,
                            std::size_t from, unsigned int tick) {
    while (from < events.size() && events[from].time < tick) {
        state.AddEvent(events[from]);
        ++from;
    }
    return from;
}

// What sounds on both sides of a jump and so is neither released nor struck again: the notes held
// on both sides that sound at the same pitch under the old and the new transposition, and the
// switches held on both sides; with the new state's controllers, which are not reset either. A
// held note whose pitch moves is released at the old pitch and struck at the new one.
PersistentMIDI StayingAcross(const PersistentMIDI& before, const PersistentMIDI& now,
                             signed char oldTransposition, signed char newTransposition) {
    PersistentMIDI staying(now.GetRange());
    for (const auto& [key, on] : now.GetNotes()) {
        if (before.GetNotes().count(key) != 0 && before.GetTransposedNote(key, oldTransposition) ==
                                                     now.GetTransposedNote(key, newTransposition)) {
            staying.GetNotes().emplace(key, on);
        }
    }
    for (const auto& [key, on] : now.GetSwitches()) {
        if (before.GetSwitches().count(key) != 0) {
            staying.GetSwitches().emplace(key, on);
        }
    }
    staying.GetCCs() = now.GetCCs();
    return staying;
}

// The tick of every bar start after the first (which begins at tick 0): the bar list holds a
// record per beat or per bar, and beat 1 marks a bar's first beat.
std::vector<unsigned int> LaterBarStarts(const TL::Timeline& timeline) {
    std::vector<unsigned int> starts;
    for (const auto& record : timeline.GetBarsBeats()) {
        if (record.beat == 1 && record.tick_index > 0 &&
            (starts.empty() || record.tick_index > starts.back())) {
            starts.push_back(record.tick_index);
        }
    }
    return starts;
}
}  // namespace

// ---------------------------------------------------------------------------------------------
// MidiScaler, MidiVolumeScaler

namespace {
constexpr unsigned short kMaxScale = 127;
constexpr unsigned char kMaxMidiValue = 127;
constexpr unsigned char kNominalVolume = 100;
}  // namespace

void MidiScaler::SetScale(unsigned char s) {
    scale_ = std::min<unsigned short>(s, kMaxScale);
}

unsigned char MidiScaler::GetScaledMidiValue(unsigned char value) const {
    return static_cast<unsigned char>(std::min<unsigned>(kMaxMidiValue, value * scale_ / 100u));
}

void MidiVolumeScaler::SetTrackTrim(unsigned short trackId, unsigned char trim) {
    std::scoped_lock lock(mutex_);
    recentlyAffectedTrackIds_.insert(trackId);
    trims_[trackId].SetScale(trim);
}

void MidiVolumeScaler::SetAllTracksTrim(const std::map<unsigned short, unsigned char>& trims) {
    std::scoped_lock lock(mutex_);
    for (const auto& [trackId, trim] : trims) {
        recentlyAffectedTrackIds_.insert(trackId);
        trims_[trackId].SetScale(trim);
    }
}

unsigned char MidiVolumeScaler::GetScale(unsigned short trackId) {
    std::scoped_lock lock(mutex_);
    return trims_[trackId].GetScale();
}

unsigned char MidiVolumeScaler::GetScaledMidiValue(unsigned short trackId, unsigned char value) {
    std::scoped_lock lock(mutex_);
    return trims_[trackId].GetScaledMidiValue(value);
}

bool MidiVolumeScaler::GetHasRecentlyAffectedTrackIds() {
    std::scoped_lock lock(mutex_);
    return !recentlyAffectedTrackIds_.empty();
}

std::set<unsigned short> MidiVolumeScaler::GetRecentlyAffectedTrackIds() {
    std::scoped_lock lock(mutex_);
    return std::exchange(recentlyAffectedTrackIds_, {});
}

// ---------------------------------------------------------------------------------------------
// MidiStream: construction and checkpoints

MidiStream::MidiStream(const velt_midi::SongData& songData) : song_(songData) {
    OwnTracks(song_);
}

MidiStream::MidiStream(const MidiStream& other) {
    CopyFrom_(other);
}

MidiStream& MidiStream::operator=(const MidiStream& other) {
    if (this != &other) {
        CopyFrom_(other);
    }
    return *this;
}

MidiStream::~MidiStream() = default;

void MidiStream::CopyFrom_(const MidiStream& other) {
    trackNames_ = other.trackNames_;
    defaultProgramChanges_ = other.defaultProgramChanges_;
    song_ = other.song_;
    OwnTracks(song_);
    eventIterators_ = other.eventIterators_;
    endIterators_ = other.endIterators_;
    currentTick_ = other.currentTick_;
    checkpoints_ = other.checkpoints_;
    persistence_ = other.persistence_;
    previousPersistence_ = other.previousPersistence_;
    persistenceBeforeSeekIsPrevious_ = other.persistenceBeforeSeekIsPrevious_;
    recordedNotWritten_ = other.recordedNotWritten_;
    std::scoped_lock lock(controlMutex_, other.controlMutex_);
    mutedTracks_ = other.mutedTracks_;
    currentProgramChanges_ = other.currentProgramChanges_;
    userProgramChanges_ = other.userProgramChanges_;
    resendProgramChanges_ = other.resendProgramChanges_;
    tracksToRestore_ = other.tracksToRestore_;
    notesToRelease_ = other.notesToRelease_;
    sendAllNotesOffForMutedTracks_ = other.sendAllNotesOffForMutedTracks_;
}

void MidiStream::ScaleVolumeCc(unsigned short, VoiceEvent*) {}

void MidiStream::SendPersistentVolumeForScaledTracks_(MidiBuffer&) {}

void MidiStream::SetPersistentTrackRange(PersistentMIDI& state, velt_midi::VoiceTrack& track) {
    state.SetRange(track.range);
}

// A checkpoint holds an entry only for the tracks that still had events at or after the previous
// bar: once a track's events are all consumed its state stops being copied bar after bar. A seek
// past a track's last checkpoint so starts that track from a fresh state.
void MidiStream::InitializePersistenceData() {
    checkpoints_.clear();
    checkpoints_[0];
    const std::vector<unsigned int> barStarts = LaterBarStarts(song_.GetTimeline());
    for (auto& [trackId, track] : song_.GetVoiceData()) {
        endIterators_[trackId] = track->events.size();
        SetPersistentTrackRange(checkpoints_[0][trackId], *track);
        if (track->events.empty()) {
            continue;
        }
        std::size_t next = 0;
        const PersistentMIDI* previous = &checkpoints_[0][trackId];
        for (unsigned int barStart : barStarts) {
            PersistentMIDI& state = checkpoints_[barStart][trackId];
            state = *previous;
            next = AddEventsBefore(state, track->events, next, barStart);
            if (next == track->events.size()) {
                break;
            }
            previous = &state;
        }
    }
    Seek(song_.GetSongStartTickIndex());
}

const MidiStream::EventVector& MidiStream::TrackEvents_(unsigned short trackId) const {
    return song_.GetVoiceData().at(trackId).events;
}

// Checkpoint 0 always exists, so there is always one at or before any tick.
std::map<unsigned int, MidiStream::TrackStates>::const_iterator MidiStream::CheckpointAt_(
    unsigned int tick) const {
    return std::prev(checkpoints_.upper_bound(tick));
}

// What sounds is the state of the last enqueue. A seek that has not been played yet sounded
// nothing, so a further seek keeps the state from before the first one.
void MidiStream::Seek(unsigned int tick) {
    const auto checkpoint = CheckpointAt_(tick);
    if (!persistenceBeforeSeekIsPrevious_) {
        previousPersistence_ = persistence_;
        persistenceBeforeSeekIsPrevious_ = true;
    }
    persistence_ = checkpoint->second;
    for (const auto& [trackId, track] : song_.GetVoiceData()) {
        const EventVector& events = track->events;
        std::size_t next = FirstEventAtOrAfter(events, checkpoint->first);
        if (next < events.size() && events[next].time < tick) {
            next = AddEventsBefore(persistence_[trackId], events, next, tick);
        }
        eventIterators_[trackId] = next;
    }
    recordedNotWritten_.clear();
    currentTick_ = tick;
}

PersistentMIDI MidiStream::RebuildTrackState_(unsigned short trackId, unsigned int tick) const {
    const auto checkpoint = CheckpointAt_(tick);
    PersistentMIDI state;
    const auto entry = checkpoint->second.find(trackId);
    if (entry != checkpoint->second.end()) {
        state = entry->second;
    }
    const EventVector& events = TrackEvents_(trackId);
    AddEventsBefore(state, events, FirstEventAtOrAfter(events, checkpoint->first), tick);
    return state;
}

// ---------------------------------------------------------------------------------------------
// MidiStream: enqueueing

bool MidiStream::WriteEvent(MidiBuffer& buffer, unsigned char port, const VoiceEvent& event,
                            const char* operation) {
    try {
        return buffer.AddEventToBuffer(port, event);
    } catch (const InvalidVoiceEvent&) {
        kit::CoutBuffer() << "InvalidVoiceEvent " << operation << kit::endl;
        return true;
    }
}

void MidiStream::EnqueueEvents(unsigned int tick, signed char transposition, MidiBuffer& buffer,
                               bool sendAllNotesOff) {
    std::scoped_lock lock(buffer.GetMutex(), controlMutex_);
    if (sendAllNotesOff) {
        buffer.SetShouldSendAllNotesOff();
    }
    SendPersistentVolumeForScaledTracks_(buffer);
    Enqueue_(tick, transposition, buffer);
}

void MidiStream::EnqueueEventsWithPersistence(unsigned int tick, signed char oldTransposition,
                                              signed char newTransposition, MidiBuffer& buffer,
                                              bool sendAllNotesOff) {
    std::scoped_lock lock(buffer.GetMutex(), controlMutex_);
    if (sendAllNotesOff) {
        buffer.SetShouldSendAllNotesOff();
    }
    // Releases first, for every track: what sounded before the jump and does not stay.
    TrackStates staying;
    for (const auto& [trackId, before] : previousPersistence_) {
        const auto now = persistence_.find(trackId);
        const PersistentMIDI& after = now == persistence_.end() ? EmptyState() : now->second;
        const PersistentMIDI& stays = staying[trackId] =
            StayingAcross(before, after, oldTransposition, newTransposition);
        WriteReleases_(trackId, before, stays, oldTransposition, buffer,
                       "MidiStream::EnqueueEventsWithPersistence");
    }
    // Then the new state less what stays. Controllers are all sent again, since their values
    // may differ.
    TrackStates rest = persistence_;
    for (auto& [trackId, state] : rest) {
        const auto stays = staying.find(trackId);
        if (stays != staying.end()) {
            state.FilterNotes(stays->second.GetNotes());
            state.FilterSwitches(stays->second.GetSwitches());
        }
    }
    SendPersistenceData_(std::move(rest), newTransposition, buffer, staying);
    Enqueue_(tick, newTransposition, buffer);
}

void MidiStream::EnqueueAttacca(unsigned int tick, signed char transposition, MidiBuffer& buffer) {
    EnqueueWithCurrentState_(tick, transposition, buffer);
}

void MidiStream::EnqueueInitialEvents(unsigned int tick, signed char transposition,
                                      MidiBuffer& buffer) {
    EnqueueWithCurrentState_(tick, transposition, buffer);
}

void MidiStream::EnqueueWithCurrentState_(unsigned int tick, signed char transposition,
                                          MidiBuffer& buffer) {
    std::scoped_lock lock(buffer.GetMutex(), controlMutex_);
    SendPersistenceData_(persistence_, transposition, buffer, {});
    Enqueue_(tick, transposition, buffer);
}

void MidiStream::AllNotesOff(signed char transposition, MidiBuffer& buffer) {
    std::scoped_lock lock(buffer.GetMutex());
    const TrackStates& sounding =
        persistenceBeforeSeekIsPrevious_ ? previousPersistence_ : persistence_;
    for (const auto& [trackId, state] : sounding) {
        WriteReleases_(trackId, state, EmptyState(), transposition, buffer,
                       "MidiStream::AllNotesOff");
    }
}

// Per track: note-offs of the notes (transposed as they were struck), of the switches
// (untransposed, as they were struck), then controllers back to 0. Full-buffer results are
// ignored: a release that does not fit is lost, as with every state write.
void MidiStream::WriteReleases_(unsigned short trackId, const PersistentMIDI& from,
                                const PersistentMIDI& to, signed char transposition,
                                MidiBuffer& buffer, const char* operation) {
    const unsigned char port = PortOf(trackId);
    for (const auto& [note, off] : from.GetInverseNotes(to.GetNotes())) {
        WriteEvent(buffer, port, from.GetTransposedEvent(off, transposition), operation);
    }
    for (const auto& [note, off] : from.GetInverseSwitches(to.GetSwitches())) {
        WriteEvent(buffer, port, off, operation);
    }
    for (const auto& [controller, zero] : from.GetInverseCCs(to.GetCCs())) {
        WriteEvent(buffer, port, zero, operation);
    }
}

// Silences the muted tracks when asked to: the channel-mode controllers first, then a note-off
// for each note the track still holds. Some synths ignore controller 123, and on a port whose
// messages all share one channel the controller cannot say which track it means; the chase state
// still can. The released notes leave the chase state, so a later stop does not release them
// again. Controllers are not zeroed one by one: on a shared channel that would reach the tracks
// still playing. Called with the buffer's mutex and the control mutex held.
void MidiStream::WriteMutedTrackReleases_(signed char transposition, MidiBuffer& buffer) {
    std::set<unsigned short> notesOf;
    notesOf.swap(notesToRelease_);
    if (std::exchange(sendAllNotesOffForMutedTracks_, false)) {
        notesOf.insert(mutedTracks_.begin(), mutedTracks_.end());
        for (unsigned short trackId : mutedTracks_) {
            const unsigned char port = PortOf(trackId);
            WriteEvent(buffer, port, VoiceEvent(0, kControlChange, trackId, kAllNotesOff, 0),
                       "MidiStream::Enqueue_");
            WriteEvent(buffer, port,
                       VoiceEvent(0, kControlChange, trackId, kResetAllControllers, 0),
                       "MidiStream::Enqueue_");
        }
    }
    for (unsigned short trackId : notesOf) {
        const auto held = persistence_.find(trackId);
        if (mutedTracks_.count(trackId) == 0 || held == persistence_.end()) {
            continue;
        }
        PersistentMIDI released = held->second;
        released.GetCCs().clear();
        WriteReleases_(trackId, released, EmptyState(), transposition, buffer,
                       "MidiStream::Enqueue_");
        held->second.GetNotes().clear();
        held->second.GetSwitches().clear();
    }
}

void MidiStream::ReleaseMutedTrackNotes(const std::set<unsigned short>& trackIds) {
    std::scoped_lock lock(controlMutex_);
    notesToRelease_.insert(trackIds.begin(), trackIds.end());
}

void MidiStream::RestoreTracks(const std::set<unsigned short>& trackIds) {
    std::scoped_lock lock(controlMutex_);
    for (unsigned short trackId : trackIds) {
        if (mutedTracks_.count(trackId) == 0) {
            tracksToRestore_.insert(trackId);
        }
    }
}

void MidiStream::SyncWithDevice(unsigned int tick, signed char transposition, MidiBuffer& scratch) {
    Seek(tick);
    bool releases = false;
    std::set<unsigned short> restores;
    std::set<unsigned short> notes;
    {
        std::scoped_lock lock(controlMutex_);
        releases = std::exchange(sendAllNotesOffForMutedTracks_, false);
        restores.swap(tracksToRestore_);
        notes.swap(notesToRelease_);
    }
    EnqueueEventsWithPersistence(tick, transposition, transposition, scratch, false);
    std::scoped_lock lock(controlMutex_);
    sendAllNotesOffForMutedTracks_ = sendAllNotesOffForMutedTracks_ || releases;
    tracksToRestore_.insert(restores.begin(), restores.end());
    notesToRelease_.insert(notes.begin(), notes.end());
}

void MidiStream::EnqueueMutedTrackReleases(signed char transposition, MidiBuffer& buffer) {
    std::scoped_lock lock(buffer.GetMutex(), controlMutex_);
    WriteMutedTrackReleases_(transposition, buffer);
}

void MidiStream::Enqueue_(unsigned int tick, signed char transposition, MidiBuffer& buffer) {
    // 1. The muted tracks' releases, when asked for.
    WriteMutedTrackReleases_(transposition, buffer);
    // 2. Tracks unmuted since the last period get their state at the current tick.
    RestoreUnmutedTracks_(transposition, buffer);
    // 3. The period's events, track by track.
    for (auto& [trackId, next] : eventIterators_) {
        const EventVector& events = TrackEvents_(trackId);
        if (next == endIterators_[trackId]) {
            continue;
        }
        if (mutedTracks_.count(trackId) != 0) {
            // Skipped for good: unmuting restores the track's state instead.
            recordedNotWritten_.erase(trackId);
            while (next < events.size() && events[next].time < tick) {
                ++next;
            }
            continue;
        }
        const unsigned char port = PortOf(trackId);
        if (buffer.GetBufferIsFull(port)) {
            break;  // the remaining tracks wait for the next period
        }
        PersistentMIDI& state = persistence_[trackId];
        bool recorded = recordedNotWritten_.erase(trackId) != 0;
        while (next < events.size() && events[next].time < tick) {
            const VoiceEvent& event = events[next];
            // A pitch that sounds already is released first; an event tried before has had its
            // release written then, and is in the chase state without sounding.
            if (const auto off =
                    recorded ? std::nullopt : state.GetReleaseBeforeStrike(event, transposition);
                off && !WriteEvent(buffer, port, *off, "MidiStream::Enqueue_")) {
                break;
            }
            recorded = false;
            VoiceEvent result = state.AddEvent(event, transposition);
            if (KindOf(event.status) == kProgramChange) {
                currentProgramChanges_[trackId] = event.data1;
                if (userProgramChanges_.count(trackId) != 0) {
                    ++next;
                    continue;
                }
            }
            ScaleVolumeCc(trackId, &result);
            // On a full port the event stays next and is written again in the next period; its
            // effect on the chase state is already recorded.
            if (!WriteEvent(buffer, port, result, "MidiStream::Enqueue_")) {
                recordedNotWritten_.insert(trackId);
                break;
            }
            ++next;
        }
    }
    // 4. A pending return to the song's own program changes.
    if (std::exchange(resendProgramChanges_, false)) {
        SendPersistentProgramChanges(persistence_, buffer);
    }
    // 5.
    currentTick_ = tick;
    buffer.DoneAddingEventsToBuffer();
    persistenceBeforeSeekIsPrevious_ = false;
}

// A restored state rebuilt from the checkpoint table also becomes the track's chase state: while
// muted the track added nothing to it, and the releases of a later seek or stop must know what
// the restore struck. Past the end of its table a track's rebuilt state is empty and strikes
// nothing; its chase state is then kept, so that the controllers it knows are still released.
// What the chase state holds may still sound (a track unmuted before the period that would have
// sent its notes off): a pitch it holds is released before the restore strikes it again.
void MidiStream::RestoreUnmutedTracks_(signed char transposition, MidiBuffer& buffer) {
    if (tracksToRestore_.empty()) {
        return;
    }
    TrackStates restored;
    for (unsigned short trackId : tracksToRestore_) {
        if (song_.GetVoiceData().contains(trackId)) {
            restored[trackId] = RebuildTrackState_(trackId, currentTick_);
        }
    }
    tracksToRestore_.clear();
    SendPersistenceData_(restored, transposition, buffer, persistence_);
    const TrackStates& table = CheckpointAt_(currentTick_)->second;
    for (auto& [trackId, state] : restored) {
        if (table.count(trackId) != 0) {
            persistence_[trackId] = std::move(state);
        }
    }
}

// Per track, skipping muted ones: switches, controllers, pitch bend, program change, held notes.
// That order lets an instrument select the articulation and set its controllers before the
// notes sound. A strike on a pitch that already sounds (in `sounding`, or struck earlier here) is
// preceded by its release. Full-buffer results are ignored.
void MidiStream::SendPersistenceData_(TrackStates state, signed char transposition,
                                      MidiBuffer& buffer, const TrackStates& sounding) {
    constexpr const char* kOperation = "MidiStream::SendPersistenceData_";
    for (auto& [trackId, track] : state) {
        if (mutedTracks_.count(trackId) != 0) {
            continue;
        }
        const unsigned char port = PortOf(trackId);
        const auto already = sounding.find(trackId);
        PersistentMIDI struck =
            already != sounding.end() ? already->second : PersistentMIDI(track.GetRange());
        const auto strike = [&](const VoiceEvent& on) {
            if (const auto off = struck.GetReleaseBeforeStrike(on, transposition)) {
                WriteEvent(buffer, port, *off, kOperation);
            }
            WriteEvent(buffer, port, struck.AddEvent(on, transposition), kOperation);
        };
        for (const auto& [note, on] : track.GetSwitches()) {
            strike(on);
        }
        for (const auto& [controller, cc] : track.GetCCs()) {
            VoiceEvent scaled = cc;
            ScaleVolumeCc(trackId, &scaled);
            WriteEvent(buffer, port, scaled, kOperation);
        }
        WriteEvent(buffer, port,
                   track.GetHasPitchBend()
                       ? track.GetPitchBend()
                       : VoiceEvent(0, kPitchBend, trackId, 0, kPitchBendCentreMsb),
                   kOperation);
        if (track.HasProgramChange() && userProgramChanges_.count(trackId) == 0) {
            WriteEvent(buffer, port, track.GetProgramChange(), kOperation);
            currentProgramChanges_[trackId] = track.GetProgramChange().data1;
        }
        for (const auto& [note, on] : track.GetNotes()) {
            strike(on);
        }
    }
}

void MidiStream::SendPersistentProgramChanges(TrackStates state, MidiBuffer& buffer) {
    for (const auto& [trackId, track] : state) {
        if (track.HasProgramChange() &&
            !WriteEvent(buffer, PortOf(trackId), track.GetProgramChange(),
                        "MidiStream::SendPersistentProgramChanges")) {
            return;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// MidiStream: program changes and mutes (control side)

void MidiStream::FollowMidiProgramChanges() {
    std::scoped_lock lock(controlMutex_);
    userProgramChanges_.clear();
    resendProgramChanges_ = true;
}

void MidiStream::SetUserProgramChange(unsigned short trackId, unsigned char program) {
    std::scoped_lock lock(controlMutex_);
    userProgramChanges_[trackId] = program;
}

void MidiStream::SetUserProgramChanges(const ProgramMap& programs) {
    std::scoped_lock lock(controlMutex_);
    userProgramChanges_ = programs;
}

void MidiStream::ResetProgramChanges() {
    std::scoped_lock lock(controlMutex_);
    userProgramChanges_.clear();
    resendProgramChanges_ = false;
    currentProgramChanges_ = defaultProgramChanges_;
}

MidiStream::ProgramMap MidiStream::GetCurrentProgramChangesByTrackId() const {
    std::scoped_lock lock(controlMutex_);
    return currentProgramChanges_;
}

std::map<unsigned short, std::string> MidiStream::GetTrackNamesByTrackId() const {
    return trackNames_;
}

void MidiStream::MuteTrack(unsigned short trackId) {
    std::scoped_lock lock(controlMutex_);
    mutedTracks_.insert(trackId);
}

void MidiStream::UnmuteTrack(unsigned short trackId) {
    std::scoped_lock lock(controlMutex_);
    if (mutedTracks_.erase(trackId) != 0) {
        tracksToRestore_.insert(trackId);
    }
}

void MidiStream::UnmuteAll() {
    std::scoped_lock lock(controlMutex_);
    mutedTracks_.clear();
}

void MidiStream::SetMutedTracks(const std::map<unsigned short, bool>& mutes) {
    for (const auto& [trackId, muted] : mutes) {
        if (muted) {
            MuteTrack(trackId);
        } else {
            UnmuteTrack(trackId);
        }
    }
}

void MidiStream::SetMutedTracks(const std::set<unsigned short>& mutedTracks) {
    std::scoped_lock lock(controlMutex_);
    mutedTracks_ = mutedTracks;
    tracksToRestore_.clear();
}

void MidiStream::ResetMuteSettings() {
    std::scoped_lock lock(controlMutex_);
    mutedTracks_.clear();
    tracksToRestore_.clear();
}

void MidiStream::SendAllNotesOffForMutedTracks() {
    std::scoped_lock lock(controlMutex_);
    sendAllNotesOffForMutedTracks_ = true;
}

std::set<unsigned short> MidiStream::GetMutedTracks() const {
    std::scoped_lock lock(controlMutex_);
    return mutedTracks_;
}

// ---------------------------------------------------------------------------------------------
// Variants

TamberMidiStream::TamberMidiStream(const velt_midi::SongData& songData) : MidiStream(songData) {
    for (const auto& [trackId, track] : GetSong().GetVoiceData()) {
        trackNames_[trackId] = track->GetTrackName();
        defaultProgramChanges_[trackId] = track->GetDefaultProgramChange();
    }
    ResetProgramChanges();
    InitializePersistenceData();
}

void TamberMidiStream::SetPersistentTrackRange(PersistentMIDI& state,
                                               velt_midi::VoiceTrack& track) {
    constexpr unsigned char kPercussionChannel = 9;
    state.SetRange(track.channelIndex == kPercussionChannel ? PersistentMIDI::Range{255, 255}
                                                            : PersistentMIDI::Range{0, 127});
}

ParvelMidiStream::ParvelMidiStream(const velt_midi::SongData& songData,
                                   MidiVolumeScaler& volumeScaler)
    : MidiStream(songData), volumeScaler_(&volumeScaler) {
    for (const auto& [trackId, track] : GetSong().GetVoiceData()) {
        trackNames_[trackId] = track->GetTrackName();
    }
    InitializePersistenceData();
}

void ParvelMidiStream::ScaleVolumeCc(unsigned short trackId, VoiceEvent* event) {
    if (KindOf(event->status) == kControlChange && event->data1 == kChannelVolume) {
        event->data2 = volumeScaler_->GetScaledMidiValue(trackId, event->data2);
    }
}

// A track whose song state has no volume controller gets its trim applied to a nominal volume.
void ParvelMidiStream::SendPersistentVolumeForScaledTracks_(MidiBuffer& buffer) {
    if (!volumeScaler_->GetHasRecentlyAffectedTrackIds()) {
        return;
    }
    for (unsigned short trackId : volumeScaler_->GetRecentlyAffectedTrackIds()) {
        const unsigned char port = PortOf(trackId);
        const auto state = GetPersistence().find(trackId);
        VoiceEvent volume;
        if (state != GetPersistence().end() && state->second.GetCCs().count(kChannelVolume) != 0) {
            volume = state->second.GetCCs().at(kChannelVolume);
            ScaleVolumeCc(trackId, &volume);
        } else {
            volume = VoiceEvent(0, kControlChange, trackId, kChannelVolume,
                                volumeScaler_->GetScaledMidiValue(trackId, kNominalVolume));
        }
        WriteEvent(buffer, port, volume, "ParvelMidiStream::SendPersistentVolumeForScaledTracks_");
    }
}
