// MidiStream: turns the voice tracks of one song into timed events written into a MidiBuffer,
// one output period at a time, with chase of notes, keyswitches, controllers, pitch bend and
// program changes after a seek, a segue or a stop. Also the two stream variants and the volume
// scaling of the per-track trims.
#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "interfaces/song_data.h"
#include "midi/midi_buffer.h"
#include "midi/persistent_midi.h"

/// A percentage applied to a MIDI value, at most 127 (a track can be raised by 27 per cent).
class MidiScaler {
  public:
    MidiScaler() = default;
    /// Stores `s`, limited to 127.
    void SetScale(unsigned char s);
    unsigned char GetScale() const { return static_cast<unsigned char>(scale_); }
    /// min(127, value * scale / 100), truncating.
    unsigned char GetScaledMidiValue(unsigned char value) const;

  private:
    unsigned short scale_ = 100;
};

/// The volume trims of a show's tracks, shared by all its streams.
///
/// Threads: trims are set on the control side and read inside enqueue operations on the output
/// side. Locks: its own mutex for the whole of every operation; it calls out to nothing.
class MidiVolumeScaler {
  public:
    /// Sets the track's trim (limited to 127) and marks the track as recently affected.
    void SetTrackTrim(unsigned short trackId, unsigned char trim);
    void SetAllTracksTrim(const std::map<unsigned short, unsigned char>& trims);
    /// The track's scale; a track never trimmed reads 100 (an entry is created).
    unsigned char GetScale(unsigned short trackId);
    unsigned char GetScaledMidiValue(unsigned short trackId, unsigned char value);
    bool GetHasRecentlyAffectedTrackIds();
    /// The tracks whose trim changed since the last call; the set is emptied.
    std::set<unsigned short> GetRecentlyAffectedTrackIds();

  private:
    std::mutex mutex_;
    std::map<unsigned short, MidiScaler> trims_;
    std::set<unsigned short> recentlyAffectedTrackIds_;
};

/// The event stream of one song. Owns a private deep copy of the song's data.
///
/// Track id: port index = id >> 4, MIDI channel = id & 0x0F; every event of a track goes to that
/// port.
///
/// A note-on for a pitch that already sounds on the track's channel (the same key struck again,
/// or two keys an octave apart that transposition and range correction fold onto one pitch) is
/// preceded by a note-off for that pitch, whether it comes from the song or from a restored
/// state: a synth that gives every note-on a voice of its own never holds more voices of a pitch
/// than the chase state will release.
///
/// Threads: enqueue operations run on the output's fill callback (queue thread) or on a thread
/// that seeks; mute and program-change operations come from the control side. Seek takes no lock:
/// its callers serialise it with the output.
/// Locks, in this order: the target buffer's mutex (held for the whole of each enqueue operation
/// and AllNotesOff), then the stream's control mutex (guarding the mute and program-change
/// members, which the control side writes), then, in the Parvel variant, the volume scaler's
/// mutex. No host callback runs under them.
class MidiStream {
  public:
    using TrackStates = std::map<unsigned short, PersistentMIDI>;
    using ProgramMap = std::map<unsigned short, unsigned char>;

    /// Copies the song and creates empty maps. The chase checkpoints are built by the variants'
    /// constructors (InitializePersistenceData), so that their range rule is the one used.
    explicit MidiStream(const velt_midi::SongData& songData);
    MidiStream(const MidiStream& other);
    MidiStream& operator=(const MidiStream& other);
    virtual ~MidiStream();

    /// Passes a channel-volume event through the track's trim; nothing in the base stream.
    virtual void ScaleVolumeCc(unsigned short trackId, velt_midi::VoiceEvent* event);

  private:
    /// Called at the start of each EnqueueEvents; nothing in the base stream.
    virtual void SendPersistentVolumeForScaledTracks_(MidiBuffer& buffer);

  public:
    /// Sets the chase state's range from the track's own range pair.
    virtual void SetPersistentTrackRange(PersistentMIDI& state, velt_midi::VoiceTrack& track);

