// Playback timing: the whole assembly (clock, position, stream, output, stream device) plays a
// song of known tempo map into a recording device; each note-on's arrival is compared with its
// time in the tempo map (the origin being the one that puts the metronome's median error at
// zero, so a constant latency does not count). The song has two parts: a
// metronome (quarter notes, tempo 120, then 90, then 150 quarter notes a minute) and a part with
// a note on every eighth note moved by 0..19 ticks, so that its notes fall at every offset inside
// a MIDI clock (20 ticks at 480 per quarter note). Runs, each printing p50/p99/max of the
// absolute error for each part:
//
//   - the precision clock (the programs' clock) with exact timing and with clock timing;
//   - the standard clock with both timings;
//   - the precision clock held up once for 100 ms (a send that waited for the device used to do
//     this), with the error of the notes due after the stall shown on their own;
//   - a reference player written here: one thread, absolute deadlines from the tempo map, one
//     message at a time through a plain output handle of the same service and device.
//
// Two recorders: a virtual output device of the MIDI service, which stamps each message on
// arrival (default), and, with --jack, a private JACK server (dummy driver, own server name) and a
// recorder client in a process of its own that stamps each message by its frame: the engine plays
// to the recorder's port through the service's JACK device.
//
//   playback_timing_bench [--bars N] [--jack RECORDER]
//
// N: bars of 4/4 per tempo (default 4). RECORDER: the jack_timing_recorder program.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "midi/win32/precision_midi_clock_impl.h"
#include "midi/win32/standard_midi_clock_impl.h"
#include "platform/mmsystem.h"
#include "platform/precise_wait.h"
#include "platform/virtual_midi.h"
#include "tests/support/song_player.h"
#include "velt_core/song_builder.h"

extern char** environ;

namespace {

constexpr std::uint32_t kTicksPerQuarter = 480;
constexpr std::uint32_t kTicksPerClock = kTicksPerQuarter / 24;
constexpr std::uint16_t kMetronomeTrack = 0x00;
constexpr std::uint16_t kPartTrack = 0x01;
constexpr double kTempi[] = {120, 90, 150};

velt_midi::SongData TimingSong(std::uint32_t barsPerTempo) {
    const std::uint32_t span = barsPerTempo * 4 * kTicksPerQuarter;
    velt_core::SongBuilder builder("Timing", kTicksPerQuarter);
    for (std::uint32_t i = 0; i < 3; ++i) {
        builder.Tempo(i * span, kTempi[i]);
    }
    builder.Meter(0, 4, 4).Bars(3 * barsPerTempo);
    for (std::uint32_t tick = 0; tick < 3 * span; tick += kTicksPerQuarter) {
        builder.Note(kMetronomeTrack, tick,
                     static_cast<std::uint8_t>(60 + (tick / kTicksPerQuarter) % 12), 90,
                     kTicksPerQuarter / 2);
    }
    std::uint32_t n = 0;
    for (std::uint32_t eighth = 0; eighth + kTicksPerQuarter < 3 * span;
         eighth += kTicksPerQuarter / 2, ++n) {
        builder.Note(kPartTrack, eighth + n % kTicksPerClock,
                     static_cast<std::uint8_t>(72 + n % 12), 70, kTicksPerQuarter / 4);
    }
    return *builder.Build();
}

// Seconds from tick 0 to `tick` along the tempo map.
double IdealSeconds(const velt_midi::SongData& song, std::uint32_t tick) {
    const auto& tempos = song.GetTimeline().GetTempos();
    double seconds = 0;
    for (std::size_t i = 0; i < tempos.size() && tempos[i].tick_index < tick; ++i) {
        std::uint32_t end = i + 1 < tempos.size() ? std::min(tempos[i + 1].tick_index, tick) : tick;
        seconds += (end - tempos[i].tick_index) * tempos[i].tick_time(kTicksPerQuarter);
    }
    return seconds;
}

// One message as a recorder saw it: bytes and its time in nanoseconds (any origin).
struct Arrival {
    std::vector<std::uint8_t> bytes;
    std::int64_t ns = 0;
};

// Where the music goes and how its arrivals are read back.
class Recorder {
  public:
    virtual ~Recorder() = default;
    // The output device's product name, as the service lists it.
    virtual std::string DeviceName() const = 0;
    virtual void Clear() = 0;
    // Every message since Clear, in arrival order; waits (up to a few seconds) for `count`.
    virtual std::vector<Arrival> Arrivals(std::size_t count) = 0;
};

class VirtualRecorder : public Recorder {
  public:
    std::string DeviceName() const override { return "Timing Bench Out"; }
    void Clear() override { device_.ClearMessages(); }
    std::vector<Arrival> Arrivals(std::size_t count) override {
        device_.WaitForMessages(count, std::chrono::milliseconds(3000));
        std::vector<Arrival> arrivals;
        for (const auto& message : device_.Messages()) {
            arrivals.push_back({message.bytes, message.timestampNs});
        }
        return arrivals;
    }

