// velt-play: plays a show, song after song, to MIDI output device 0 (the first virtual or system
// port, or the built-in default output when the machine has none), printing each bar as it is
// heard and what arrived at the device.
//
//   velt-play [show folder | show.json] [--song N] [--tempo-scale X] [--precision]
//             [--midi-file PATH] [--devices]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <map>
#include <mutex>
#include <string>

#include "apps/song_player.h"
#include "interfaces/notify.h"
#include "midi/win32/midi_device_info.h"
#include "midi/win32/precision_midi_clock_impl.h"
#include "midi/win32/standard_midi_clock_impl.h"
#include "platform/virtual_midi.h"
#include "velt_core/show_loader.h"

namespace {

struct Options {
    std::string show = "examples/harbour_lights";
    int song = 0;  // 0: every song
    double tempoScale = 1.0;
    bool precision = false;
    std::string midiFile;
    bool devicesOnly = false;
};

void Usage() {
    std::cerr << "usage: velt-play [show folder | show.json] [--song N] [--tempo-scale X] "
                 "[--precision] [--midi-file PATH] [--devices]\n"
                 "  --song N         play only song N (1-based)\n"
                 "  --tempo-scale X  play faster or slower (0.5 to 2.0 take effect)\n"
                 "  --precision      use the precision clock instead of the standard one\n"
                 "  --midi-file PATH when the built-in default output plays, write what it\n"
                 "                   received to this Standard MIDI File at the end\n"
                 "  --devices        list the MIDI output devices and stop\n";
}

bool Parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc)
                throw std::invalid_argument(arg + " needs a value");
            return argv[++i];
        };
        if (arg == "--song") {
            options.song = std::stoi(value());
        } else if (arg == "--tempo-scale") {
            options.tempoScale = std::stod(value());
        } else if (arg == "--precision") {
            options.precision = true;
        } else if (arg == "--midi-file") {
            options.midiFile = value();
        } else if (arg == "--devices") {
            options.devicesOnly = true;
        } else if (arg == "--help" || arg == "-h") {
            return false;
        } else if (!arg.empty() && arg[0] == '-') {
            throw std::invalid_argument("unknown option " + arg);
        } else {
            options.show = arg;
        }
    }
    return true;
}

unsigned char PortCount(const velt_midi::ShowData& show) {
    unsigned int ports = 1;
    for (const auto& song : show.GetSongs()) {
        for (const auto& [id, track] : song->GetVoiceData()) {
            ports = std::max(ports, static_cast<unsigned int>(id >> 4) + 1);
        }
    }
    return static_cast<unsigned char>(std::min(ports, 255u));
}

// Prints "bar N" when a bar is heard, with the marker that starts there.
class BarPrinter {
  public:
    explicit BarPrinter(const velt_midi::SongData& song) {
        for (const auto& record : song.GetTimeline().GetBarsBeats()) {
            if (record.beat == 1)
                bars_[record.tick_index] = record.bar;
        }
        for (const auto& marker : song.GetSongLog().GetMarkers()) {
            markers_[marker.tick_index] = marker.text;
        }
    }
    void Downbeat(unsigned int tick) {
        auto bar = bars_.find(tick);
        if (bar == bars_.end())
            return;
        std::scoped_lock lock(mutex_);
        std::printf("  bar %d", bar->second);
        auto marker = markers_.lower_bound(tick);
        if (marker != markers_.end() && marker->first < tick + 1) {
            std::printf("  \"%s\"", marker->second.c_str());
        }
        std::printf("\n");
        std::fflush(stdout);
    }

  private:
    std::mutex mutex_;
    std::map<unsigned int, int> bars_;
    std::map<unsigned int, std::string> markers_;
};

template <typename Clock>
void PlaySong(const velt_midi::SongData& song, unsigned char portCount, double tempoScale) {
    BarPrinter printer(song);
    playback::SongPlayer<Clock> player(song, portCount,
                                       [&printer](unsigned int tick) { printer.Downbeat(tick); });
    player.Controls().SetTempoScale(tempoScale);
    const auto start = std::chrono::steady_clock::now();
    player.Play(song.GetSongStartTickIndex());
    if (!player.WaitForStops(1)) {
        std::printf("  (the song did not end within a minute of its last event)\n");
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("  ended after %.1f s\n", seconds);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    try {
        if (!Parse(argc, argv, options)) {
            Usage();
            return 0;
        }
    } catch (const std::exception& error) {
        std::cerr << "velt-play: " << error.what() << "\n";
        Usage();
        return 2;
    }
    if (options.devicesOnly) {
        std::printf("%s\n", CreateMidiDeviceSummary().c_str());
        return 0;
    }
    try {
        auto show = velt_core::LoadShow(options.show);
        Directories::SetShowDirectory(options.show);
        MIDIOUTCAPSW device{};
        midiOutGetDevCapsW(0, &device, sizeof(device));
        const unsigned char portCount = PortCount(*show);
        std::printf("Show \"%s\": %zu songs, %d output port(s), playing to \"%s\"\n",
                    show->GetShowName().c_str(), show->GetSongs().size(), portCount,
                    GetProductName(device.szPname).c_str());
        int number = 0;
        for (const auto& song : show->GetSongs()) {
            ++number;
            if (options.song != 0 && options.song != number)
                continue;
            if (!options.midiFile.empty()) {
                // The default output writes its file at every close, that is after every song:
                // with several songs each gets its own file.
                std::filesystem::path path = options.midiFile;
                if (options.song == 0 && show->GetSongs().size() > 1) {
                    path.replace_filename(path.stem().string() + "-" + std::to_string(number) +
                                          path.extension().string());
                }
                velt_platform::SetDefaultOutputMidiFile(path);
            }
            std::printf("Song %d: %s\n", number, song->GetSongName().c_str());
            std::fflush(stdout);
            if (options.precision) {
                PlaySong<PrecisionMidiClockImpl>(*song, portCount, options.tempoScale);
            } else {
                PlaySong<StandardMidiClockImpl>(*song, portCount, options.tempoScale);
            }
        }
        const auto received = velt_platform::DefaultMidiOutput().Messages().size();
        if (received > 0) {
            std::printf("The built-in default output received %zu messages.\n", received);
            if (!options.midiFile.empty()) {
                const bool several = options.song == 0 && show->GetSongs().size() > 1;
                std::printf("What it received is in %s%s.\n", options.midiFile.c_str(),
                            several ? " (one file per song, numbered)" : "");
            }
        }
    } catch (const std::exception& error) {
        std::cerr << "velt-play: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
