// Soak: a generated show (20 songs of 32 dense tracks with tempo and meter changes and a caesura
// each) played at an accelerated tempo through the show session into two virtual devices, driven
// by seeded random verbs (jumps, mutes, transpositions, tempo scales, caesura resumes, display
// delays, device switches, stops, song changes) for a given time. An instrument simulator checks
// as it goes:
//   - stuck notes: whenever the show rests (cued, stopped, ended) and on a device just left, no
//     note sounds on an instrument that counts note-ons against note-offs (controllers ignored);
//   - straight stretches: from a jump to a song's end with no verb in between, every note of every
//     track arrives exactly once and in order (after what the first period strikes at the jump).
// Prints figures and every violation with the seed that makes it again. Exit status 1 on any
// violation.
//
//   soak [--seconds N] [--seed S] [--tracks T]   (defaults: 60 s, seed from the clock, 32)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "apps/show_session.h"
#include "interfaces/kit.h"
#include "platform/virtual_midi.h"
#include "velt_core/song_builder.h"

namespace {

using namespace std::chrono_literals;
using velt_play::PlayState;
using Message = std::vector<std::uint8_t>;

constexpr int kSongs = 20;
int tracks = 32;  // --tracks: ports of 16 tracks each
constexpr int kBars = 12;
constexpr int kCaesuraBar = 4;  // the caesura falls on the second beat of this bar
constexpr std::uint32_t kQuarter = 480;
constexpr int kMaxTransposition = 2;

// Each track plays three keys of its own (track t: 10 + 3t .. 12 + 3t), so that a key heard,
// less the transposition, names its track whatever port and channel carried it.
struct TrackNote {
    std::uint32_t tick;
    std::uint8_t key;
};
struct SoakSong {
    std::shared_ptr<velt_midi::SongData> data;
    std::vector<std::uint32_t> barTicks;  // start of each bar, then the song's end
    std::map<unsigned short, std::vector<TrackNote>> notes;
};

int TrackOf(std::uint8_t key, int transposition) {
    return (key - transposition - 10) / 3;
}

SoakSong MakeSong(int number, std::mt19937& random) {
    SoakSong song;
    velt_core::SongBuilder builder("Soak " + std::to_string(number), kQuarter);
    const double tempo = 900 + static_cast<double>(random() % 600);
    std::uint32_t tick = 0;
    for (int bar = 0; bar < kBars; ++bar) {
        const int block = bar / 4;
        if (bar % 4 == 0) {
            builder.Meter(tick, block == 1 ? 3 : 4, 4);
            builder.Tempo(tick, tempo * (block == 1 ? 1.2 : block == 2 ? 0.9 : 1.0));
        }
        song.barTicks.push_back(tick);
        tick += (block == 1 ? 3 : 4) * kQuarter;
    }
    song.barTicks.push_back(tick);
    builder.LastTick(tick);
    builder.Marker(song.barTicks[kCaesuraBar - 1] + kQuarter, "Caesura");
    for (int t = 0; t < tracks; ++t) {
        const auto id = static_cast<unsigned short>(t);
        builder.Track(id, "Track " + std::to_string(t), 0, {0, 127});
        const auto low = static_cast<std::uint8_t>(10 + 3 * t);
        auto& notes = song.notes[id];
        for (std::uint32_t at = static_cast<std::uint32_t>(t % 4) * 60; at + 240 <= tick;
             at += 240) {
            const auto key = static_cast<std::uint8_t>(low + random() % 3);
            builder.Note(id, at, key, 80, 200);
            notes.push_back({at, key});
        }
    }
    song.data = builder.Build();
    return song;
}

// Voices per note on an instrument that ignores controllers: note-ons add, note-offs take away.
class Instrument {
  public:
    void Hear(const std::vector<velt_platform::RecordedMessage>& messages) {
        for (const auto& recorded : messages) {
            const Message& m = recorded.bytes;
            if (m.size() < 3)
                continue;
            const int kind = m[0] & 0xF0;
            const int key = ((m[0] & 0x0F) << 8) | m[1];
            if (kind == 0x90 && m[2] > 0) {
                ++voices_[key];
                ++noteOns_;
            } else if ((kind == 0x80 || kind == 0x90) && voices_[key] > 0) {
                --voices_[key];
            }
        }
    }
    // The sounding notes as "channel:key" words.
    std::string Describe() const {
        std::string text;
        for (const auto& [key, count] : voices_) {
            if (count > 0)
                text += " " + std::to_string(key >> 8) + ":" + std::to_string(key & 0xFF);
        }
        return text;
    }
    int Sounding() const {
        int sounding = 0;
        for (const auto& [key, count] : voices_)
            sounding += count;
        return sounding;
    }
    std::uint64_t NoteOns() const { return noteOns_; }
    // After a violation is reported: the next check starts from silence.
    void Silence() { voices_.clear(); }

