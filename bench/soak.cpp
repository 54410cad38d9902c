// Soak: a generated show (20 songs of 32 dense tracks with tempo and meter changes and a caesura
// each) played at an accelerated tempo through the show session into two virtual devices, with
// MIDI Time Code going to a third one the way velt-play's --mtc sends it, driven by seeded random
// verbs (jumps, mutes, transpositions, tempo scales, caesura resumes, display delays, device
// switches, stops, song changes).
//
// Two modes. The short one (the default, and whenever --show is not given) plays songs of 12
// bars at 900 to 1500 quarter notes a minute, one after the other and wherever the verbs send it,
// for --seconds: every verb and check gets exercised many times in a minute. The show (--show)
// plays songs of 7 to 11 minutes at a written 90 to 160 quarter notes a minute, about 3 hours in
// all, with every tempo event the written tempo times --speed (default 9: the show's music lasts
// about 20 minutes). It plays them in order from the first to the last: each song is played until
// it reaches its end, while the verbs jump near where it stands, stretch it, stop it, and make
// short detours into other songs that come back to where it stood.
//
// An instrument simulator checks as it goes:
//   - stuck notes: whenever the show rests (cued, stopped, ended) and on a device just left, no
//     note sounds on an instrument that counts note-ons against note-offs (controllers ignored);
//   - straight stretches: from a jump to the end of a bar PlayUntilBar stops at (the song's end
//     in the short mode) with no verb in between, every note of every track arrives exactly once
//     and in order (after what the first period strikes at the jump), and nothing after the bar;
//   - chase: every run (a jump while playing, a play from a stop or a cue, a caesura resumed, a
//     device switch) is checked once its first period has played: the notes sounding on the
//     instrument are those the song holds there (unmuted tracks, current transposition). The
//     session's `starting` hook reads the device's packet count before the run's first clock, so
//     the run's first packets (one per port that plays) are known without a race;
//   - time code: the quarter frames arrive with their pieces in order (0..7 cycling) and each
//     complete time is two frames after the one before, and the first after a full frame (every
//     locate sends one) is at most two frames after it.
// Prints figures and every violation with the seed that makes it again. Exit status 1 on any
// violation.
//
//   soak [--seconds N] [--seed S] [--tracks T]   (short mode; defaults: 60 s, seed from the clock,
//                                                 32 tracks)
//   soak --show [--speed F] [--seed S] [--tracks T] [--seconds N]   (the whole show; --seconds
//                                                 cuts it short)
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "apps/show_session.h"
#include "apps/sync_outputs.h"
#include "interfaces/kit.h"
#include "platform/virtual_midi.h"
#include "velt_core/song_builder.h"

