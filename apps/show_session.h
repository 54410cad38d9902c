// The show session: the host side of the engine for one loaded show, built once and kept for the
// whole performance. It owns the clock, the playback position, the show's event streams and the
// platform output, wires their callbacks the way the engine expects of its host, and offers the
// performer's transport as verbs (play, stop, resume, songs, markers, bars, tempo, key, mutes,
// trims, device, display delay). The terminal player, the tests and any later user interface
// drive the same verbs.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "apps/device_return_watch.h"
#include "apps/task_thread.h"
#include "interfaces/song_data.h"
#include "midi/how_to_play.h"
#include "midi/midi_stream_collection.h"
#include "midi/user_controls.h"
#include "midi/win32/midi_output_win32.h"

class ConductedMidiClock;
class StandardMidiClock;

namespace velt_play {

/// `conducted`: the clock follows the performer's beats (ConductBeat).
enum class ClockKind { precision, standard, conducted };
/// How the output times the events of a clock period: `exact` plays each at its own offset
/// inside the period, `clock` plays them all at the period's start.
enum class TimingKind { exact, clock };

/// Where the session stands. `cued`: a song is selected and positioned, nothing plays.
/// `caesura`: stopped at a caesura of the score, Resume plays on. `stopped`: stopped by the
/// performer mid-song, Resume plays on from there. `ended`: the song played to its end.
enum class PlayState { cued, playing, caesura, stopped, ended };

const char* ToString(PlayState state);

/// One song of the show as the session offers it.
struct SessionSong {
    std::string name;
    std::shared_ptr<velt_midi::SongData> song;  // null when the song cannot be played
    std::string error;                          // why it cannot, when it cannot
};

/// A snapshot of what the performer sees.
struct SessionStatus {
    int songNumber = 0;  // 1-based; 0 before a song is selected
    std::string songName;
    PlayState state = PlayState::cued;
    std::uint32_t tick = 0;  // the position shown (the last downbeat heard, or the cue)
    int bar = 0;
    int beat = 0;
    double tempo = 0;       // quarter notes per minute as heard, tempo scale included
    double tempoScale = 1;  // the performer's scale
    int transposition = 0;  // the performer's, in semitones
    std::string key;
    std::string marker;
    int page = 0;
    int clicksToEnd = 0;
    std::set<unsigned short> mutedTracks;
    std::string device;
    bool deviceLost = false;
    double displayDelay = 0;  // seconds
    /// Quarter notes per minute the conductor beats (a conducted clock); 0 before an interval.
    double followedTempo = 0;
    /// The song's end runs straight into the next song (SetAttacca).
    bool attacca = false;
};

struct SessionOptions {
    ClockKind clock = ClockKind::precision;
    /// The output device's product name ("" = device 0, as listed when the session starts).
    std::string device;
    /// Empty: exact with the precision clock, clock timing with the standard clock.
    std::optional<TimingKind> timing;
};

/// What equipment that follows the show is told (beat clock, time code). Each may be empty.
/// `located`: the song and tick playback is positioned at (a cue, or the start of a run), host
/// thread. `starting`: a run is about to start at the tick (before its first clock), host
/// thread. `periodSent`: the clock period starting at the tick, of `clockTime` seconds, has
/// been sent (clock thread). `stopped`: a run ended (host thread for a stop or a jump, the
/// output's stopped thread at the song's end, a caesura or a limit). Called with no lock of the
/// session held, except `periodSent`, under the client mutex of the send step.
struct TransportHooks {
    std::function<void(const velt_midi::SongData& song, std::uint32_t tick)> located;
    std::function<void(std::uint32_t tick)> starting;
    std::function<void(std::uint32_t tick, double clockTime)> periodSent;
    std::function<void()> stopped;
};

/// Threads that enter: the host's thread (every verb and query), the output's queue thread (the
/// fill callback), the clock's thread (the caesura check after each sent period), the output's
/// async-stopped thread (the stopped callback), the display thread (the downbeat callback,
/// which updates the status and calls the status listener), the clock's thread again for the
/// device-lost notification (which only hands the name to the device watch), and the device
/// watch's thread, which re-opens a returned device as a verb does, under the transport mutex,
/// and the segue thread, which starts the next song after an attacca as the verbs do.
///
/// Locks, in order: the transport mutex (each verb whole; never taken by the engine's threads),
/// then the client mutex handed to the output (the whole send step; verbs take it to change
/// devices and to inject), then the output's own locks, then the position mutex (the position
/// and the current stream: the fill and the verbs that move them), then the sent-notes mutex and
/// the status mutex, each around its own data only. No lock of the session is held while a
/// listener runs.
///
/// What the device holds: every filled period's note messages are remembered by tick; the
/// caesura check, told the tick of each period as it is sent, applies them to the voices
/// sounding at the device. A stop mid-song sends a note-off for each voice (some synths ignore
/// controller 123), then the controller resets. A mute is the stream's to release: it knows
/// which track holds which note, where the device may hear several tracks on one channel.
class ShowSession {
  public:
    /// Called with a fresh status after each downbeat heard (display thread) and after each verb
    /// (host thread). Must not call verbs.
    using StatusListener = std::function<void(const SessionStatus&)>;