    /// Positions the stream at `tick`: the chase state there is rebuilt from the nearest
    /// checkpoint at or before it, and the state that was sounding is kept for the next
    /// EnqueueEventsWithPersistence or AllNotesOff. Seeks without an enqueue between them keep
    /// the state from before the first: the positions in between never sounded. Writes nothing.
    void Seek(unsigned int tick);
    /// One period: events before `tick` (exclusive). Under the buffer lock.
    void EnqueueEvents(unsigned int tick, signed char transposition, MidiBuffer& buffer,
                       bool sendAllNotesOff);
    /// The first period after a seek: releases what sounded before and must not sound now (notes
    /// with `oldTransposition`, as they were struck), keeps what sounds on both sides at the same
    /// pitch, sends the rest of the new state with `newTransposition`, then the period's events.
    /// A note held on both sides whose pitch the two transpositions move is released at the old
    /// pitch and struck at the new one; a seek to the current tick so moves held notes to a new
    /// transposition (see UserControls::SetTransposition).
    void EnqueueEventsWithPersistence(unsigned int tick, signed char oldTransposition,
                                      signed char newTransposition, MidiBuffer& buffer,
                                      bool sendAllNotesOff);
    /// Entering this song by a segue: sends the chase state at the current position, then the
    /// events up to `tick`.
    void EnqueueAttacca(unsigned int tick, signed char transposition, MidiBuffer& buffer);
    /// The first period of a song that starts playing; the same as EnqueueAttacca.
    void EnqueueInitialEvents(unsigned int tick, signed char transposition, MidiBuffer& buffer);
    /// Releases everything held by the state that sounded last: note-offs for every note (notes
    /// transposed with `transposition`) and switch, value 0 for every controller ever seen.
    void AllNotesOff(signed char transposition, MidiBuffer& buffer);

    /// Drops the user's program overrides; the next period ends by sending every track's own
    /// last program change.
    void FollowMidiProgramChanges();
    void SetUserProgramChange(unsigned short trackId, unsigned char program);
    void SetUserProgramChanges(const ProgramMap& programs);
    /// Clears the overrides and a pending resend; current programs return to the defaults.
    void ResetProgramChanges();
    /// What each track was last set to (sent or overridden).
    ProgramMap GetCurrentProgramChangesByTrackId() const;
    std::map<unsigned short, std::string> GetTrackNamesByTrackId() const;

    void MuteTrack(unsigned short trackId);
    /// Unmuting a muted track restores its chase state at the next period; unmuting a track that
    /// was not muted does nothing. The restored state, rebuilt at the current tick, also becomes
    /// the track's chase state (within its checkpoint table): a muted track adds nothing to its
    /// chase state, so sending the rebuilt state from a temporary map alone would leave the
    /// notes it strikes unknown to the next stop or seek, and they would go on sounding (test
    /// MidiStreamMutes.AMutedTracksEventsAreSkippedAndUnmutingRestoresItsState).
    void UnmuteTrack(unsigned short trackId);
    /// Unmutes every track without restoring any: they sound again from their next events.
    void UnmuteAll();
    void SetMutedTracks(const std::map<unsigned short, bool>& mutes);
    /// Replaces the muted set; pending restores are dropped.
    void SetMutedTracks(const std::set<unsigned short>& mutedTracks);
    void ResetMuteSettings();
    /// At the next period, every muted track gets controllers 123 and 121 (value 0), and then a
    /// note-off for each note and switch its chase state still holds, which the state forgets.
    void SendAllNotesOffForMutedTracks();
    /// For a caller whose earlier periods were dropped unsent: at the next period, a note-off for
    /// each note and switch the chase state holds on these tracks (those still muted), without
    /// the channel-mode controllers, which would reach the tracks sharing their channel.
    void ReleaseMutedTrackNotes(const std::set<unsigned short>& trackIds);
    /// The same for an unmute whose restore was dropped unsent: these tracks (those not muted)
    /// get their state at the current tick at the next period.
    void RestoreTracks(const std::set<unsigned short>& trackIds);
    /// Seeks to `tick` and fills an empty first period from there into `scratch`, which is never
    /// sent: the chase state is then what a device holds that received everything before `tick`
    /// (the stream may have filled periods ahead that the device never got). A mute's releases
    /// and an unmute's restore still pending stay for the period that is sent.
    void SyncWithDevice(unsigned int tick, signed char transposition, MidiBuffer& scratch);
    /// Writes now what SendAllNotesOffForMutedTracks asked of the next period, for a caller whose
    /// next period is not coming soon (a chord held at a caesura); nothing if nothing was asked.
    void EnqueueMutedTrackReleases(signed char transposition, MidiBuffer& buffer);
    std::set<unsigned short> GetMutedTracks() const;

    /// The tick up to which events have been enqueued (exclusive).
    unsigned int GetCurrentTick() const { return currentTick_; }
    /// The chase state at the current tick, by track id.
    const TrackStates& GetPersistence() const { return persistence_; }
    /// The chase checkpoints: tick 0 and the bar starts, each with the tracks that still had
    /// events at or after the previous bar.
    const std::map<unsigned int, TrackStates>& GetCheckpoints() const { return checkpoints_; }

