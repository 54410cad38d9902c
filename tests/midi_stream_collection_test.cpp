#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "midi/midi_stream_collection.h"
#include "tests/stream_test_support.h"
#include "tests/support/captured_log.h"
#include "velt_core/song_builder.h"

using namespace stream_test;
using EventList = RecordingMidiBuffer::EventList;

namespace {
std::shared_ptr<velt_midi::SongData> MakeSong(const std::string& name) {
    return velt_core::SongBuilder(name)
        .Bars(2)
        .Track(0x01, "strings", 4, {36, 96})
        .Note(0x01, 0, 60, 100, 100)
        .Track(0x02, "horn", 5, {36, 96})
        .Note(0x02, 0, 50, 100, 100)
        .Build();
}

template <typename Show>
void AddSongs(Show& show, std::initializer_list<const char*> names) {
    for (const char* name : names) {
        show.AddSong(MakeSong(name));
    }
}

/// Builds Tamber streams, but holds the loading thread before every song after the first until
/// the test opens the gate, so that a test can act while later songs are still loading.
class GatedCollection : public MidiStreamCollection {
  public:
    explicit GatedCollection(const velt_midi::ShowData& show) : MidiStreamCollection(show) {
        StartLoadStreamsThread();
    }
    ~GatedCollection() override {
        OpenGate();
        StopLoadStreamsThread();
    }

    std::unique_ptr<MidiStream> CreateMidiStream(const velt_midi::SongData& song) override {
        std::unique_lock lock(gateMutex_);
        if (started_++ == 0) {
            threadName_ = kit::threadNames.GetNameOfCurrentThread();
        } else {
            gateChanged_.wait(lock, [this] { return gateOpen_; });
        }
        lock.unlock();
        auto stream = std::make_unique<TamberMidiStream>(song);
        ++built_;
        return stream;
    }

    void OpenGate() {
        {
            std::scoped_lock lock(gateMutex_);
            gateOpen_ = true;
        }
        gateChanged_.notify_all();
    }
    int Built() const { return built_; }
    std::string ThreadName() {
        std::scoped_lock lock(gateMutex_);
        return threadName_;
    }

  private:
    std::mutex gateMutex_;
    std::condition_variable gateChanged_;
    bool gateOpen_ = false;
    int started_ = 0;
    std::atomic<int> built_{0};
    std::string threadName_;  // of the thread that built the first stream
};

}  // namespace

TEST(MidiStreamCollection, TheFirstSongPlaysWhileLaterSongsAreStillLoading) {
    velt_midi::ShowData show;
    AddSongs(show, {"One", "Two", "Three"});
    GatedCollection collection(show);

    MidiStream& first = collection.GetStream("One");
    EXPECT_EQ(collection.Built(), 1);  // the loader is held before "Two"
    EXPECT_EQ(&collection.GetCurrentStream(), &first);
    EXPECT_EQ(collection.ThreadName(), "run_load_streams");

    collection.OpenGate();
    MidiStream& third = collection.GetStream("Three");  // waits until it is built
    EXPECT_EQ(collection.Built(), 3);
    EXPECT_EQ(&collection.GetCurrentStream(), &third);
    EXPECT_NE(&first, &third);
}

// A stream handed out is played from: a later song of the same name must not replace it.
TEST(MidiStreamCollection, ALaterSongOfTheSameNameNeverReplacesAStreamHandedOut) {
    CapturedLog log;
    velt_midi::ShowData show;
    AddSongs(show, {"One", "One", "Three"});
    {
        GatedCollection collection(show);
        MidiStream& first = collection.GetStream("One");
        collection.OpenGate();
        collection.GetStream("Three");  // loading has passed the second "One"
        EXPECT_EQ(&collection.GetStream("One"), &first);
        EXPECT_EQ(collection.Built(), 2);
    }
    EXPECT_EQ(log.Lines(),
              std::vector<std::string>{"WARNING: the show has more than one song named "
                                       "\"One\"; each of them plays the first one's stream."});
}