    /// Builds everything and opens the output device (MidiDeviceUnavailable when it cannot be
    /// opened). Selects the first playable song. Throws std::invalid_argument for a show without
    /// a playable song.
    ShowSession(std::vector<SessionSong> songs, std::shared_ptr<pv::ParvelShowData> show,
                SessionOptions options);
    ShowSession(const ShowSession&) = delete;
    ShowSession& operator=(const ShowSession&) = delete;
    /// Stops as Stop does, then ends the engine's threads and closes the device.
    ~ShowSession();

    void SetStatusListener(StatusListener listener);
    /// Sets the sync hooks; call before the first verb that plays.
    void SetTransportHooks(TransportHooks hooks) { hooks_ = std::move(hooks); }

    // Transport. Each verb returns once the engine has taken it in.

    /// Selects song `number` (1-based) and cues it at its start; a song playing is stopped first.
    /// Throws std::out_of_range for no such song, std::runtime_error for one that cannot play.
    void SelectSong(int number);
    void NextSong();
    void PreviousSong();
    /// Plays from the cue (the song's start, a bar or marker sought while not playing); from
    /// where it stood after a stop or caesura (as Resume); from the start again after the end.
    void Play();
    /// Plays as Play does, and stops where bar `bar` ends, before anything of the next bar
    /// sounds, as Stop does (the state is then `stopped`); a last bar plays to the song's end.
    /// The limit holds across jumps and caesuras until it is reached, the performer stops or
    /// another song is selected. Throws std::out_of_range for a bar the song does not have.
    void PlayUntilBar(int bar);
    /// Stops where it is: nothing more is sent, every note sounding at the device gets its
    /// note-off, then every channel gets controllers 123 and 121.
    void Stop();
    /// Plays on after a caesura or a stop, with the notes that sound there chased.
    void Resume();
    /// On: when the song playing reaches its end, the next playable song of the show starts at
    /// once from its beginning, as Play would start it, without waiting for the performer. It
    /// is used up by that end (the last song ends as usual); a stop, a caesura or a limit
    /// leaves it set. Turning it off withdraws it; a Stop between the end and the next song's
    /// start calls that start off.
    void SetAttacca(bool on);
    /// A beat of the performer conducting (conducted clock only, else std::logic_error): the
    /// start of the next click. When not playing it plays as Play does, and the beat starts the
    /// music; until then the clock waits.
    void ConductBeat();
    /// Moves to bar `bar` (from 1): while playing, playback jumps there and goes on with what
    /// sounds there chased; otherwise it is cued there. Throws std::out_of_range.
    void SeekToBar(int bar);
    /// To the next (previous) marker after (before) the position; false when there is none.
    bool NextMarker();
    bool PreviousMarker();

    // Live adjustments.

