// The streams of a show: one MidiStream per song, built on a background thread as soon as the show
// is given, so that the first song can play before the last one is ready.
#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "interfaces/song_data.h"
#include "midi/midi_stream.h"

/// Owns the streams of a show, keyed by song name, remembers which one is current and forwards
/// the track-mute operations to it. Song names are the keys: a later song of a name already built
/// is warned about and gets no stream of its own (a stream handed out stays valid), so a host
/// gives every song of a show its own name.
///
/// Threads: the loading thread "run_load_streams" builds the streams; GetStream may be called on
/// any thread and blocks until its stream exists; the mute operations and GetCurrentStream come
/// from the one control thread that also calls GetStream (the current name is not locked).
/// Locks: `mutex_` (plain) guards `streams_`, `loaded_` and `stopLoading_`, and is never held
/// while a stream is built or while a stream's own operations run.
///
/// A derived class's destructor must call StopLoadStreamsThread() first: the loading thread
/// calls the derived CreateMidiStream.
class MidiStreamCollection {
  public:
    explicit MidiStreamCollection(const velt_midi::ShowData& show);
    MidiStreamCollection(const MidiStreamCollection&) = delete;
    MidiStreamCollection& operator=(const MidiStreamCollection&) = delete;
    /// Stops the loading after the stream being built and joins the thread.
    virtual ~MidiStreamCollection();

    /// Makes `songName` current and returns its stream with no user program changes and no muted
    /// tracks. Blocks while the stream is not built yet; throws std::out_of_range for a name the
    /// show does not have (once loading has ended).
    virtual MidiStream& GetStream(const std::string& songName);
    /// Nothing in the base collection.
    virtual void MuteGroup(unsigned char group);
    /// Nothing in the base collection.
    virtual void UnmuteGroup(unsigned char group);
    /// Forwarded to the current stream (std::out_of_range when there is none).
    virtual void MuteTrack(unsigned short trackId);
    virtual void UnmuteTrack(unsigned short trackId);
    virtual void UnmuteAll();
    /// Builds the stream of one song; called on the loading thread.
    virtual std::unique_ptr<MidiStream> CreateMidiStream(const velt_midi::SongData& songData) = 0;

    /// The loading loop: builds every song's stream in the show's order, stopping early when the
    /// collection is being destroyed, then marks the collection loaded.
    void LoadStreams();
    /// The stream last asked for by GetStream; std::out_of_range ("invalid map<K, T> key") if
    /// it does not exist.
    MidiStream& GetCurrentStream();
    void SetMutedTracks(const std::map<unsigned short, bool>& mutes);

  protected:
    /// Starts the loading thread; the variants' constructors end with it.
    void StartLoadStreamsThread();
    /// Ends the loading after the stream being built and joins the thread; idempotent.
    void StopLoadStreamsThread();
    const velt_midi::ShowData& GetShow() const { return show_; }

  private:
    bool Loaded();
    void Loaded(bool loaded);

    std::mutex mutex_;
    std::condition_variable streamAdded_;
    const velt_midi::ShowData& show_;
    bool loaded_ = false;
    bool stopLoading_ = false;
    std::thread loadingThread_;
    std::map<std::string, std::shared_ptr<MidiStream>> streams_;
    std::string currentStreamName_;
};

/// Builds TamberMidiStreams. Final: its constructor starts the loading thread, which calls the
/// virtual CreateMidiStream, so no class may derive from it and still be under construction then.
class TamberMidiStreamCollection final : public MidiStreamCollection {
  public:
    explicit TamberMidiStreamCollection(const velt_midi::ShowData& show);
    ~TamberMidiStreamCollection() override;
    std::unique_ptr<MidiStream> CreateMidiStream(const velt_midi::SongData& songData) override;
};

/// Builds ParvelMidiStreams; keeps the show's muted tracks across songs, mutes numbered groups of
/// tracks and owns the volume trims its streams share. Threads and locks as the base; the muted
/// set is used by the control thread only. Final for the same reason as
/// TamberMidiStreamCollection.
class ParvelMidiStreamCollection final : public MidiStreamCollection {
  public:
    explicit ParvelMidiStreamCollection(const pv::ParvelShowData& show);
    ~ParvelMidiStreamCollection() override;

    /// The base behaviour, then the show's muted tracks are applied to the stream.
    MidiStream& GetStream(const std::string& songName) override;
    /// Mutes (unmutes) every track of the show's group number `group`.
    void MuteGroup(unsigned char group) override;
    void UnmuteGroup(unsigned char group) override;
    void MuteTrack(unsigned short trackId) override;
    void UnmuteTrack(unsigned short trackId) override;
    void UnmuteAll() override;
    std::unique_ptr<MidiStream> CreateMidiStream(const velt_midi::SongData& songData) override;

    std::set<unsigned short> GetMutedTracks() const { return mutedTracks_; }
    void SetAllTracksTrim(const std::map<unsigned short, unsigned char>& trims);
    void SetTrackTrim(unsigned short trackId, unsigned char trim);
    /// "muteSettings" in the show's directory; the host writes and reads its contents.
    std::string GetMuteSettingsFileName() const;

  private:
    const pv::ParvelShowData& parvelShow_;
    std::set<unsigned short> mutedTracks_;
    MidiVolumeScaler volumeScaler_;
};
