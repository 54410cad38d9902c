// velt-play: plays a show to a MIDI output device.
//
//   velt-play SHOW [--play [SONG]] [--from BAR] [--until BAR] [--transpose N] [--mute TRACK]...
//                  [--tempo-scale X] [--device N|NAME] [--record PATH] [--clock KIND]
//                  [--timing KIND] [--input N|NAME] [--cues PATH]
//   velt-play --list-devices
//
// SHOW is a show folder, its show.json, or one Standard MIDI File (a show of one song). With a
// terminal on standard input and output the player is interactive (apps/play_console.h); with
// --play, or without a terminal, it plays through and prints a line per bar. The program is a
// shell over the show session: it checks what it was asked, loads the show, builds the session
// and maps options and keys to the session's verbs. docs/velt-play.md is its manual.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "apps/command_input.h"
#include "apps/play_console.h"
#include "apps/play_support.h"
#include "apps/show_session.h"
#include "apps/sync_outputs.h"
#include "platform/virtual_midi.h"
#include "velt_core/show_loader.h"

namespace {

using namespace std::chrono_literals;
using velt_play::PlayState;
using velt_play::ShowSession;

constexpr int exitFailure = 1;  // a file, a device or the recording failed
constexpr int exitUsage = 2;    // the command line asks for something that cannot be

const char* const usage =
    "usage: velt-play SHOW [options]      SHOW: a show folder, its show.json, or a MIDI file\n"
    "       velt-play --list-devices\n"
    "\n"
    "With a terminal the player is interactive (press ? for the keys). Without one, or with\n"
    "--play, it plays through and prints a line per bar.\n"
    "\n"
    "  --play [SONG]       play song SONG (from 1), or every song in turn, without the keyboard\n"
    "  --from BAR          start at bar BAR\n"
    "  --until BAR         stop at the end of bar BAR (with --play)\n"
    "  --transpose N       transpose by N semitones (-24 to 24)\n"
    "  --mute TRACK        mute a track, by number or name (may be given again)\n"
    "  --tempo-scale X     scale every tempo by X (0.5 to 2.0)\n"
    "  --device N|NAME     play to output device N, or the one whose name contains NAME\n"
    "  --list-devices      list the MIDI output devices\n"
    "  --record PATH       the built-in default output writes what it receives to PATH, a\n"
    "                      Standard MIDI File (the default output is there when no port is)\n"
    "  --clock KIND        precision (the default), standard, or conducted (the space bar\n"
    "                      beats: each beat starts a click; '.' stops)\n"
    "  --input N|NAME      take learned commands and show-control cues from MIDI input N, or\n"
    "                      the one whose name contains NAME (l in the player learns a command)\n"
    "  --cues PATH         the cue list for show-control GO (default: cues.txt by the show)\n"
    "  --timing KIND       exact: every event at its own time (the default with the precision\n"
    "                      clock); clock: the events of each MIDI clock at its start (the\n"
    "                      default with the standard clock)\n"
    "  --help              this text\n";

// A command line that asks for something that cannot be.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct Options {
    std::string show;
    bool help = false;
    bool listDevices = false;
    bool play = false;
    std::optional<int> song;
    std::optional<int> from;
    std::optional<int> until;
    std::optional<int> transposition;
    std::optional<double> tempoScale;
    std::vector<std::string> mutes;
    std::optional<std::string> device;
    std::optional<std::string> record;
    velt_play::ClockKind clock = velt_play::ClockKind::precision;
    velt_play::SyncCommandLine sync;
    std::optional<std::string> input;  // MIDI input for learned commands and cues
    std::optional<std::string> cues;
    std::optional<velt_play::TimingKind> timing;
};