/// Builds Tamber streams but fails on the song named "Bad".
class FailingCollection : public MidiStreamCollection {
  public:
    explicit FailingCollection(const velt_midi::ShowData& show) : MidiStreamCollection(show) {
        StartLoadStreamsThread();
    }
    ~FailingCollection() override { StopLoadStreamsThread(); }
    std::unique_ptr<MidiStream> CreateMidiStream(const velt_midi::SongData& song) override {
        if (song.GetSongName() == "Bad") {
            throw std::runtime_error("cannot build Bad");
        }
        return std::make_unique<TamberMidiStream>(song);
    }
};

TEST(MidiStreamCollection, AFailedBuildEndsLoadingSoThatNobodyWaitsForever) {
    CapturedLog log;
    velt_midi::ShowData show;
    AddSongs(show, {"One", "Bad", "Three"});
    {
        FailingCollection collection(show);
        EXPECT_NO_THROW(collection.GetStream("One"));
        EXPECT_THROW(collection.GetStream("Three"), std::out_of_range);
    }
    const auto lines = log.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("cannot build Bad"), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("midi/Sources/midi_stream_collection line 27"), std::string::npos)
        << lines[0];
}

TEST(MidiStreamCollection, AnUnknownSongThrowsOnlyOnceLoadingHasEnded) {
    velt_midi::ShowData show;
    AddSongs(show, {"One", "Two", "Three"});
    GatedCollection collection(show);
    collection.GetStream("One");

    std::atomic<int> builtWhenThrown{-1};
    std::thread waiter([&] {
        try {
            collection.GetStream("Four");
        } catch (const std::out_of_range& error) {
            builtWhenThrown = collection.Built();
            EXPECT_STREQ(error.what(), "invalid map<K, T> key");
        }
    });
    collection.OpenGate();
    waiter.join();
    EXPECT_EQ(builtWhenThrown, 3);
    // After loading, the answer comes at once.
    EXPECT_THROW(collection.GetStream("Four"), std::out_of_range);
}

TEST(MidiStreamCollection, MuteOperationsNeedACurrentStream) {
    velt_midi::ShowData show;
    AddSongs(show, {"One"});
    TamberMidiStreamCollection collection(show);
    EXPECT_THROW(collection.MuteTrack(0x01), std::out_of_range);
    try {
        collection.GetCurrentStream();
        FAIL() << "no current stream";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "invalid map<K, T> key");
    }
    collection.GetStream("One");
    collection.MuteGroup(1);  // nothing in the base collection
    collection.MuteTrack(0x01);
    EXPECT_EQ(collection.GetCurrentStream().GetMutedTracks(), (std::set<unsigned short>{0x01}));
}

TEST(MidiStreamCollection, SwitchingSongsClearsStreamMutesAndUserPrograms) {
    velt_midi::ShowData show;
    AddSongs(show, {"One", "Two"});
    TamberMidiStreamCollection collection(show);
    MidiStream& one = collection.GetStream("One");
    collection.MuteTrack(0x01);
    collection.SetMutedTracks({{0x02, true}});
    one.SetUserProgramChange(0x01, 77);
    EXPECT_EQ(one.GetMutedTracks(), (std::set<unsigned short>{0x01, 0x02}));

    collection.GetStream("Two");
    MidiStream& again = collection.GetStream("One");
    EXPECT_EQ(&again, &one);
    EXPECT_TRUE(again.GetMutedTracks().empty());
    EXPECT_EQ(again.GetCurrentProgramChangesByTrackId(),
              (MidiStream::ProgramMap{{0x01, 4}, {0x02, 5}}));
    RecordingMidiBuffer buffer(1, 64);
    again.EnqueueEvents(10, 0, buffer, false);
    EXPECT_EQ(buffer.Events(0), (EventList{On(0x01, 60, 100), On(0x02, 50, 100)}));
}