namespace {

using namespace std::chrono_literals;
using velt_play::PlayState;
using Message = std::vector<std::uint8_t>;
using Messages = std::vector<velt_platform::RecordedMessage>;

constexpr int kSongs = 20;
int tracks = 32;  // --tracks: ports of 16 tracks each
// --tolerate KIND: violations of a kind already reported and still open (e.g. "time code") are
// printed as usual but do not fail the run, so that a known finding does not hide new ones.
std::set<std::string> tolerated;
constexpr int kTracksPerPort = 16;
constexpr int kShortBars = 12;
constexpr int kShortCaesuraBar = 4;  // the caesura falls on the second beat of its bar
constexpr std::uint32_t kQuarter = 480;
constexpr std::uint32_t kTicksPerClock = kQuarter / 24;
constexpr std::uint32_t kNoteLength = 200;
constexpr int kMaxTransposition = 2;
// Meter (quarter notes a bar) and tempo factor of each block of bars, in turn.
constexpr int kBlockQuarters[] = {4, 3, 4, 5};
constexpr double kBlockTempo[] = {1.0, 1.2, 0.9, 1.1};

// Each track plays three keys of its own (track t: 10 + 3t .. 12 + 3t), so that a key heard,
// less the transposition, names its track whatever port and channel carried it. A note starts
// every 240 ticks at the track's own offset (0, 60, 120 or 180) and lasts 200, and every bar is
// a whole number of 240 ticks: at any tick each track holds at most one note, and at a bar line
// exactly one.
struct TrackNote {
    std::uint32_t tick;
    std::uint8_t key;
};
struct SoakSong {
    std::shared_ptr<velt_midi::SongData> data;
    std::vector<std::uint32_t> barTicks;  // start of each bar, then the song's end
    int caesuraBar = 0;
    double writtenMinutes = 0;
    std::map<unsigned short, std::vector<TrackNote>> notes;
    int Bars() const { return static_cast<int>(barTicks.size()) - 1; }
};

int TrackOf(std::uint8_t key, int transposition) {
    return (key - transposition - 10) / 3;
}

// `show`: 7 to 11 minutes at a written 90 to 160 quarter notes a minute, blocks of 8 bars, tempo
// events at the written tempo times `speed`; else 12 bars in blocks of 4 at 900 to 1500.
SoakSong MakeSong(int number, std::mt19937& random, bool show, double speed) {
    SoakSong song;
    velt_core::SongBuilder builder("Soak " + std::to_string(number), kQuarter);
    const double tempo =
        show ? 90 + static_cast<double>(random() % 71) : 900 + static_cast<double>(random() % 600);
    const double minutes = 7 + static_cast<double>(random() % 4001) / 1000.0;
    const int blockBars = show ? 8 : 4;
    std::uint32_t tick = 0;
    double seconds = 0;
    for (int bar = 0; show ? seconds < minutes * 60 : bar < kShortBars; ++bar) {
        const int block = (bar / blockBars) % 4;
        const int quarters = kBlockQuarters[block];
        const double blockTempo = tempo * kBlockTempo[block];
        if (bar % blockBars == 0) {
            builder.Meter(tick, static_cast<std::uint8_t>(quarters), 4);
            builder.Tempo(tick, blockTempo * (show ? speed : 1.0));
        }
        song.barTicks.push_back(tick);
        tick += static_cast<std::uint32_t>(quarters) * kQuarter;
        seconds += quarters * 60.0 / blockTempo;
    }
    song.writtenMinutes = seconds / 60;
    song.barTicks.push_back(tick);
    builder.LastTick(tick);
    const int bars = song.Bars();
    song.caesuraBar = show ? bars / 4 + static_cast<int>(random() % (bars / 4)) : kShortCaesuraBar;
    builder.Marker(song.barTicks[static_cast<std::size_t>(song.caesuraBar - 1)] + kQuarter,
                   "Caesura");
    for (int t = 0; t < tracks; ++t) {
        const auto id = static_cast<unsigned short>(t);
        builder.Track(id, "Track " + std::to_string(t), 0, {0, 127});
        const auto low = static_cast<std::uint8_t>(10 + 3 * t);
        auto& notes = song.notes[id];
        for (std::uint32_t at = static_cast<std::uint32_t>(t % 4) * 60; at + 240 <= tick;
             at += 240) {
            const auto key = static_cast<std::uint8_t>(low + random() % 3);
            builder.Note(id, at, key, 80, kNoteLength);
            notes.push_back({at, key});
        }
    }
    song.data = builder.Build();
    return song;
}

// Voices per note on an instrument that ignores controllers: note-ons add, note-offs take away.
class Instrument {
  public:
    void Hear(Messages::const_iterator from, Messages::const_iterator to) {
        for (; from != to; ++from) {
            const Message& m = from->bytes;
            if (m.size() != 3)
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
    // Voices per key, whatever the channel.
    std::map<int, int> SoundingKeys() const {
        std::map<int, int> keys;
        for (const auto& [key, count] : voices_) {
            if (count > 0)
                keys[key & 0xFF] += count;
        }
        return keys;
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
    // Gives the instrument what arrived since, up to message `upTo` of `messages` (all of them
    // by default).
    void Catch(const Messages& messages, std::size_t upTo) {
        upTo = std::min(upTo, messages.size());
        if (upTo > heard) {
            instrument.Hear(messages.begin() + static_cast<std::ptrdiff_t>(heard),
                            messages.begin() + static_cast<std::ptrdiff_t>(upTo));
            heard = upTo;
        }
    }
    void Catch() {
        const auto messages = output.Messages();
        Catch(messages, messages.size());
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

// Decodes the time code a device receives. Quarter frames (F1 0nnn dddd) carry a time in eight
// pieces, frames low and high nibble, seconds, minutes, hours (the last with the rate); the eight
// pieces of a cycle take two frames, so each complete time is two frames after the one before.
// A full frame (F0 7F 7F 01 01 hh mm ss ff F7) locates: the next cycle starts afresh from it.
class TimeCodeReader {
  public:
    static constexpr int kFramesPerSecond = 25;

    template <typename Report>
    void Read(const Messages& messages, std::size_t from, const Report& violation) {
        for (std::size_t i = from; i < messages.size(); ++i) {
            const Message& m = messages[i].bytes;
            if (m.size() == 10 && m[0] == 0xF0 && m[1] == 0x7F && m[3] == 0x01 && m[4] == 0x01) {
                ++fullFrames_;
                located_ = Frames(m[5] & 0x1F, m[6], m[7], m[8]);
                last_.reset();
                previousPiece_ = -1;
                complete_ = 0;
            } else if (m.size() == 2 && m[0] == 0xF1) {
                Piece(m[1] >> 4, m[1] & 0x0F, violation);
            }
        }
    }
    std::uint64_t QuarterFrames() const { return quarterFrames_; }
    std::uint64_t Times() const { return times_; }
    std::uint64_t FullFrames() const { return fullFrames_; }

  private:
    static long Frames(int hours, int minutes, int seconds, int frames) {
        return ((hours * 60L + minutes) * 60 + seconds) * kFramesPerSecond + frames;
    }
    static std::string Text(long frames) {
        char text[48];
        std::snprintf(text, sizeof text, "%02ld:%02ld:%02ld:%02ld",
                      frames / kFramesPerSecond / 3600, frames / kFramesPerSecond / 60 % 60,
                      frames / kFramesPerSecond % 60, frames % kFramesPerSecond);
        return text;
    }

    template <typename Report>
    void Piece(int piece, int nibble, const Report& violation) {
        ++quarterFrames_;
        if (previousPiece_ >= 0 && piece != (previousPiece_ + 1) % 8) {
            violation("time code piece " + std::to_string(piece) + " after piece " +
                      std::to_string(previousPiece_) + " with no full frame between");
            last_.reset();
        }
        previousPiece_ = piece;
        complete_ = piece == complete_ ? complete_ + 1 : 0;  // pieces 0.. of this cycle in order
        nibbles_[static_cast<std::size_t>(piece)] = nibble;
        if (piece != 7 || complete_ != 8)
            return;
        complete_ = 0;
        ++times_;
        const auto& n = nibbles_;
        if (const int rate = (n[7] >> 1) & 3; rate != 1)
            violation("time code rate " + std::to_string(rate) + " where 25 fps (1) was set");
        const long time =
            Frames(n[6] | (n[7] & 1) << 4, n[4] | n[5] << 4, n[2] | n[3] << 4, n[0] | n[1] << 4);
        if (last_) {
            if (const long step = time - *last_; step < 1 || step > 2)
                violation("time code went from " + Text(*last_) + " to " + Text(time) +
                          " with no full frame between");
        } else if (located_) {
            if (const long step = time - *located_; step < 0 || step > 2)
                violation("time code " + Text(time) + " follows a full frame at " +
                          Text(*located_));
        }
        last_ = time;
    }

    std::array<int, 8> nibbles_{};
    int previousPiece_ = -1;  // none since the start or the last full frame
    int complete_ = 0;        // pieces of the current cycle received in order from piece 0
    std::optional<long> last_;
    std::optional<long> located_;
    std::uint64_t quarterFrames_ = 0;
    std::uint64_t times_ = 0;
    std::uint64_t fullFrames_ = 0;
};

// The operations Operate_ draws from, by the number it draws (9 and up: a stretch).
constexpr const char* kOperationNames[] = {
    "jump",          "jump", "mute or unmute", "transposition", "tempo scale", "display delay",
    "device switch", "stop", "song change",    "attacca",       "stretch"};
constexpr unsigned kOperationKinds = 13;

class Soak {
  public:
    Soak(unsigned seed, std::optional<std::chrono::seconds> length, bool show, double speed)
        : seed_(seed),
          length_(length.value_or(show ? 24h : 60s)),
          show_(show),
          random_(seed),
          settingsPath_(std::filesystem::temp_directory_path() /
                        ("velt_soak_time_code_" + std::to_string(seed) + ".settings")) {
        auto showData = std::make_shared<pv::ParvelShowData>();
        std::vector<velt_play::SessionSong> sessionSongs;
        for (int i = 0; i < kSongs; ++i) {
            songs_.push_back(MakeSong(i + 1, random_, show, speed));
            writtenMinutes_ += songs_.back().writtenMinutes;
            showData->AddSong(songs_.back().data);
            sessionSongs.push_back({songs_.back().data->GetSongName(), songs_.back().data, ""});
        }
        devices_.push_back(std::make_unique<Device>("Soak A"));
        devices_.push_back(std::make_unique<Device>("Soak B"));
        timeCodeDevice_ = std::make_unique<Device>("Soak time code");
        session_ = std::make_unique<velt_play::ShowSession>(
            std::move(sessionSongs), showData,
            velt_play::SessionOptions{velt_play::ClockKind::precision, "Soak A", {}});
        // As velt-play does for --mtc: the sync outputs come after the session (the music has the
        // first claim on a port), outlive it, and get its transport hooks; the soak's own hooks
        // wrap theirs.
        velt_play::SyncOptions sync;
        sync.timeCodePort = timeCodeDevice_->output.DeviceId().value();
        sync.frameRate = FrameRate::Fps25;
        sync.settingsPath = settingsPath_.string();
        sync_ = std::make_unique<velt_play::SyncOutputs>(*showData, sync);
        velt_play::TransportHooks hooks = sync_->Hooks();
        hooks.starting = [this, next = hooks.starting](std::uint32_t tick) {
            {
                std::scoped_lock lock(startMutex_);
                runStart_ = RunStart{tick, devices_[current_]->output.PacketCount(), current_};
            }
            next(tick);
        };
        hooks.located = [this, next = hooks.located](const velt_midi::SongData& song,
                                                     std::uint32_t tick) {
            ++locates_;
            next(song, tick);
        };
        session_->SetTransportHooks(std::move(hooks));
    }

    ~Soak() {
        session_.reset();
        sync_.reset();
        std::error_code ignored;
        std::filesystem::remove(settingsPath_, ignored);
    }
    Soak(const Soak&) = delete;
    Soak& operator=(const Soak&) = delete;

    int Run() {
        start_ = std::chrono::steady_clock::now();
        if (show_) {
            PlayShow_();
        } else {
            Start_(1, "a song's start");
            while (!TimeUp_()) {
                Operate_();
                std::this_thread::sleep_for(std::chrono::milliseconds(5 + random_() % 60));
                KeepPlaying_();
            }
        }
        session_->Stop();
        CheckRest_("the final stop");
        PrintFigures_();
        const bool failed =
            std::any_of(violationCounts_.begin(), violationCounts_.end(),
                        [](const auto& entry) { return tolerated.count(entry.first) == 0; });
        return failed ? 1 : 0;
    }

  private:
    // Where a run started, as the session's `starting` hook saw it: its tick, the device's next
    // packet index (the run's first packet) and the device.
    struct RunStart {
        std::uint32_t tick;
        std::uint64_t packet;
        std::size_t device;
    };

    Device& Current_() { return *devices_[current_]; }
    const SoakSong& Song_() { return songs_[static_cast<std::size_t>(songIndex_)]; }
    bool TimeUp_() const { return std::chrono::steady_clock::now() - start_ >= length_; }

    // Up to ten of each kind are kept whole, so that one fault repeating does not hide another.
    void Violation_(const std::string& kind, const std::string& what) {
        if (++violationCounts_[kind] <= 10)
            violations_.push_back(what + " (operations before it:" + recent_ + ")");
    }

    // The show in order: each song from its start until it has played to its end.
    void PlayShow_() {
        for (int song = 0; song < kSongs && !TimeUp_(); ++song) {
            if (!std::exchange(attaccaStarted_, false))
                Start_(song, "a song's start");
            ended_ = false;
            while (!ended_ && !TimeUp_()) {
                Operate_();
                std::this_thread::sleep_for(std::chrono::milliseconds(100 + random_() % 1400));
                KeepPlaying_();
            }
        }
    }

    // Selects song `index` (0-based) and plays it from its start.
    void Start_(int index, const std::string& why) {
        songIndex_ = index;
        session_->SelectSong(songIndex_ + 1);
        songsEntered_.insert(songIndex_);
        session_->Play();
        CheckChase_(why);
    }

    // Nothing plays: every note the current device was given has been released.
    void CheckRest_(const std::string& where) {
        ++rests_;
        Current_().WaitUntilQuiet();
        Current_().Catch();
        if (const int sounding = Current_().instrument.Sounding(); sounding != 0) {
            Violation_("stuck notes", std::to_string(sounding) + " notes left sounding after " +
                                          where + " in song " + std::to_string(songIndex_ + 1) +
                                          " (" + Current_().instrument.Describe() + " )");
            Current_().instrument.Silence();
        }
        Current_().Forget();
        // The time code is still too (the clock stopped): read it all, then start afresh.
        timeCodeDevice_->WaitUntilQuiet();
        ReadTimeCode_();
        timeCodeDevice_->output.ClearMessages();
        timeCodeHeard_ = 0;
    }

    void ReadTimeCode_() {
        const auto messages = timeCodeDevice_->output.Messages();
        timeCode_.Read(messages, timeCodeHeard_,
                       [this](const std::string& what) { Violation_("time code", what); });
        timeCodeHeard_ = messages.size();
    }

    // Ports that carry an unmuted track: the first period of a run has a packet on each.
    std::uint64_t PortsPlaying_() const {
        std::set<int> ports;
        for (int t = 0; t < tracks; ++t) {
            if (muted_.count(static_cast<unsigned short>(t)) == 0)
                ports.insert(t / kTracksPerPort);
        }
        return ports.size();
    }

    // The keys the song holds once the first period from `tick` has played: each unmuted
    // track's note that started before the period's end and has not ended before it (a note
    // ending at the period's end is released in the next period).
    std::map<int, int> HeldAfterFirstPeriod_(std::uint32_t tick) {
        const std::uint32_t end = tick + kTicksPerClock;
        std::map<int, int> keys;
        for (const auto& [track, notes] : Song_().notes) {
            if (muted_.count(track) != 0)
                continue;
            auto note =
                std::lower_bound(notes.begin(), notes.end(), end,
                                 [](const TrackNote& n, std::uint32_t at) { return n.tick < at; });
            if (note == notes.begin())
                continue;
            --note;
            if (note->tick + kNoteLength >= end)
                ++keys[note->key + transposition_];
        }
        return keys;
    }

    // After a verb: if it started a run, once the run's first period has played, the instrument
    // sounds what the song holds there.
    void CheckChase_(const std::string& why) {
        std::optional<RunStart> start;
        {
            std::scoped_lock lock(startMutex_);
            start.swap(runStart_);
        }
        if (!start)
            return;
        Device& device = *devices_[start->device];
        const std::uint64_t after = start->packet + PortsPlaying_();
        const auto deadline = std::chrono::steady_clock::now() + 3s;
        Messages messages;
        // Done when a packet after the first period has arrived (the service plays packets in
        // order, so the first period's have all played).
        const auto laterArrived = [&] {
            return std::any_of(messages.begin(), messages.end(),
                               [&](const auto& m) { return m.packet && *m.packet >= after; });
        };
        bool resting = false;
        for (;;) {
            resting = session_->Status().state != PlayState::playing;
            if (resting)
                device.WaitUntilQuiet();
            if (resting || device.output.PacketCount() > after ||
                std::chrono::steady_clock::now() > deadline) {
                messages = device.output.Messages();
                if (laterArrived() || resting || std::chrono::steady_clock::now() > deadline)
                    break;
            }
            std::this_thread::sleep_for(1ms);
        }
        if (!laterArrived()) {
            // The run stopped (a caesura, a limit, the end) or stalled before its second period:
            // what sounds then is not the chase's.
            ++chasesSkipped_;
            return;
        }
        // Up to the first period's last message; nothing of the run is left out before it.
        std::size_t cut = device.heard;
        for (std::size_t i = device.heard; i < messages.size(); ++i) {
            const auto& packet = messages[i].packet;
            if (packet && *packet >= start->packet && *packet < after)
                cut = i + 1;
        }
        // Note-offs outside any packet: the service's own, when a stream stop drops what it had.
        int serviceNoteOffs = 0;
        for (std::size_t i = device.heard; i < cut; ++i) {
            const Message& m = messages[i].bytes;
            if (!messages[i].packet && m.size() == 3 && (m[0] & 0xF0) == 0x80)
                ++serviceNoteOffs;
        }
        device.Catch(messages, cut);
        ++chases_[why];
        const auto expected = HeldAfterFirstPeriod_(start->tick);
        const auto heard = device.instrument.SoundingKeys();
        if (heard == expected)
            return;
        std::string missing;
        std::string extra;
        for (int key = 0; key < 128; ++key) {
            const int want = expected.count(key) ? expected.at(key) : 0;
            const int got = heard.count(key) ? heard.at(key) : 0;
            std::string& list = got < want ? missing : extra;
            for (int i = 0; i < std::abs(got - want); ++i)
                list += " " + std::to_string(key) + "(track " +
                        std::to_string(TrackOf(static_cast<std::uint8_t>(key), transposition_)) +
                        ")";
        }
        Violation_("chase after " + why,
                   "chase after " + why + " at tick " + std::to_string(start->tick) + " of song " +
                       std::to_string(songIndex_ + 1) + " (transposition " +
                       std::to_string(transposition_) + ", " + std::to_string(muted_.size()) +
                       " muted): missing" + missing + "; extra" + extra + "; " +
                       std::to_string(serviceNoteOffs) +
                       " note-offs outside a packet before the run");
    }

    // A caesura is played on from; an ended song is followed by the next one (the short mode) or
    // ends the show's current song (the show).
    void KeepPlaying_() {
        auto state = session_->Status().state;
        if (state == PlayState::ended && std::exchange(attaccaSet_, false) &&
            songIndex_ + 1 < kSongs) {
            // An attacca may be due: the session starts the next song itself, at once, unless a
            // verb since the end called it off. The session's own flag is spent by the end, so
            // the soak keeps its own.
            for (int i = 0; i < 400 && session_->Status().songNumber == songIndex_ + 1; ++i)
                std::this_thread::sleep_for(5ms);
            state = session_->Status().state;
        }
        if (const int number = session_->Status().songNumber; number != songIndex_ + 1) {
            // The song's end ran into the next one: no rest between them, and the next run's
            // first period must hold exactly what the new song holds at its start.
            ++attaccas_;
            attaccaSet_ = false;
            songsEnded_.insert(songIndex_);
            ++songEnds_;
            songIndex_ = number - 1;
            songsEntered_.insert(songIndex_);
            CheckChase_("an attacca");
            if (show_) {
                ended_ = true;
                attaccaStarted_ = true;
            }
            return;
        }
        if (state == PlayState::caesura) {
            ++caesuraResumes_;
            session_->Resume();
            CheckChase_("a caesura");
        } else if (state == PlayState::ended) {
            CheckRest_("the song's end");
            songsEnded_.insert(songIndex_);
            ++songEnds_;
            if (show_) {
                ended_ = true;
            } else {
                Start_((songIndex_ + 1) % kSongs, "a song's start");
            }
        }
    }

    // A bar to jump to: anywhere in a short song; near where the show stands, mostly forward,
    // so that a long song still reaches its end.
    int JumpBar_() {
        const int bars = Song_().Bars();
        if (!show_)
            return 1 + static_cast<int>(random_() % static_cast<unsigned>(bars));
        const int here = std::max(1, session_->Status().bar);
        return std::clamp(here - 3 + static_cast<int>(random_() % 10), 1, bars);
    }

    void Operate_() {
        const unsigned operation = random_() % kOperationKinds;
        recent_ = (recent_.size() > 90 ? recent_.substr(recent_.size() - 90) : recent_) + " " +
                  kOperationNames[std::min<unsigned>(operation, 10)];
        ++operations_[kOperationNames[std::min<unsigned>(operation, 10)]];
        switch (operation) {
            case 0:
            case 1:
                session_->SeekToBar(JumpBar_());
                CheckChase_(session_->Status().state == PlayState::playing ? "a jump" : "a cue");
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
                CheckChase_("a device switch");
                left.WaitUntilQuiet();
                left.Catch();
                if (const int sounding = left.instrument.Sounding(); sounding != 0) {
                    Violation_("stuck notes",
                               std::to_string(sounding) + " notes left sounding on a device left");
                    left.instrument.Silence();
                }
                left.Forget();
                break;
            }
            case 7:
                session_->Stop();
                CheckRest_("a stop");
                if (random_() % 2) {  // a seek from the stop: the run starts cued there
                    session_->SeekToBar(JumpBar_());
                    session_->Play();
                    CheckChase_("a seek from a stop");
                } else {
                    session_->Play();
                    CheckChase_("a stop");
                }
                break;
            case 8:
                show_ ? Detour_() : ChangeSong_();
                break;
            case 9:
                // The song's end runs straight into the next song: in the show when it comes,
                // in a short song from its last bar at once.
                session_->SetAttacca(true);
                attaccaSet_ = true;
                if (!show_ && session_->Status().state == PlayState::playing) {
                    session_->SeekToBar(Song_().Bars());
                    CheckChase_("a jump");
                    // No other verb until the end has run into the next song (or stopped).
                    for (int i = 0; i < 2000; ++i) {
                        const auto status = session_->Status();
                        if (status.songNumber != songIndex_ + 1 ||
                            status.state != PlayState::playing)
                            break;
                        std::this_thread::sleep_for(5ms);
                    }
                    KeepPlaying_();
                }
                break;
            default:
                Stretch_();
                break;
        }
        ReadTimeCode_();
    }

    void ChangeSong_() {
        session_->Stop();
        CheckRest_("a stop before a song change");
        Start_(static_cast<int>(random_() % kSongs), "a song change");
    }

    // Another song for a moment, then back to the bar the show's song stood at.
    void Detour_() {
        const int home = songIndex_;
        const int bar = std::max(1, session_->Status().bar);
        session_->Stop();
        CheckRest_("a stop before a song change");
        songIndex_ = (home + 1 + static_cast<int>(random_() % (kSongs - 1))) % kSongs;
        session_->SelectSong(songIndex_ + 1);
        songsEntered_.insert(songIndex_);
        session_->SeekToBar(JumpBar_());
        session_->Play();
        CheckChase_("a song change");
        std::this_thread::sleep_for(std::chrono::milliseconds(300 + random_() % 1500));
        session_->Stop();
        CheckRest_("a stop before a song change");
        songIndex_ = home;
        session_->SelectSong(songIndex_ + 1);
        session_->SeekToBar(bar);
        session_->Play();
        CheckChase_("a song change");
    }

    // From a bar to the end of a later one (the song's end in the short mode), not across the
    // caesura, with no verb in between: each track's notes from the second period on arrive once
    // and in order, and nothing after the last bar.
    void Stretch_() {
        const SoakSong& song = Song_();
        const int bars = song.Bars();
        int first = 0;
        int last = bars;
        if (show_) {
            first = std::clamp(
                std::max(1, session_->Status().bar) + static_cast<int>(random_() % 4), 1, bars);
            last = std::min(first + 3 + static_cast<int>(random_() % 13), bars);
            if (first == song.caesuraBar)
                ++first;  // the caesura falls inside its bar
            else if (first < song.caesuraBar && last >= song.caesuraBar)
                last = song.caesuraBar - 1;
            if (first > last)
                return;
        } else {
            first = song.caesuraBar + 1 +
                    static_cast<int>(random_() % static_cast<unsigned>(bars - song.caesuraBar));
        }
        const std::uint32_t from = song.barTicks[static_cast<std::size_t>(first - 1)];
        const std::uint32_t to = song.barTicks[static_cast<std::size_t>(last)];
        if (last == bars) {
            session_->SetAttacca(false);  // checked up to the song's end, and no further
            attaccaSet_ = false;
        }
        Device& device = Current_();
        device.Catch();
        const std::size_t mark = device.heard;
        session_->SeekToBar(first);
        CheckChase_("a jump");
        session_->PlayUntilBar(last);
        CheckChase_("a play from a cue");
        if (!session_->WaitUntilNotPlaying(120s)) {
            Violation_("stretch", "a straight stretch did not end within two minutes");
            return;
        }
        device.WaitUntilQuiet();
        ++stretches_;
        const auto messages = device.output.Messages();
        std::map<int, std::vector<std::uint8_t>> heard;
        for (std::size_t i = mark; i < messages.size(); ++i) {
            const Message& m = messages[i].bytes;
            if (m.size() == 3 && (m[0] & 0xF0) == 0x90 && m[2] > 0)
                heard[TrackOf(m[1], transposition_)].push_back(m[1]);
        }
        for (const auto& [track, notes] : song.notes) {
            if (muted_.count(track) != 0)
                continue;
            std::vector<std::uint8_t> expected;
            for (const auto& note : notes) {
                if (note.tick >= from + kTicksPerClock && note.tick < to)
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
                Violation_("stretch", "track " + std::to_string(track) + " of song " +
                                          std::to_string(songIndex_ + 1) + " from bar " +
                                          std::to_string(first) + " to bar " +
                                          std::to_string(last) + ": " + std::to_string(got.size()) +
                                          " notes heard for " + std::to_string(expected.size()) +
                                          " expected, or out of order");
            }
        }
        if (session_->Status().state == PlayState::stopped) {
            CheckRest_("a stretch's last bar");
            session_->Play();
            CheckChase_("a stop");
        }
        // A stretch that ended the song: KeepPlaying_ checks the rest and moves on.
    }

    void PrintFigures_() {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
        std::uint64_t noteOns = 0;
        for (const auto& device : devices_)
            noteOns += device->instrument.NoteOns();
        std::uint64_t operations = 0;
        std::string byKind;
        for (const auto& [kind, count] : operations_) {
            operations += count;
            byKind += " " + std::string(kind) + " " + std::to_string(count) + ",";
        }
        int chases = 0;
        std::string byCause;
        for (const auto& [cause, count] : chases_) {
            chases += count;
            byCause += " " + cause + " " + std::to_string(count) + ",";
        }
        std::printf(
            "soak seed %u (%s): %.1f s; %zu songs entered, %zu played to their end "
            "(%d song ends)%s\n",
            seed_, show_ ? "the show" : "short songs", seconds, songsEntered_.size(),
            songsEnded_.size(), songEnds_,
            show_ ? (", show written at " + std::to_string(writtenMinutes_ / 60) + " h").c_str()
                  : "");
        std::printf("  %d attaccas into the next song\n", attaccas_);
        std::printf("  %llu operations:%s caesura resumes %d\n",
                    static_cast<unsigned long long>(operations), byKind.c_str(), caesuraResumes_);
        std::printf(
            "  %llu note-ons heard, %d straight stretches checked (%llu notes), %d rests "
            "checked\n",
            static_cast<unsigned long long>(noteOns), stretches_,
            static_cast<unsigned long long>(stretchNotes_), rests_);
        std::printf(
            "  %d runs' chase checked:%s %d not checked (the run stopped in its first "
            "period)\n",
            chases, byCause.c_str(), chasesSkipped_);
        std::printf(
            "  time code: %llu quarter frames, %llu times decoded, %llu full frames for "
            "%d locates\n",
            static_cast<unsigned long long>(timeCode_.QuarterFrames()),
            static_cast<unsigned long long>(timeCode_.Times()),
            static_cast<unsigned long long>(timeCode_.FullFrames()), locates_.load());
        int violations = 0;
        std::string kinds;
        for (const auto& [kind, count] : violationCounts_) {
            violations += count;
            kinds += " " + kind + " " + std::to_string(count) + ",";
        }
        std::printf("  %d violations:%s\n", violations, kinds.c_str());
        for (const auto& kind : tolerated)
            std::printf("  (%s violations are an open finding: printed, not failing the run)\n",
                        kind.c_str());
        for (const auto& violation : violations_)
            std::printf("VIOLATION (seed %u): %s\n", seed_, violation.c_str());
    }

    const unsigned seed_;
    const std::chrono::steady_clock::duration length_;
    const bool show_;
    std::mt19937 random_;
    const std::filesystem::path settingsPath_;
    std::vector<SoakSong> songs_;
    double writtenMinutes_ = 0;
    std::vector<std::unique_ptr<Device>> devices_;
    std::unique_ptr<Device> timeCodeDevice_;
    std::unique_ptr<velt_play::SyncOutputs> sync_;     // outlives the session, which calls it
    std::unique_ptr<velt_play::ShowSession> session_;  // after the devices: closed first
    std::chrono::steady_clock::time_point start_;
    std::size_t current_ = 0;
    int songIndex_ = 0;
    bool ended_ = false;           // the show's current song has played to its end
    bool attaccaStarted_ = false;  // ... and an attacca has started the next one
    int attaccas_ = 0;
    bool attaccaSet_ = false;  // an attacca was asked for and not yet seen used or withdrawn
    int transposition_ = 0;
    std::set<unsigned short> muted_;

    std::mutex startMutex_;
    std::optional<RunStart> runStart_;  // guarded by startMutex_
    std::atomic<int> locates_ = 0;

    TimeCodeReader timeCode_;
    std::size_t timeCodeHeard_ = 0;
    std::map<std::string, std::uint64_t> operations_;
    std::map<std::string, int> chases_;
    int chasesSkipped_ = 0;
    int caesuraResumes_ = 0;
    std::set<int> songsEntered_;
    std::set<int> songsEnded_;
    int songEnds_ = 0;
    int stretches_ = 0;
    std::uint64_t stretchNotes_ = 0;
    int rests_ = 0;
    std::vector<std::string> violations_;
    std::map<std::string, int> violationCounts_;
    std::string recent_;  // the last operations, for a violation's report
};

}  // namespace

int main(int argc, char** argv) {
    std::optional<std::chrono::seconds> seconds;
    bool show = false;
    double speed = 9;
    auto seed = static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count() &
                                      0x7FFFFFFF);
    const auto usage = [] {
        std::fprintf(stderr,
                     "usage: soak [--show [--speed F]] [--seconds N] [--seed S] [--tracks 1..32] "
                     "[--tolerate KIND]\n");
        return 2;
    };
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--show") {
            show = true;
            continue;
        }
        if (i + 1 >= argc)
            return usage();
        const char* value = argv[++i];
        if (option == "--seconds") {
            seconds = std::chrono::seconds(std::strtol(value, nullptr, 10));
        } else if (option == "--tracks") {
            tracks = std::clamp(static_cast<int>(std::strtol(value, nullptr, 10)), 1, 32);
        } else if (option == "--seed") {
            seed = static_cast<unsigned>(std::strtoul(value, nullptr, 10));
        } else if (option == "--speed") {
            speed = std::clamp(std::strtod(value, nullptr), 1.0, 12.0);
        } else if (option == "--tolerate") {
            tolerated.insert(value);
        } else {
            return usage();
        }
    }
    // The clock's lag warnings and the like are part of a soak, not its figures.
    std::uint64_t logLines = 0;
    kit::SetLogSink([&logLines](const std::string&) { ++logLines; });
    int status = 0;
    {
        Soak soak(seed, seconds, show, speed);
        status = soak.Run();
    }
    std::printf("log lines written: %llu\n", static_cast<unsigned long long>(logLines));
    return status;
}
