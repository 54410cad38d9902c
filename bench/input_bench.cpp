// MIDI input to command notification: how long a learned note takes from its arrival at the
// input to the transport command's notification, through a virtual input device and through a
// JACK port fed by a peer client of the bench's own JACK server.
//
//   input_bench [messages [frames]]   (default 2000 per path, 2 ms apart; 64 frames a period)
//
// The JACK path needs jackd (jackd2) and the jack_midi_peer helper of the tests next to this
// program; it starts its own server with the dummy driver (no real-time scheduling) at 48 kHz
// with the given frames a period (64: 1.33 ms), and is skipped when either is missing. A note
// reaches the bench's port in the cycle after the peer read it, so the period bounds the figure
// from below.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "midi/midi_commands.h"
#include "midi/midi_endpoints.h"
#include "platform/virtual_midi.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr unsigned char kPlay = 2;
constexpr unsigned char kNote = 60;

// Stamps every Play notification and lets the sender wait for it.
class Stamps {
  public:
    Stamps() {
        notify::callbackDispatcher.AddCallback(notify::names::midiCommandPlay, this, [this](void*) {
            const auto now = Clock::now();
            std::scoped_lock lock(mutex_);
            arrived_.push_back(now);
            changed_.notify_all();
        });
    }
    ~Stamps() { notify::callbackDispatcher.RemoveCallbacksForTarget(this); }

    bool WaitFor(std::size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 5s, [&] { return arrived_.size() >= count; });
    }
    std::vector<Clock::time_point> Arrived() {
        std::scoped_lock lock(mutex_);
        return arrived_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Clock::time_point> arrived_;
};

double LoadAverage() {
    double load = 0;
    std::ifstream("/proc/loadavg") >> load;
    return load;
}

void Report(const char* path, const std::vector<Clock::time_point>& sent,
            const std::vector<Clock::time_point>& arrived) {
    std::vector<double> microseconds;
    for (std::size_t i = 0; i < sent.size() && i < arrived.size(); ++i) {
        microseconds.push_back(
            std::chrono::duration<double, std::micro>(arrived[i] - sent[i]).count());
    }
    if (microseconds.empty()) {
        std::printf("%-16s no message arrived\n", path);
        return;
    }
    std::sort(microseconds.begin(), microseconds.end());
    const auto at = [&](double fraction) {
        return microseconds[std::min(microseconds.size() - 1,
                                     static_cast<std::size_t>(fraction * microseconds.size()))];
    };
    std::printf("%-16s messages %5zu/%zu   p50 %8.1f us   p99 %8.1f us   max %8.1f us\n", path,
                microseconds.size(), sent.size(), at(0.50), at(0.99), microseconds.back());
}

// Connects the commands to input `sourceIndex` with Play learned on note 60, channel 1, sends
// `count` notes through `send` and reports the delay of each notification.
void Measure(const char* path, unsigned char sourceIndex, int count,
             const std::function<bool()>& send) {
    const auto settings = std::filesystem::temp_directory_path() /
                          ("input_bench_" + std::to_string(getpid()) + ".dat");
    MidiMessageDispatcher dispatcher;
    Stamps stamps;
    std::vector<Clock::time_point> sent;
    {
        midi_commands::MidiCommands commands(dispatcher, settings.string());
        commands.ConnectSourceByIndex(sourceIndex);
        commands.SetMidiCommand(kPlay, 0x90, 0, kNote);
        // One note first, unmeasured: the path's threads are awake and its queues allocated.
        if (!send() || !stamps.WaitFor(1)) {
            std::printf("%-16s the first note did not arrive\n", path);
            return;
        }
        for (int i = 0; i < count; ++i) {
            sent.push_back(Clock::now());
            if (!send() || !stamps.WaitFor(sent.size() + 1)) {
                sent.pop_back();
                break;
            }
            std::this_thread::sleep_for(2ms);
        }
        dispatcher.Disconnect();
    }
    std::filesystem::remove(settings);
    auto arrived = stamps.Arrived();
    arrived.erase(arrived.begin());
    Report(path, sent, arrived);
}