  private:
    std::map<int, int> voices_;
    std::uint64_t noteOns_ = 0;
};

struct Device {
    explicit Device(const std::string& name) : output(name) {}
    velt_platform::VirtualMidiOutput output;
    Instrument instrument;
    std::size_t heard = 0;  // messages of output already given to the instrument
    void Catch() {
        auto messages = output.Messages();
        std::vector<velt_platform::RecordedMessage> fresh(
            messages.begin() + static_cast<std::ptrdiff_t>(std::min(heard, messages.size())),
            messages.end());
        instrument.Hear(fresh);
        heard = messages.size();
    }
    // Waits until the device has received nothing for a while: the packets handed to the MIDI
    // service before a stop play out on its own timeline.
    void WaitUntilQuiet() {
        std::size_t count = output.Messages().size();
        for (int quiet = 0; quiet < 2;) {
            std::this_thread::sleep_for(30ms);
            const std::size_t now = output.Messages().size();
            quiet = now == count ? quiet + 1 : 0;
            count = now;
        }
    }
    // Only while nothing plays there: nothing can arrive between reading and clearing.
    void Forget() {
        WaitUntilQuiet();
        Catch();
        output.ClearMessages();
        heard = 0;
    }
};

class Soak {
  public:
    Soak(unsigned seed, std::chrono::seconds length) : seed_(seed), length_(length), random_(seed) {
        auto show = std::make_shared<pv::ParvelShowData>();
        std::vector<velt_play::SessionSong> sessionSongs;
        for (int i = 0; i < kSongs; ++i) {
            songs_.push_back(MakeSong(i + 1, random_));
            show->AddSong(songs_.back().data);
            sessionSongs.push_back({songs_.back().data->GetSongName(), songs_.back().data, ""});
        }
        devices_.push_back(std::make_unique<Device>("Soak A"));
        devices_.push_back(std::make_unique<Device>("Soak B"));
        session_ = std::make_unique<velt_play::ShowSession>(
            std::move(sessionSongs), show,
            velt_play::SessionOptions{velt_play::ClockKind::precision, "Soak A", {}});
    }

    int Run() {
        const auto start = std::chrono::steady_clock::now();
        session_->Play();
        while (std::chrono::steady_clock::now() - start < length_) {
            Operate_();
            ++operations_;
            std::this_thread::sleep_for(std::chrono::milliseconds(5 + random_() % 60));
            KeepPlaying_();
        }
        session_->Stop();
        CheckRest_("the final stop");
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::uint64_t noteOns = 0;
        for (const auto& device : devices_)
            noteOns += device->instrument.NoteOns();
        std::printf(
            "soak seed %u: %.1f s, %llu operations, %llu note-ons heard, %d straight stretches "
            "checked (%llu notes), %d rests checked, %zu violations\n",
            seed_, seconds, static_cast<unsigned long long>(operations_),
            static_cast<unsigned long long>(noteOns), stretches_,
            static_cast<unsigned long long>(stretchNotes_), rests_, violations_.size());
        for (const auto& violation : violations_)
            std::printf("VIOLATION (seed %u): %s\n", seed_, violation.c_str());
        return violations_.empty() ? 0 : 1;
    }

  private:
    Device& Current_() { return *devices_[current_]; }
    const SoakSong& Song_() { return songs_[static_cast<std::size_t>(songIndex_)]; }

    void Violation_(const std::string& what) {
        if (violations_.size() < 50)
            violations_.push_back(what);
        else
            ++overflow_;
    }

    // Nothing plays: every note the current device was given has been released.
    void CheckRest_(const std::string& where) {
        ++rests_;
        Current_().WaitUntilQuiet();
        Current_().Catch();
        if (const int sounding = Current_().instrument.Sounding(); sounding != 0) {
            Violation_(std::to_string(sounding) + " notes left sounding after " + where +
                       " in song " + std::to_string(songIndex_ + 1) + " (" +
                       Current_().instrument.Describe() + " ) after:" + recent_);
            Current_().instrument.Silence();
        }
        Current_().Forget();
    }

    // A caesura is played on from, an ended song is followed by the next one.
    void KeepPlaying_() {
        const auto state = session_->Status().state;
        if (state == PlayState::caesura) {
            session_->Resume();
        } else if (state == PlayState::ended) {
            CheckRest_("the song's end");
            songIndex_ = (songIndex_ + 1) % kSongs;
            session_->SelectSong(songIndex_ + 1);
            session_->Play();
        }
    }