bool IsDigits(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

// The parsers' complaints are the command line's.
template <typename Parse>
auto Checked(Parse parse) {
    try {
        return parse();
    } catch (const std::invalid_argument& error) {
        throw UsageError(error.what());
    } catch (const std::out_of_range& error) {
        throw UsageError(error.what());
    }
}

int Counted(const std::string& text, const std::string& option, const char* what) {
    const int value = Checked([&] { return velt_play::ParseWholeNumber(text, option); });
    if (value < 1) {
        throw UsageError(option + " must be a " + what + " number from 1, not " + text);
    }
    return value;
}

Options ParseOptions(int argc, char** argv) {
    Options options;
    const std::vector<std::string> args(argv + 1, argv + argc);
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string arg = args[i];
        std::optional<std::string> attached;  // --option=value
        if (arg.rfind("--", 0) == 0) {
            if (const auto equals = arg.find('='); equals != std::string::npos) {
                attached = arg.substr(equals + 1);
                arg.resize(equals);
            }
        }
        const auto value = [&]() -> std::string {
            if (attached) {
                return *attached;
            }
            if (i + 1 >= args.size()) {
                throw UsageError(arg + " needs a value");
            }
            return args[++i];
        };
        const auto flag = [&] {
            if (attached) {
                throw UsageError(arg + " takes no value");
            }
            return true;
        };
        if (arg == "--help" || arg == "-h") {
            options.help = flag();
        } else if (Checked([&] { return velt_play::TakeSyncOption(arg, value, options.sync); })) {
        } else if (arg == "--list-devices") {
            options.listDevices = flag();
        } else if (arg == "--play") {
            options.play = true;
            if (attached) {
                options.song = Counted(*attached, arg, "song");
            } else if (i + 1 < args.size() && IsDigits(args[i + 1])) {
                options.song = Counted(args[++i], arg, "song");
            }
        } else if (arg == "--from") {
            options.from = Counted(value(), arg, "bar");
        } else if (arg == "--until") {
            options.until = Counted(value(), arg, "bar");
        } else if (arg == "--transpose") {
            const std::string text = value();
            options.transposition = Checked([&] { return velt_play::ParseWholeNumber(text, arg); });
            if (*options.transposition < -24 || *options.transposition > 24) {
                throw UsageError("--transpose must lie between -24 and 24 semitones, not " + text);
            }
        } else if (arg == "--tempo-scale") {
            const std::string text = value();
            options.tempoScale = Checked([&] { return velt_play::ParseDecimal(text, arg); });
            if (*options.tempoScale < 0.5 || *options.tempoScale > 2.0) {
                throw UsageError("--tempo-scale must lie between 0.5 and 2.0, not " + text);
            }
        } else if (arg == "--mute") {
            options.mutes.push_back(value());
        } else if (arg == "--device") {
            options.device = value();
        } else if (arg == "--input") {
            options.input = value();
        } else if (arg == "--cues") {
            options.cues = value();
        } else if (arg == "--record") {
            options.record = value();
            if (options.record->empty()) {
                throw UsageError("--record needs a file name");
            }
        } else if (arg == "--clock") {
            const std::string kind = value();
            if (kind == "precision") {
                options.clock = velt_play::ClockKind::precision;
            } else if (kind == "standard") {
                options.clock = velt_play::ClockKind::standard;
            } else if (kind == "conducted") {
                options.clock = velt_play::ClockKind::conducted;
            } else {
                throw UsageError("--clock is precision, standard or conducted, not \"" + kind +
                                 "\"");
            }
        } else if (arg == "--timing") {
            const std::string kind = value();
            if (kind != "exact" && kind != "clock") {
                throw UsageError("--timing is exact or clock, not \"" + kind + "\"");
            }
            options.timing =
                kind == "exact" ? velt_play::TimingKind::exact : velt_play::TimingKind::clock;
        } else if (arg.size() > 1 && arg[0] == '-') {
            // The options of the player's first version say what took their place.
            const std::string instead = arg == "--song" ? ": --play SONG plays one song"
                                        : arg == "--midi-file"
                                            ? ": --record PATH writes the recording"
                                            : " (velt-play --help lists them)";
            throw UsageError("there is no option " + arg + instead);
        } else if (!options.show.empty()) {
            throw UsageError("one show at a time, not \"" + options.show + "\" and \"" + arg +
                             "\"");
        } else {
            options.show = arg;
        }
    }
    if (options.help || options.listDevices) {
        return options;
    }
    if (options.show.empty()) {
        throw UsageError(
            "which show? velt-play SHOW, where SHOW is a show folder, its show.json or a MIDI "
            "file");
    }
    if (options.until && !options.play) {
        throw UsageError("--until goes with --play");
    }
    if (options.play && options.clock == velt_play::ClockKind::conducted) {
        throw UsageError("--clock conducted needs the keyboard's beats, not --play");
    }
    // A conducted clock's periods follow the beats, not the score's clock time, so offsets
    // inside a period cannot be placed ahead of time.
    if (options.clock == velt_play::ClockKind::conducted &&
        options.timing == velt_play::TimingKind::exact) {
        throw UsageError("--timing exact needs a clock of its own, not --clock conducted");
    }
    if (options.clock == velt_play::ClockKind::conducted &&
        !(isatty(STDIN_FILENO) && isatty(STDOUT_FILENO))) {
        throw UsageError("--clock conducted needs the keyboard's beats: run it on a terminal");
    }
    if (options.from && options.until && *options.until < *options.from) {
        throw UsageError("--until " + std::to_string(*options.until) + " comes before --from " +
                         std::to_string(*options.from));
    }
    return options;
}