    /// The performer's tempo scale; it reaches the running clock within one clock. Values
    /// outside 0.5..2.0 are refused with std::out_of_range.
    void SetTempoScale(double scale);
    /// Transposition in semitones (-24..24, else std::out_of_range). Notes sounding are
    /// released at their old pitch and struck again at the new one.
    void SetTransposition(int semitones);
    /// Mutes a track (its notes are released at once) or unmutes it (what it holds there sounds
    /// again). Throws std::out_of_range for a track the show does not have.
    void MuteTrack(unsigned short trackId);
    void UnmuteTrack(unsigned short trackId);
    void MuteGroup(unsigned char group);
    void UnmuteGroup(unsigned char group);
    /// A track's volume trim, 0..127 (127 = as written): its volume controller is scaled.
    void SetTrackTrim(unsigned short trackId, unsigned char trim);
    /// Moves playback to the output device with this product name (exact); it goes on there.
    /// Throws MidiDeviceUnavailable. A device that goes away is awaited by its name, never
    /// replaced by whatever is listed first: when it is listed again the session opens it and
    /// plays on there, with what sounds at that point struck again (the status shows
    /// deviceLost meanwhile). Choosing a device ends that wait. A device chosen while playing
    /// has what sounds struck, whether the one it replaces was lost, answering or stuck: the
    /// run stops (which waits for no more than the send step under way) and starts again there.
    void ChooseDevice(const std::string& deviceName);
    void IncreaseDisplayDelay();
    void DecreaseDisplayDelay();

    // Queries.

    SessionStatus Status();
    const std::vector<SessionSong>& Songs() const { return songs_; }
    /// Track id to name, for every track of the show's songs.
    std::map<unsigned short, std::string> Tracks() const;
    /// Blocks until playback is not playing any more (a caesura, a stop or the end), or the
    /// timeout passes; true when it is not playing.
    bool WaitUntilNotPlaying(std::chrono::milliseconds timeout);
    MidiOutputWin32& Output() { return *output_; }

  private:
    // How the first period of a run is filled: `strike` when the device holds nothing of the
    // song (a start, a cue, after a stop), `chase` when it holds what sounded where playback was
    // (a jump while playing, a caesura).
    enum class FirstFill { none, strike, chase };
    // A note message of a filled period. Controller 123 is not one: some synths ignore it.
    enum class NoteChange { on, off };
    // A note at the device: port << 16 | status channel << 8 | key.
    using NoteKey = std::uint32_t;

    // The engine's callbacks.
    void Fill_(MidiBuffer& buffer);
    bool PeriodSent_(unsigned int tick);
    void Stopped_();
    void Downbeat_(unsigned int tick);

    void Cue_(std::uint32_t tick);
    void MoveTo_(std::uint32_t tick);
    void Play_();
    void Start_(std::uint32_t tick);
    bool Halt_(PlayState why);
    void SyncStreamWithDevice_();
    // Note-offs for every note the device holds; then controllers 123 and 121 when `resets`.
    void ReleaseSoundingNotes_(bool resets);
    void ShowStoppedAt_(std::uint32_t end);
    void ShowEnded_();
    void RecordFilledNotes_(std::uint32_t tick, MidiBuffer& buffer);
    // The note messages of a filled buffer, port by port, as the device will receive them.
    std::vector<std::pair<NoteKey, NoteChange>> NoteChangesIn_(MidiBuffer& buffer) const;
    // At a caesura: a mute's releases sent at once rather than with the next period.
    void ReleaseMutedTracksNow_();
    // The mutes and unmutes that rode on periods dropped unsent, asked of the stream again.
    // Returns whether any mute was among them.
    bool AskAgainForDroppedControls_();
    // What a period's note messages leave of `voices`: each note-on adds a voice, each
    // note-off takes one away.
    static void ApplyNoteChanges_(const std::vector<std::pair<NoteKey, NoteChange>>& changes,
                                  std::map<NoteKey, int>& voices);
    void RequireTrack_(unsigned short trackId) const;
    void RequireGroup_(unsigned char group) const;
    void ChangeStreams_(const std::function<void()>& change);
    std::uint32_t ResumeTick_();
    PlayState State_();
    void SetState_(PlayState state);
    void Publish_();
    bool ReopenDevice_(const std::string& deviceName);
    void ChangeDevice_(const std::string& deviceName);
    void SelectSong_(int number);
    std::optional<int> NextPlayableSong_(int after) const;
    void Segue_(int ended, std::uint64_t stops);
    const velt_midi::SongData& Song_() const;