  private:
    velt_platform::VirtualMidiOutput device_{DeviceName()};
};

// Runs a program with its standard output on a pipe; SIGTERM and a wait at the end.
class Child {
  public:
    explicit Child(const std::vector<std::string>& args) {
        int fds[2];
        if (pipe(fds) != 0) {
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        std::vector<char*> argv;
        for (const auto& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        if (posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        close(fds[1]);
        out_ = fdopen(fds[0], "r");
    }
    ~Child() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
        if (out_ != nullptr) {
            fclose(out_);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    bool Started() const { return pid_ > 0 && out_ != nullptr; }
    // One line of the child's output, without its end; empty at the end of the output.
    std::optional<std::string> ReadLine() {
        char line[256];
        if (out_ == nullptr || fgets(line, sizeof line, out_) == nullptr) {
            return std::nullopt;
        }
        std::string text(line);
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
            text.pop_back();
        }
        return text;
    }

  private:
    pid_t pid_ = -1;
    FILE* out_ = nullptr;
};

// A private JACK server and the recorder client, whose lines ("<frame> <rate> <hex bytes>") a
// reader thread collects.
class JackRecorder : public Recorder {
  public:
    explicit JackRecorder(const std::string& recorderProgram)
        : name_("velt_bench_" + std::to_string(getpid())) {
        setenv("JACK_DEFAULT_SERVER", name_.c_str(), 1);
        setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
        server_ = std::make_unique<Child>(
            std::vector<std::string>{"jackd", "--no-realtime", "--sync", "-t", "5000", "-n", name_,
                                     "-d", "dummy", "-r", "48000", "-p", "256"});
        Child wait({"jack_wait", "-w", "-t", "10", "-s", name_});
        while (wait.ReadLine()) {
        }
        recorder_ = std::make_unique<Child>(std::vector<std::string>{recorderProgram, "bench_rec"});
        const auto ready = recorder_->ReadLine();
        ready_ = server_->Started() && ready && *ready == "ready";
        if (ready_) {
            reader_ = std::thread([this] { Read_(); });
        }
    }
    ~JackRecorder() override {
        recorder_.reset();  // its output ends, so the reader ends
        if (reader_.joinable()) {
            reader_.join();
        }
    }
    bool Ready() const { return ready_; }
    std::string DeviceName() const override { return "bench_rec:in"; }
    void Clear() override {
        std::scoped_lock lock(mutex_);
        arrivals_.clear();
    }
    std::vector<Arrival> Arrivals(std::size_t count) override {
        for (int i = 0; i < 300; ++i) {
            {
                std::scoped_lock lock(mutex_);
                if (arrivals_.size() >= count) {
                    break;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::scoped_lock lock(mutex_);
        return arrivals_;
    }

  private:
    void Read_() {
        while (const auto line = recorder_->ReadLine()) {
            unsigned long long frame = 0;
            unsigned rate = 0;
            int used = 0;
            if (std::sscanf(line->c_str(), "%llu %u%n", &frame, &rate, &used) != 2 || rate == 0) {
                continue;
            }
            Arrival arrival;
            arrival.ns = static_cast<std::int64_t>(static_cast<double>(frame) * 1e9 / rate);
            unsigned byte = 0;
            int more = 0;
            const char* at = line->c_str() + used;
            while (std::sscanf(at, "%x%n", &byte, &more) == 1) {
                arrival.bytes.push_back(static_cast<std::uint8_t>(byte));
                at += more;
            }
            std::scoped_lock lock(mutex_);
            arrivals_.push_back(std::move(arrival));
        }
    }

    std::string name_;
    std::unique_ptr<Child> server_;
    std::unique_ptr<Child> recorder_;
    bool ready_ = false;
    std::thread reader_;
    std::mutex mutex_;
    std::vector<Arrival> arrivals_;
};

// The clock thread is held up this long once, right after its wait for clock kStallClock of the
// run: that clock and the ones that come due meanwhile fire late.
constexpr std::chrono::milliseconds kStall{100};
// 7.92 s into the song with 4 bars a tempo: the metronome note at 8 s is due during the stall.
constexpr int kStallClock = 380;

class StalledPrecisionClock : public PrecisionMidiClockImpl {
  public:
    StalledPrecisionClock() : PrecisionMidiClockImpl(StallingTiming()) {}

  private:
    static Timing StallingTiming() {
        Timing timing = PreciseTiming(kDefaultSpin);
        auto waits = std::make_shared<std::atomic<int>>(0);
        timing.waitUntil = [wait = timing.waitUntil, waits](std::int64_t deadline) {
            wait(deadline);
            if ((*waits)++ == kStallClock) {
                std::this_thread::sleep_for(kStall);
            }
        };
        return timing;
    }
};

struct Figures {
    std::size_t count = 0;
    double p50 = 0, p99 = 0, max = 0;
};

Figures FiguresOf(std::vector<double> deviations) {
    Figures figures;
    if (deviations.empty()) {
        return figures;
    }
    for (double& d : deviations) {
        d = std::fabs(d);
    }
    std::sort(deviations.begin(), deviations.end());
    auto at = [&](double fraction) {
        return deviations[static_cast<std::size_t>(fraction *
                                                   static_cast<double>(deviations.size() - 1))];
    };
    return {deviations.size(), at(0.5), at(0.99), deviations.back()};
}

// The note-ons of one track in tick order.
std::vector<std::uint32_t> NoteOnTicks(const velt_midi::SongData& song, std::uint16_t track) {
    std::vector<std::uint32_t> ticks;
    for (const auto& event : song.GetVoiceData().at(track).events) {
        if ((event.status & 0xF0) == 0x90 && event.data2 > 0) {
            ticks.push_back(event.time);
        }
    }
    return ticks;
}

// Prints one run: the error of each part's note-ons against the tempo map; with a stall, of the
// notes after it too (`stallEnd`: its end in seconds of the song).
void Report(const char* name, const velt_midi::SongData& song, const std::vector<Arrival>& heard,
            double stallEnd = -1) {
    std::vector<std::int64_t> byTrack[2];
    for (const auto& arrival : heard) {
        if (arrival.bytes.size() == 3 && (arrival.bytes[0] & 0xF0) == 0x90 &&
            arrival.bytes[2] > 0 && (arrival.bytes[0] & 0x0F) < 2) {
            byTrack[arrival.bytes[0] & 0x0F].push_back(arrival.ns);
        }
    }
    std::printf("%-34s", name);
    const auto metronome = NoteOnTicks(song, kMetronomeTrack);
    if (byTrack[kMetronomeTrack].size() != metronome.size()) {
        std::printf("  %zu of %zu metronome notes arrived\n", byTrack[kMetronomeTrack].size(),
                    metronome.size());
        return;
    }
    // The origin: the arrival time that puts the metronome's median error at zero, so that a
    // constant latency (a JACK period, a first send that is slow) is not counted as error while
    // every wander and drift is.
    std::vector<double> latency;
    for (std::size_t i = 0; i < metronome.size(); ++i) {
        latency.push_back(static_cast<double>(byTrack[kMetronomeTrack][i]) / 1e6 -
                          1000.0 * IdealSeconds(song, metronome[i]));
    }
    std::nth_element(latency.begin(), latency.begin() + latency.size() / 2, latency.end());
    const double origin = latency[latency.size() / 2];
    for (std::uint16_t track : {kMetronomeTrack, kPartTrack}) {
        const auto ticks = NoteOnTicks(song, track);
        if (byTrack[track].size() != ticks.size()) {
            std::printf("  %zu of %zu notes arrived", byTrack[track].size(), ticks.size());
            continue;
        }
        std::vector<double> all;
        std::vector<double> after;
        for (std::size_t i = 0; i < ticks.size(); ++i) {
            const double ideal = 1000.0 * IdealSeconds(song, ticks[i]);
            const double actual = static_cast<double>(byTrack[track][i]) / 1e6 - origin;
            all.push_back(actual - ideal);
            if (stallEnd >= 0 && ideal >= 1000.0 * stallEnd) {
                after.push_back(actual - ideal);
            }
        }
        const Figures f = FiguresOf(all);
        std::printf("  %6.3f %6.3f %6.3f", f.p50, f.p99, f.max);
        if (!after.empty()) {
            const Figures a = FiguresOf(after);
            std::printf(" (after stall %6.3f %6.3f %6.3f, last %+7.3f)", a.p50, a.p99, a.max,
                        after.back());
        }
    }
    std::printf("\n");
    std::fflush(stdout);
}

std::size_t NoteOnCount(const velt_midi::SongData& song) {
    return NoteOnTicks(song, kMetronomeTrack).size() + NoteOnTicks(song, kPartTrack).size();
}

template <typename Clock>
void PlayEngine(const char* name, const velt_midi::SongData& song, Recorder& recorder, bool exact,
                double stallEnd = -1) {
    recorder.Clear();
    {
        playback::SongPlayer<Clock> host(song, 1, {}, exact);
        host.Output().CreateSynthOutput(recorder.DeviceName());
        host.Play(0);
        if (!host.WaitForStops(1)) {
            std::printf("%s: the song did not end\n", name);
            return;
        }
    }
    // Every message that arrives, note-offs and the end's resets included, is enough.
    Report(name, song, recorder.Arrivals(2 * NoteOnCount(song)), stallEnd);
}

// The baseline: every message of the song at its time in the tempo map, each waited for with an
// absolute deadline (the last 200 us spun) and sent alone.
void PlayReference(const velt_midi::SongData& song, Recorder& recorder) {
    recorder.Clear();
    std::optional<UINT> device;
    for (UINT id = 0; id < midiOutGetNumDevs(); ++id) {
        MIDIOUTCAPSW caps{};
        if (midiOutGetDevCapsW(id, &caps, sizeof caps) == MMSYSERR_NOERROR) {
            std::string name;
            for (const WCHAR* c = caps.szPname; *c != 0; ++c) {
                name.push_back(static_cast<char>(*c));
            }
            if (name == recorder.DeviceName()) {
                device = id;
            }
        }
    }
    HMIDIOUT out = nullptr;
    if (!device || midiOutOpen(&out, *device, 0, 0, CALLBACK_NULL) != MMSYSERR_NOERROR) {
        std::printf("reference player: the device is not there\n");
        return;
    }
    struct Timed {
        std::int64_t ns;
        DWORD message;
    };
    std::vector<Timed> messages;
    for (const auto& [id, track] : song.GetVoiceData()) {
        for (const auto& event : track->events) {
            const auto status = static_cast<DWORD>(event.status);
            messages.push_back({static_cast<std::int64_t>(IdealSeconds(song, event.time) * 1e9),
                                status | (DWORD{event.data1} << 8) | (DWORD{event.data2} << 16)});
        }
    }
    std::stable_sort(messages.begin(), messages.end(),
                     [](const Timed& a, const Timed& b) { return a.ns < b.ns; });
    // A thread of its own at the priority the engine's clock asks for, so that the baseline is
    // as good a player as the machine allows.
    std::thread player([&] {
        SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL);
        const std::int64_t start = VeltPreciseTimeNow() + 50'000'000;
        for (const auto& message : messages) {
            VeltPreciseWaitUntil(start + message.ns, 200'000);
            midiOutShortMsg(out, message.message);
        }
    });
    player.join();
    midiOutClose(out);
    Report("reference player (deadlines)", song, recorder.Arrivals(2 * NoteOnCount(song)));
}

void RunAll(const velt_midi::SongData& song, Recorder& recorder) {
    std::printf("%-34s  %-20s  %-20s\n", "", "metronome p50/p99/max", "offset part p50/p99/max");
    PlayReference(song, recorder);
    PlayEngine<PrecisionMidiClockImpl>("precision clock, exact timing", song, recorder, true);
    PlayEngine<PrecisionMidiClockImpl>("precision clock, clock timing", song, recorder, false);
    PlayEngine<StandardMidiClockImpl>("standard clock, exact timing", song, recorder, true);
    PlayEngine<StandardMidiClockImpl>("standard clock, clock timing", song, recorder, false);
    // The stall follows clock kStallClock, whose tick is kStallClock clocks into the song.
    const double stallAt = IdealSeconds(song, kStallClock * kTicksPerClock);
    // The notes after it: due from 50 ms after its end, once the clocks that came due in it
    // have fired.
    const double stallEnd = stallAt + std::chrono::duration<double>(kStall).count() + 0.05;
    std::printf("the clock thread held up once for %lld ms at %.3f s:\n",
                static_cast<long long>(kStall.count()), stallAt);
    PlayEngine<StalledPrecisionClock>("precision clock, exact timing", song, recorder, true,
                                      stallEnd);
    PlayEngine<StalledPrecisionClock>("precision clock, clock timing", song, recorder, false,
                                      stallEnd);
}

void PrintLoad(const char* when) {
    double load[3] = {0, 0, 0};
    if (getloadavg(load, 3) == 3) {
        std::printf("load average %s: %.2f %.2f %.2f\n", when, load[0], load[1], load[2]);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::uint32_t bars = 4;
    std::string jackRecorder;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--bars") == 0) {
            bars = static_cast<std::uint32_t>(std::max(1, std::atoi(argv[i + 1])));
        } else if (std::strcmp(argv[i], "--jack") == 0) {
            jackRecorder = argv[i + 1];
        }
    }
    const velt_midi::SongData song = TimingSong(bars);
    std::printf(
        "song: %u bars each at 120, 90 and 150 quarter notes a minute, %.1f s; errors in ms"
        " against the tempo map\n",
        bars, IdealSeconds(song, song.GetTimeline().lastTickIndex));
    PrintLoad("before");
    if (jackRecorder.empty()) {
        std::printf("recorder: a virtual output device (stamped on arrival)\n");
        VirtualRecorder recorder;
        RunAll(song, recorder);
    } else {
        JackRecorder recorder(jackRecorder);
        if (!recorder.Ready()) {
            std::printf("the JACK server or the recorder did not start\n");
            return 1;
        }
        std::printf(
            "recorder: a JACK client stamping each event by its frame (dummy driver, 48 kHz,"
            " 256 frames a period)\n");
        RunAll(song, recorder);
    }
    PrintLoad("after");
    return 0;
}