    void Operate_() {
        const unsigned operation = random_() % 12;
        recent_ = (recent_.size() > 60 ? recent_.substr(recent_.size() - 60) : recent_) + " " +
                  std::to_string(operation);
        switch (operation) {
            case 0:
            case 1:
                session_->SeekToBar(1 + static_cast<int>(random_() % kBars));
                break;
            case 2: {
                const auto track = static_cast<unsigned short>(random_() % tracks);
                if (muted_.insert(track).second) {
                    session_->MuteTrack(track);
                } else {
                    muted_.erase(track);
                    session_->UnmuteTrack(track);
                }
                break;
            }
            case 3:
                transposition_ =
                    static_cast<int>(random_() % (2 * kMaxTransposition + 1)) - kMaxTransposition;
                session_->SetTransposition(transposition_);
                break;
            case 4:
                session_->SetTempoScale(0.8 + static_cast<double>(random_() % 46) / 100.0);
                break;
            case 5:
                random_() % 2 ? session_->IncreaseDisplayDelay() : session_->DecreaseDisplayDelay();
                break;
            case 6: {
                Device& left = Current_();
                current_ = 1 - current_;
                session_->ChooseDevice(Current_().output.Name());
                left.WaitUntilQuiet();
                left.Catch();
                if (const int sounding = left.instrument.Sounding(); sounding != 0) {
                    Violation_(std::to_string(sounding) + " notes left sounding on a device left");
                    left.instrument.Silence();
                }
                left.Forget();
                break;
            }
            case 7:
                session_->Stop();
                CheckRest_("a stop");
                session_->Play();
                break;
            case 8:
                session_->Stop();
                CheckRest_("a stop before a song change");
                songIndex_ = static_cast<int>(random_() % kSongs);
                session_->SelectSong(songIndex_ + 1);
                session_->Play();
                break;
            default:
                Stretch_();
                break;
        }
    }

    // From a bar after the caesura to the song's end with no verb in between: each track's notes
    // from the second period on arrive once and in order.
    void Stretch_() {
        const int bar = kCaesuraBar + 1 + static_cast<int>(random_() % (kBars - kCaesuraBar));
        const std::uint32_t from = Song_().barTicks[static_cast<std::size_t>(bar - 1)];
        Device& device = Current_();
        device.Catch();
        const std::size_t mark = device.heard;
        session_->SeekToBar(bar);
        if (session_->Status().state != PlayState::playing)
            session_->Play();
        if (!session_->WaitUntilNotPlaying(120s)) {
            Violation_("a straight stretch did not end within two minutes");
            return;
        }
        ++stretches_;
        const auto messages = device.output.Messages();
        std::map<int, std::vector<std::uint8_t>> heard;
        for (std::size_t i = mark; i < messages.size(); ++i) {
            const Message& m = messages[i].bytes;
            if (m.size() == 3 && (m[0] & 0xF0) == 0x90 && m[2] > 0)
                heard[TrackOf(m[1], transposition_)].push_back(m[1]);
        }
        const std::uint32_t ticksPerClock = kQuarter / 24;
        for (const auto& [track, notes] : Song_().notes) {
            if (muted_.count(track) != 0)
                continue;
            std::vector<std::uint8_t> expected;
            for (const auto& note : notes) {
                if (note.tick >= from + ticksPerClock)
                    expected.push_back(static_cast<std::uint8_t>(note.key + transposition_));
            }
            stretchNotes_ += expected.size();
            const auto& got = heard[track];
            // What the first period strikes (the notes sounding at the jump, those starting in
            // it) comes first; everything after it is the song itself.
            const bool suffix =
                got.size() >= expected.size() && got.size() <= expected.size() + 4 &&
                std::equal(expected.begin(), expected.end(),
                           got.end() - static_cast<std::ptrdiff_t>(expected.size()));
            if (!suffix) {
                Violation_("track " + std::to_string(track) + " of song " +
                           std::to_string(songIndex_ + 1) + " from bar " + std::to_string(bar) +
                           ": " + std::to_string(got.size()) + " notes heard for " +
                           std::to_string(expected.size()) + " expected, or out of order");
            }
        }
        // The stretch ended the song; KeepPlaying_ checks the rest and moves on.
    }

    const unsigned seed_;
    const std::chrono::seconds length_;
    std::mt19937 random_;
    std::vector<SoakSong> songs_;
    std::vector<std::unique_ptr<Device>> devices_;
    std::unique_ptr<velt_play::ShowSession> session_;  // after the devices: closed first
    std::size_t current_ = 0;
    int songIndex_ = 0;
    int transposition_ = 0;
    std::set<unsigned short> muted_;
    std::uint64_t operations_ = 0;
    int stretches_ = 0;
    std::uint64_t stretchNotes_ = 0;
    int rests_ = 0;
    std::vector<std::string> violations_;
    std::size_t overflow_ = 0;
    std::string recent_;  // the last operations' numbers, for a violation's report
};

}  // namespace

int main(int argc, char** argv) {
    long seconds = 60;
    auto seed = static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count() &
                                      0x7FFFFFFF);
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--seconds") {
            seconds = std::strtol(argv[i + 1], nullptr, 10);
        } else if (option == "--tracks") {
            tracks = std::clamp(static_cast<int>(std::strtol(argv[i + 1], nullptr, 10)), 1, 32);
        } else if (option == "--seed") {
            seed = static_cast<unsigned>(std::strtoul(argv[i + 1], nullptr, 10));
        } else {
            std::fprintf(stderr, "usage: soak [--seconds N] [--seed S] [--tracks 1..32]\n");
            return 2;
        }
    }
    // The clock's lag warnings and the like are part of a soak, not its figures.
    std::uint64_t logLines = 0;
    kit::SetLogSink([&logLines](const std::string&) { ++logLines; });
    int status = 0;
    {
        Soak soak(seed, std::chrono::seconds(seconds));
        status = soak.Run();
    }
    std::printf("log lines written: %llu\n", static_cast<unsigned long long>(logLines));
    return status;
}