    std::vector<SessionSong> songs_;
    std::shared_ptr<pv::ParvelShowData> show_;
    SessionOptions options_;
    unsigned char portCount_ = 1;

    std::mutex transportMutex_;
    std::recursive_mutex clientMutex_;
    bool reopenFailureLogged_ = false;  // guarded by transportMutex_

    UserControls controls_;
    std::unique_ptr<StandardMidiClock> clock_;
    ConductedMidiClock* conducted_ = nullptr;  // clock_, when it is conducted
    std::function<bool(std::chrono::milliseconds)> waitForClockStop_;

    // Guarded by positionMutex_.
    std::mutex positionMutex_;
    std::unique_ptr<HowToPlayWithMidiClock> position_;
    std::unique_ptr<ParvelMidiStreamCollection> streams_;
    MidiStream* stream_ = nullptr;
    std::unique_ptr<MidiBuffer> scratch_;  // never sent; see SyncStreamWithDevice_
    int songIndex_ = -1;
    // Tracks muted or unmuted since the last fill: the next period filled carries their releases
    // or restores (see filledControls_).
    std::set<unsigned short> mutedSinceFill_;
    std::set<unsigned short> unmutedSinceFill_;
    std::uint32_t ticksPerClock_ = 1;
    std::uint32_t nextTick_ = 0;
    std::uint32_t resumeTick_ = 0;  // where Play or Resume starts when not playing
    FirstFill firstFill_ = FirstFill::strike;

    // Guarded by sentMutex_.
    std::mutex sentMutex_;
    std::map<std::uint32_t, std::vector<std::pair<NoteKey, NoteChange>>> filledNotes_;
    // The mutes and unmutes a filled period carries, by its tick, until it is sent. A run that
    // ends drops the periods filled ahead; what they carried is asked of the stream again.
    struct TrackControls {
        std::set<unsigned short> muted;
        std::set<unsigned short> unmuted;
    };
    std::map<std::uint32_t, TrackControls> filledControls_;
    // Voices per note as the device holds them: on the later ports every track shares one
    // channel, so two tracks may hold the same key.
    std::map<NoteKey, int> sounding_;
    std::set<std::uint32_t> caesuras_;
    std::uint32_t ticksPerClockSent_ = 1;
    std::uint32_t lastSentEnd_ = 0;  // the end of the last period sent
    bool caesuraReached_ = false;
    std::optional<std::uint32_t> stopBefore_;  // PlayUntilBar's limit: nothing from here sounds
    bool stopBeforeReached_ = false;

    // Guarded by statusMutex_.
    std::mutex statusMutex_;
    std::condition_variable stateChanged_;
    PlayState state_ = PlayState::cued;
    // The song the status shows: switched with the state, so no one sees the new song in the
    // old song's state (a next song "ended" before it has played).
    int shownSongIndex_ = -1;
    std::uint32_t shownTick_ = 0;
    std::uint32_t ticksPerClockShown_ = 1;
    std::unique_ptr<HowToPlay> display_;  // a position of its own, at the tick shown
    StatusListener listener_;

    TransportHooks hooks_;  // set before playing, then only read
    std::unique_ptr<MidiOutputWin32> output_;
    std::unique_ptr<DeviceReturnWatch> deviceWatch_;
    std::atomic<bool> attacca_{false};
    std::atomic<std::uint64_t> stops_{0};  // Stop calls: one between an end and its segue wins
    std::unique_ptr<TaskThread> segue_;    // runs the attacca's verbs; destroyed first
};

}  // namespace velt_play