// ---------------------------------------------------------------------------------------------
// Loading

// One song of a show as the player gets it: `song` is null when its file cannot be read, and
// `error` says why.
using velt_core::PlayableShow;

std::string SongText(const PlayableShow& playable, int number) {
    return "song " + std::to_string(number) + " \"" +
           playable.songs.at(static_cast<std::size_t>(number - 1)).name + "\"";
}

// ---------------------------------------------------------------------------------------------
// Checking everything before anything plays

struct Plan {
    std::vector<int> songs;  // what plays, in turn (interactive: the song cued first)
    std::vector<unsigned short> mutes;
    std::string device;
};

Plan MakePlan(const Options& options, const PlayableShow& playable) {
    Plan plan;
    const int count = static_cast<int>(playable.songs.size());
    const auto playableSong = [&](int number) {
        return playable.songs.at(static_cast<std::size_t>(number - 1)).song != nullptr;
    };
    if (options.song) {
        if (*options.song > count) {
            throw UsageError("there is no song " + std::to_string(*options.song) +
                             ": the show has " + std::to_string(count) +
                             (count == 1 ? " song" : " songs"));
        }
        if (!playableSong(*options.song)) {
            throw std::runtime_error(
                SongText(playable, *options.song) + " cannot be played: " +
                playable.songs.at(static_cast<std::size_t>(*options.song - 1)).error);
        }
        plan.songs.push_back(*options.song);
    } else {
        for (int number = 1; number <= count; ++number) {
            if (playableSong(number)) {
                plan.songs.push_back(number);
            }
        }
    }
    if (plan.songs.empty()) {
        throw std::runtime_error("the show has no song that can be played");
    }
    if (options.play && plan.songs.size() > 1 && (options.from || options.until)) {
        throw UsageError("--from and --until go with one song: --play SONG");
    }
    // A song's bars are those that start before its end (the end itself is counted as the
    // start of one more bar, which holds nothing to play).
    const int first = plan.songs.front();
    const auto& timeline =
        playable.songs.at(static_cast<std::size_t>(first - 1)).song->GetTimeline();
    int bars = 0;
    for (const auto& record : timeline.GetBarsBeats()) {
        if (record.tick_index < timeline.lastTickIndex) {
            bars = std::max(bars, record.bar);
        }
    }
    for (const auto& bar : {options.from, options.until}) {
        if (bar && (*bar > bars || !velt_core::FindBarBeat(timeline, *bar, 1))) {
            throw UsageError(SongText(playable, first) + " has no bar " + std::to_string(*bar) +
                             " (it has " + std::to_string(bars) + ")");
        }
    }
    std::map<unsigned short, std::string> tracks;
    for (const auto& entry : playable.songs) {
        if (entry.song) {
            for (const auto& [id, track] : entry.song->GetVoiceData()) {
                tracks.emplace(id, track->GetTrackName());
            }
        }
    }
    for (const auto& track : options.mutes) {
        plan.mutes.push_back(Checked([&] { return velt_play::ResolveTrack(tracks, track); }));
    }
    // Without ports the platform lists the built-in default output, so there is a device 0.
    plan.device = Checked([&] { return velt_play::ResolveDevice(options.device.value_or("0")); });
    return plan;
}

#ifdef _WIN32
// Windows plays to the system's own devices: there is no built-in default output to record.
bool IsDefaultOutput(const std::string&) {
    return false;
}

void PrepareRecording(const std::string&, const std::string& device) {
    throw UsageError(
        "--record keeps what the built-in default output receives, which this system does not "
        "have; the player plays to \"" +
        device + "\"");
}

std::size_t RecordedMessageCount() {
    return 0;
}
#else
bool IsDefaultOutput(const std::string& device) {
    return device == velt_platform::DefaultMidiOutput().Name();
}

// Opens the recording's file for writing, so that a path that cannot be written fails now and
// not when the device closes after the show.
void PrepareRecording(const std::string& path, const std::string& device) {
    if (!IsDefaultOutput(device)) {
        throw UsageError(
            "--record keeps what the built-in default output receives, but the "
            "player plays to \"" +
            device + "\" (VELT_MIDI_SYSTEM_PORTS=0 hides the system's ports)");
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!file) {
        throw std::runtime_error("cannot write the recording to " + path + ": " +
                                 std::strerror(errno));
    }
    velt_platform::SetDefaultOutputMidiFile(path);
}

