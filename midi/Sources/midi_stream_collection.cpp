#include "midi/midi_stream_collection.h"

#include <exception>
#include <stdexcept>

#include "interfaces/kit.h"
#include "interfaces/notify.h"

namespace {
constexpr const char* kSourcePath = "midi/Sources/midi_stream_collection";
constexpr int kLoadThreadCatchLine = 27;  // the line of the catch that logs
// The text of a failed lookup by song name, whichever standard library is underneath.
constexpr const char* kInvalidKey = "invalid map<K, T> key";
}  // namespace

MidiStreamCollection::MidiStreamCollection(const velt_midi::ShowData& show) : show_(show) {}

MidiStreamCollection::~MidiStreamCollection() {
    StopLoadStreamsThread();
}

void MidiStreamCollection::StartLoadStreamsThread() {
    loadingThread_ = std::thread([this] {
        try {
            kit::threadNames.SetNameOfCurrentThread("run_load_streams");
            LoadStreams();
        } catch (const std::exception& e) {
            VeltLogException(e.what(), kSourcePath, kLoadThreadCatchLine);
            Loaded(true);  // so that GetStream stops waiting for streams that will not come
        } catch (...) {
            VeltLogException("Unknown exception.", kSourcePath, kLoadThreadCatchLine);
            Loaded(true);
        }
    });
}

void MidiStreamCollection::StopLoadStreamsThread() {
    {
        std::scoped_lock lock(mutex_);
        stopLoading_ = true;
    }
    if (loadingThread_.joinable()) {
        try {
            loadingThread_.join();
        } catch (...) {
            std::terminate();  // a loading thread left running would outlive the collection
        }
    }
}

void MidiStreamCollection::LoadStreams() {
    for (const auto& song : show_.GetSongs()) {
        const std::string& name = song->GetSongName();
        bool known = false;
        {
            std::scoped_lock lock(mutex_);
            known = streams_.contains(name);
        }
        if (known) {
            // A stream once built is never replaced: a host may be playing it already.
            kit::CoutBuffer() << "WARNING: the show has more than one song named \"" << name
                              << "\"; each of them plays the first one's stream." << kit::endl;
        } else {
            // Built without the mutex: building includes the chase checkpoints and takes a while.
            std::shared_ptr<MidiStream> stream = CreateMidiStream(*song);
            {
                std::scoped_lock lock(mutex_);
                streams_.emplace(name, std::move(stream));
            }
            streamAdded_.notify_all();
        }
        std::scoped_lock lock(mutex_);
        if (stopLoading_) {
            break;
        }
    }
    Loaded(true);
}

bool MidiStreamCollection::Loaded() {
    std::scoped_lock lock(mutex_);
    return loaded_;
}

void MidiStreamCollection::Loaded(bool loaded) {
    {
        std::scoped_lock lock(mutex_);
        loaded_ = loaded;
    }
    streamAdded_.notify_all();
}

MidiStream& MidiStreamCollection::GetStream(const std::string& songName) {
    currentStreamName_ = songName;
    std::shared_ptr<MidiStream> stream;
    {
        std::unique_lock lock(mutex_);
        // Waits while the stream is not built; once loading has ended an absent name never
        // comes.
        for (;;) {
            const auto found = streams_.find(songName);
            if (found != streams_.end()) {
                stream = found->second;
                break;
            }
            if (loaded_) {
                throw std::out_of_range(kInvalidKey);
            }
            streamAdded_.wait(lock);
        }
    }
    stream->ResetProgramChanges();
    stream->ResetMuteSettings();
    return *stream;
}

MidiStream& MidiStreamCollection::GetCurrentStream() {
    std::scoped_lock lock(mutex_);
    const auto found = streams_.find(currentStreamName_);
    if (found == streams_.end()) {
        throw std::out_of_range(kInvalidKey);
    }
    return *found->second;
}

void MidiStreamCollection::MuteGroup(unsigned char) {}

void MidiStreamCollection::UnmuteGroup(unsigned char) {}

void MidiStreamCollection::MuteTrack(unsigned short trackId) {
    GetCurrentStream().MuteTrack(trackId);
}

void MidiStreamCollection::UnmuteTrack(unsigned short trackId) {
    GetCurrentStream().UnmuteTrack(trackId);
}

void MidiStreamCollection::UnmuteAll() {
    GetCurrentStream().UnmuteAll();
}

void MidiStreamCollection::SetMutedTracks(const std::map<unsigned short, bool>& mutes) {
    GetCurrentStream().SetMutedTracks(mutes);
}

// ---------------------------------------------------------------------------------------------

TamberMidiStreamCollection::TamberMidiStreamCollection(const velt_midi::ShowData& show)
    : MidiStreamCollection(show) {
    StartLoadStreamsThread();
}

TamberMidiStreamCollection::~TamberMidiStreamCollection() {
    StopLoadStreamsThread();
}

std::unique_ptr<MidiStream> TamberMidiStreamCollection::CreateMidiStream(
    const velt_midi::SongData& songData) {
    return std::make_unique<TamberMidiStream>(songData);
}

// ---------------------------------------------------------------------------------------------

ParvelMidiStreamCollection::ParvelMidiStreamCollection(const pv::ParvelShowData& show)
    : MidiStreamCollection(show), parvelShow_(show) {
    StartLoadStreamsThread();
}

ParvelMidiStreamCollection::~ParvelMidiStreamCollection() {
    StopLoadStreamsThread();
}

std::unique_ptr<MidiStream> ParvelMidiStreamCollection::CreateMidiStream(
    const velt_midi::SongData& songData) {
    return std::make_unique<ParvelMidiStream>(songData, volumeScaler_);
}

MidiStream& ParvelMidiStreamCollection::GetStream(const std::string& songName) {
    MidiStream& stream = MidiStreamCollection::GetStream(songName);
    stream.SetMutedTracks(mutedTracks_);
    return stream;
}

void ParvelMidiStreamCollection::MuteGroup(unsigned char group) {
    for (unsigned short trackId : parvelShow_.GetGroups().GetGroup(group)) {
        MuteTrack(trackId);
    }
}

void ParvelMidiStreamCollection::UnmuteGroup(unsigned char group) {
    for (unsigned short trackId : parvelShow_.GetGroups().GetGroup(group)) {
        UnmuteTrack(trackId);
    }
}

void ParvelMidiStreamCollection::MuteTrack(unsigned short trackId) {
    mutedTracks_.insert(trackId);
    MidiStreamCollection::MuteTrack(trackId);
}

void ParvelMidiStreamCollection::UnmuteTrack(unsigned short trackId) {
    mutedTracks_.erase(trackId);
    MidiStreamCollection::UnmuteTrack(trackId);
}

void ParvelMidiStreamCollection::UnmuteAll() {
    mutedTracks_.clear();
    MidiStreamCollection::UnmuteAll();
}

void ParvelMidiStreamCollection::SetAllTracksTrim(
    const std::map<unsigned short, unsigned char>& trims) {
    volumeScaler_.SetAllTracksTrim(trims);
}

void ParvelMidiStreamCollection::SetTrackTrim(unsigned short trackId, unsigned char trim) {
    volumeScaler_.SetTrackTrim(trackId, trim);
}

std::string ParvelMidiStreamCollection::GetMuteSettingsFileName() const {
    return kit::path::Join(Directories::GetShowDirectory(), "muteSettings");
}