TEST(ParvelMidiStreamCollection, ShowWideMutesFollowEverySong) {
    pv::ParvelShowData show;
    AddSongs(show, {"One", "Two"});
    show.GetGroups().SetGroup(3, {0x02, 0x07});
    ParvelMidiStreamCollection collection(show);

    collection.GetStream("One");
    collection.MuteTrack(0x01);
    collection.MuteGroup(3);
    EXPECT_EQ(collection.GetMutedTracks(), (std::set<unsigned short>{0x01, 0x02, 0x07}));
    EXPECT_EQ(collection.GetStream("Two").GetMutedTracks(),
              (std::set<unsigned short>{0x01, 0x02, 0x07}));

    collection.UnmuteGroup(3);
    EXPECT_EQ(collection.GetCurrentStream().GetMutedTracks(), (std::set<unsigned short>{0x01}));
    collection.UnmuteTrack(0x01);
    collection.MuteTrack(0x02);
    collection.UnmuteAll();
    EXPECT_TRUE(collection.GetMutedTracks().empty());
    EXPECT_TRUE(collection.GetStream("One").GetMutedTracks().empty());
}

TEST(ParvelMidiStreamCollection, TrimsReachTheStreamsAndMuteSettingsLiveInTheShowDirectory) {
    pv::ParvelShowData show;
    AddSongs(show, {"One"});
    ParvelMidiStreamCollection collection(show);
    MidiStream& stream = collection.GetStream("One");
    collection.SetTrackTrim(0x01, 60);
    collection.SetAllTracksTrim({{0x02, 70}});
    RecordingMidiBuffer buffer(1, 64);
    stream.EnqueueEvents(1, 0, buffer, false);
    EXPECT_EQ(buffer.Events(0),
              (EventList{Cc(0x01, 7, 60), Cc(0x02, 7, 70), On(0x01, 60, 100), On(0x02, 50, 100)}));

    const std::string previous = Directories::GetShowDirectory();
    Directories::SetShowDirectory("/shows/tonight");
    EXPECT_EQ(collection.GetMuteSettingsFileName(),
              kit::path::Join("/shows/tonight", "muteSettings"));
    Directories::SetShowDirectory(previous);
}

TEST(MidiStreamCollection, DestroyingACollectionWhileItLoadsJoinsTheLoader) {
    velt_midi::ShowData show;
    for (int i = 0; i < 20; ++i) {
        show.AddSong(MakeSong("Song " + std::to_string(i)));
    }
    // Every other collection is destroyed before its loader has got anywhere; the others while
    // it is in the middle of the show.
    for (int round = 0; round < 6; ++round) {
        TamberMidiStreamCollection collection(show);
        if (round % 2 == 1) {
            const MidiStream& stream = collection.GetStream("Song " + std::to_string(round));
            EXPECT_EQ(stream.GetTrackNamesByTrackId().at(0x02), "horn");
        }
    }
}

TEST(MidiStreamCollection, ControlSideChangesMeetThePlayingStreamWithoutRaces) {
    velt_midi::ShowData show;
    AddSongs(show, {"One"});
    TamberMidiStreamCollection collection(show);
    MidiStream& stream = collection.GetStream("One");
    RecordingMidiBuffer buffer(1, 1000);
    std::thread output([&] {
        for (unsigned int tick = 10; tick <= 4000; tick += 10) {
            stream.EnqueueEvents(tick, 0, buffer, false);
            buffer.TakeEvents();
            stream.GetCurrentProgramChangesByTrackId();
        }
    });
    for (int i = 0; i < 400; ++i) {
        collection.MuteTrack(0x01);
        stream.SendAllNotesOffForMutedTracks();
        stream.SetUserProgramChange(0x02, static_cast<unsigned char>(i % 128));
        collection.UnmuteTrack(0x01);
        stream.FollowMidiProgramChanges();
    }
    output.join();
    EXPECT_EQ(stream.GetCurrentTick(), 4000u);
    EXPECT_TRUE(stream.GetMutedTracks().empty());
}