std::size_t RecordedMessageCount() {
    return velt_platform::DefaultMidiOutput().Messages().size();
}
#endif

// ---------------------------------------------------------------------------------------------
// Playing through

void Print(const std::string& line) {
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string Seconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", seconds);
    return text;
}

// The markers that start within bar `bar` of the song, as its line shows them.
std::string MarkersInBar(const velt_midi::SongData& song, int bar) {
    const auto& timeline = song.GetTimeline();
    const auto start = velt_core::FindBarBeat(timeline, bar, 1);
    if (!start) {
        return "";
    }
    const auto end = velt_core::FindBarBeat(timeline, bar + 1, 1);
    std::string text;
    for (const auto& marker : song.GetSongLog().GetMarkers()) {
        if (marker.tick_index >= *start && (!end || marker.tick_index < *end)) {
            text += "  \"" + marker.text + "\"";
        }
    }
    return text;
}

// Plays the planned songs one after the other, printing each bar as it is shown (after the
// display delay) with the markers in it. A caesura plays on at once: there is no one
// at the keyboard to release it. Returns the exit status.
int PlayThrough(ShowSession& session, velt_play::MainEvents& events, const Options& options,
                const Plan& plan) {
    for (const int number : plan.songs) {
        if (events.StopSignal() != 0) {
            break;
        }
        session.SelectSong(number);
        if (options.from) {
            session.SeekToBar(*options.from);
        }
        events.TakeStatuses();
        Print("Song " + std::to_string(number) + ": " + session.Status().songName);
        const auto start = std::chrono::steady_clock::now();
        if (options.until) {
            session.PlayUntilBar(*options.until);
        } else {
            session.Play();
        }
        const velt_midi::SongData& song =
            *session.Songs().at(static_cast<std::size_t>(number - 1)).song;
        int bar = -1;
        for (;;) {
            events.Wait(-1, 500ms);
            if (events.StopSignal() != 0) {
                break;
            }
            for (const auto& status : events.TakeStatuses()) {
                if (status.state != PlayState::playing || status.bar == bar) {
                    continue;
                }
                bar = status.bar;
                Print("  bar " + std::to_string(bar) + MarkersInBar(song, bar));
            }
            const auto status = session.Status();
            if (status.state == PlayState::caesura) {
                Print("  caesura at bar " + std::to_string(status.bar) + ": playing on");
                session.Resume();
            } else if (status.state == PlayState::stopped && options.until) {
                Print("  stopped after bar " + std::to_string(*options.until) + ", " +
                      Seconds(SecondsSince(start)));
                break;
            } else if (status.state != PlayState::playing) {
                Print("  ended after " + Seconds(SecondsSince(start)));
                break;
            }
        }
    }
    if (const int signal = events.StopSignal(); signal != 0) {
        session.Stop();
        Print("Stopped by signal " + std::to_string(signal) + ".");
        return velt_play::ExitStatusForSignal(signal);
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------

void ListDevices() {
    const auto names = velt_play::OutputDeviceNames();
    std::printf("MIDI output devices:\n");
    for (std::size_t i = 0; i < names.size(); ++i) {
        std::printf("  %zu  %s%s\n", i, names[i].c_str(),
                    IsDefaultOutput(names[i])
                        ? "  (no port was found; it makes no sound, --record PATH keeps what "
                          "it receives)"
                        : "");
    }
}

// The MIDI input of --input with the learned commands of the user's configuration folder, and
// the cue list of --cues or the show's cues.txt (none when there is no such file).
std::pair<std::unique_ptr<velt_play::CommandInput>, velt_play::CueList> OpenCommandInput(
    const Options& options, velt_play::MainEvents& events) {
    std::filesystem::path cuesPath;
    if (options.cues) {
        cuesPath = *options.cues;
    } else {
        const std::filesystem::path show(options.show);
        cuesPath = (std::filesystem::is_directory(show) ? show : show.parent_path()) / "cues.txt";
    }
    velt_play::CueList cues;
    if (options.cues || std::filesystem::exists(cuesPath)) {
        cues = velt_play::CueList::Load(cuesPath.string());
        Print("Cue list: " + cuesPath.string());
    }
    auto input = std::make_unique<velt_play::CommandInput>(velt_play::CommandSettingsPath(),
                                                           [&events] { events.PostWake(); });
    Checked([&] { input->Connect(*options.input); });
    Print("MIDI input: \"" + input->SourceName() + "\"");
    return {std::move(input), std::move(cues)};
}

int Run(const Options& options, velt_play::MainEvents& events) {
    if (options.help) {
        std::fputs(usage, stdout);
        std::fputs(velt_play::syncUsage, stdout);
        return 0;
    }
    if (options.listDevices) {
        ListDevices();
        return 0;
    }
    const PlayableShow playable = velt_core::LoadPlayableShow(options.show);
    const Plan plan = MakePlan(options, playable);
    if (options.record) {
        PrepareRecording(*options.record, plan.device);
    }

    std::vector<velt_play::SessionSong> songs;
    for (const auto& entry : playable.songs) {
        songs.push_back({entry.name, entry.song, entry.error});
    }
    std::unique_ptr<velt_play::SyncOutputs> sync;  // outlives the session, which calls it
    auto session = std::make_unique<ShowSession>(
        std::move(songs), playable.show,
        velt_play::SessionOptions{options.clock, plan.device, options.timing});
    if (options.sync.Any()) {  // after the session: the music has the first claim on a port
        sync = std::make_unique<velt_play::SyncOutputs>(
            *playable.show, Checked([&] { return velt_play::ResolveSyncOptions(options.sync); }));
        session->SetTransportHooks(sync->Hooks());
    }
    session->SetStatusListener(
        [&events](const velt_play::SessionStatus& status) { events.PostStatus(status); });
    if (options.tempoScale) {
        session->SetTempoScale(*options.tempoScale);
    }
    if (options.transposition) {
        session->SetTransposition(*options.transposition);
    }
    for (const unsigned short track : plan.mutes) {
        session->MuteTrack(track);
    }

    const std::string showName = playable.show->GetShowName().empty()
                                     ? std::filesystem::path(options.show).stem().string()
                                     : playable.show->GetShowName();
    const auto songCount = playable.songs.size();
    Print(showName + ": " + std::to_string(songCount) + (songCount == 1 ? " song" : " songs") +
          ", playing to \"" + plan.device + "\"");
    for (int number = 1; number <= static_cast<int>(songCount); ++number) {
        const auto& entry = playable.songs[static_cast<std::size_t>(number - 1)];
        if (!entry.song) {
            std::cerr << "velt-play: " << SongText(playable, number)
                      << " cannot be played: " << entry.error << "\n";
        }
    }
    std::string recordingNote;
    if (IsDefaultOutput(plan.device)) {
        recordingNote = options.record ? "No MIDI port: the built-in default output records to " +
                                             *options.record + " (it makes no sound)"
                                       : "No MIDI port: the built-in default output makes no "
                                         "sound (--record PATH keeps what it receives)";
        Print(recordingNote);
    }

    const bool interactive = !options.play && isatty(STDIN_FILENO) && isatty(STDOUT_FILENO);
    velt_play::CueList cues;
    std::unique_ptr<velt_play::CommandInput> input;
    if (options.input && interactive) {
        std::tie(input, cues) = OpenCommandInput(options, events);
    } else if (options.input) {
        Print("--input is taken in the interactive player only");
    }

    int status = 0;
    if (interactive) {
        if (options.from) {
            session->SeekToBar(*options.from);
        }
        status = velt_play::RunConsole(
            *session, events,
            {showName, playable.show, recordingNote,
             options.clock == velt_play::ClockKind::conducted, sync.get(), input.get(), &cues});
    } else {
        status = PlayThrough(*session, events, options, plan);
    }
    // Closing the device writes the recording.
    session.reset();
    if (options.record) {
        std::error_code error;
        if (std::filesystem::file_size(*options.record, error) == 0 || error) {
            throw std::runtime_error("the recording could not be written to " + *options.record);
        }
        Print("The recording is in " + *options.record + " (" +
              std::to_string(RecordedMessageCount()) + " messages).");
    }
    return status;
}

// One line, whatever the text holds.
void Fail(const std::string& text) {
    std::string line = text;
    std::replace(line.begin(), line.end(), '\n', ' ');
    std::cerr << "velt-play: " << line << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        velt_play::MainEvents events;
        velt_play::StopSignals signals([&events](int signal) { events.PostSignal(signal); });
        try {
            return Run(ParseOptions(argc, argv), events);
        } catch (const UsageError& error) {
            Fail(error.what());
            return exitUsage;
        }
    } catch (const std::exception& error) {
        Fail(error.what());
        return exitFailure;
    }
}