// The bench's own JACK server, started through the shell and stopped (SIGTERM) at the end.
class JackServer {
  public:
    JackServer(const std::string& name, int frames) {
        const std::string pidFile = std::filesystem::temp_directory_path() / (name + ".pid");
        const std::string start = "jackd --no-realtime --sync -t 5000 -n " + name +
                                  " -d dummy -r 48000 -p " + std::to_string(frames) +
                                  " >/dev/null 2>&1 & echo $! > " + pidFile;
        if (std::system(start.c_str()) == 0) {
            std::ifstream(pidFile) >> pid_;
        }
        std::filesystem::remove(pidFile);
        const std::string wait = "jack_wait -w -t 10 -s " + name + " >/dev/null 2>&1";
        ready_ = pid_ > 0 && std::system(wait.c_str()) == 0;
    }
    ~JackServer() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }
    JackServer(const JackServer&) = delete;
    JackServer& operator=(const JackServer&) = delete;
    bool Ready() const { return ready_; }

  private:
    pid_t pid_ = -1;
    bool ready_ = false;
};

bool FileSays(const std::string& path, const std::string& text) {
    for (auto deadline = Clock::now() + 10s; Clock::now() < deadline;
         std::this_thread::sleep_for(10ms)) {
        std::ifstream in(path);
        std::string line;
        if (std::getline(in, line) && line == text) {
            return true;
        }
    }
    return false;
}

// The JACK library's threads complain on the standard error stream when the server goes while
// the service's client is still connected (it stays until the process ends): not the bench's
// business.
struct SilenceJackOnShutdown {
    ~SilenceJackOnShutdown() {
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, STDERR_FILENO);
            close(null);
        }
    }
};

void MeasureJack(int count, int frames, const std::string& peerProgram) {
    if (std::system("command -v jackd >/dev/null 2>&1") != 0 ||
        !std::filesystem::exists(peerProgram)) {
        std::printf("%-16s skipped: jackd or %s is missing\n", "JACK", peerProgram.c_str());
        return;
    }
    const std::string name = "velt_bench_" + std::to_string(getpid());
    const std::string log = std::filesystem::temp_directory_path() / (name + ".out");
    setenv("JACK_DEFAULT_SERVER", name.c_str(), 1);
    setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
    JackServer server(name, frames);
    const SilenceJackOnShutdown silence;  // destroyed before the server is stopped
    if (!server.Ready()) {
        std::printf("%-16s skipped: the JACK server did not start\n", "JACK");
        return;
    }
    // The peer sends each line it reads as one message and ends when its input ends.
    const std::string command = "exec " + peerProgram + " vbench source > " + log + " 2>/dev/null";
    FILE* toPeer = popen(command.c_str(), "w");
    if (toPeer == nullptr || !FileSays(log, "ready")) {
        std::printf("%-16s skipped: the peer client did not start\n", "JACK");
    } else {
        std::optional<unsigned char> index;
        for (const auto& source : GetNonVeltMidiSources()) {
            if (source.GetSourceName() == "vbench:out") {
                index = static_cast<unsigned char>(source.GetSourceIndex());
            }
        }
        if (!index) {
            std::printf("%-16s skipped: the peer's port is not listed\n", "JACK");
        } else {
            const std::string path = "JACK (" + std::to_string(frames) + " frames)";
            Measure(path.c_str(), *index, count, [&] {
                return std::fputs("90 3c 64\n", toPeer) >= 0 && std::fflush(toPeer) == 0;
            });
        }
    }
    if (toPeer != nullptr) {
        pclose(toPeer);
    }
    std::filesystem::remove(log);
}

}  // namespace

int main(int argc, char** argv) {
    const int count = argc > 1 ? std::max(1, std::atoi(argv[1])) : 2000;
    signal(SIGPIPE, SIG_IGN);
    kit::SetLogSink([](const std::string&) {});  // the settings file's first-load warning
    std::printf("input to command notification, %d notes 2 ms apart; load average %.2f\n", count,
                LoadAverage());
    {
        velt_platform::VirtualMidiInput pads("Bench Pads");
        Measure("virtual input", static_cast<unsigned char>(*pads.DeviceId()), count,
                [&] { return pads.SendShort(0x90, kNote, 100); });
    }
    const std::string peer =
        (std::filesystem::path(argv[0]).parent_path() / "jack_midi_peer").string();
    MeasureJack(count, argc > 2 ? std::max(16, std::atoi(argv[2])) : 64, peer);
    std::printf("load average after %.2f\n", LoadAverage());
    return 0;
}