  protected:
    /// Builds the checkpoints and seeks to the song's start tick.
    void InitializePersistenceData();
    const velt_midi::SongData& GetSong() const { return song_; }
    /// Writes one event; an InvalidVoiceEvent is logged with `operation` and counts as written so
    /// that playback goes on. Returns false only when the port is full.
    static bool WriteEvent(MidiBuffer& buffer, unsigned char port,
                           const velt_midi::VoiceEvent& event, const char* operation);

    std::map<unsigned short, std::string> trackNames_;
    ProgramMap defaultProgramChanges_;

  private:
    using EventVector = std::vector<velt_midi::VoiceEvent>;

    // The caller holds the buffer mutex and the control mutex for all of these.
    void WriteMutedTrackReleases_(signed char transposition, MidiBuffer& buffer);
    void Enqueue_(unsigned int tick, signed char transposition, MidiBuffer& buffer);
    /// `sounding`: per track, what already sounds and is not struck again.
    void SendPersistenceData_(TrackStates state, signed char transposition, MidiBuffer& buffer,
                              const TrackStates& sounding);
    void SendPersistentProgramChanges(TrackStates state, MidiBuffer& buffer);
    void EnqueueWithCurrentState_(unsigned int tick, signed char transposition, MidiBuffer& buffer);
    void WriteReleases_(unsigned short trackId, const PersistentMIDI& from,
                        const PersistentMIDI& to, signed char transposition, MidiBuffer& buffer,
                        const char* operation);
    void RestoreUnmutedTracks_(signed char transposition, MidiBuffer& buffer);
    /// The chase state of one track at `tick`, rebuilt from the checkpoints and the events.
    PersistentMIDI RebuildTrackState_(unsigned short trackId, unsigned int tick) const;
    const EventVector& TrackEvents_(unsigned short trackId) const;
    std::map<unsigned int, TrackStates>::const_iterator CheckpointAt_(unsigned int tick) const;
    void CopyFrom_(const MidiStream& other);

    velt_midi::SongData song_;
    /// Per track, the index in its event vector of the next event to send.
    std::map<unsigned short, std::size_t> eventIterators_;
    /// Per track, the size of its event vector.
    std::map<unsigned short, std::size_t> endIterators_;
    unsigned int currentTick_ = 0;
    std::map<unsigned int, TrackStates> checkpoints_;
    TrackStates persistence_;
    TrackStates previousPersistence_;
    /// Which map holds the state that sounded last: previousPersistence_ after a seek until the
    /// next enqueue, persistence_ otherwise. A flag rather than a pointer so that copies of a
    /// stream designate their own maps.
    bool persistenceBeforeSeekIsPrevious_ = false;
    /// Tracks whose next event is already in the chase state: it did not fit into a full buffer.
    std::set<unsigned short> recordedNotWritten_;

    mutable std::mutex controlMutex_;
    std::set<unsigned short> mutedTracks_;
    ProgramMap currentProgramChanges_;
    ProgramMap userProgramChanges_;
    bool resendProgramChanges_ = false;
    std::set<unsigned short> tracksToRestore_;
    std::set<unsigned short> notesToRelease_;  // muted tracks whose notes go at the next period
    bool sendAllNotesOffForMutedTracks_ = false;
};

/// The stream of the Tamber show type: every track but the percussion channel is transposed over
/// the whole note range; the percussion channel is never transposed.
class TamberMidiStream : public MidiStream {
  public:
    /// Fills the track names and default programs (current programs start at the defaults), then
    /// builds the checkpoints.
    explicit TamberMidiStream(const velt_midi::SongData& songData);

    /// Channel index 9 (the percussion channel): no range, every note a switch. Any other
    /// channel: range (0, 127), every note transposed.
    void SetPersistentTrackRange(PersistentMIDI& state, velt_midi::VoiceTrack& track) override;
};

/// The stream of the Parvel show type: channel-volume events pass through the show's per-track
/// trims, and a trim change is sent at the next period.
class ParvelMidiStream : public MidiStream {
  public:
    /// Keeps the scaler (owned by the collection, which outlives the stream), fills the track
    /// names, then builds the checkpoints.
    ParvelMidiStream(const velt_midi::SongData& songData, MidiVolumeScaler& volumeScaler);

    /// Controller 7 (channel volume) gets the track's trim; every other event is left alone.
    void ScaleVolumeCc(unsigned short trackId, velt_midi::VoiceEvent* event) override;

  private:
    void SendPersistentVolumeForScaledTracks_(MidiBuffer& buffer) override;

    MidiVolumeScaler* volumeScaler_;
};
