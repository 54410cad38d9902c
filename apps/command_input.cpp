#include "apps/command_input.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "interfaces/kit.h"
#include "midi/midi_endpoints.h"

namespace velt_play {
namespace {

constexpr unsigned char kConductBeat = 0;
constexpr unsigned char kPlay = 2;
constexpr unsigned char kPause = 3;
constexpr unsigned char kStop = 4;
constexpr unsigned char kNextSong = 5;
constexpr unsigned char kPreviousSong = 6;
constexpr unsigned char kNextMarker = 7;
constexpr unsigned char kPreviousMarker = 8;
constexpr unsigned char kContinue = 9;

// The notification each command posts, by id.
const std::map<unsigned char, const std::string*>& CommandNotifications() {
    static const std::map<unsigned char, const std::string*> names = {
        {kConductBeat, &notify::names::midiCommandConductBeat},
        {1, &notify::names::midiCommandContinuousMode},
        {kPlay, &notify::names::midiCommandPlay},
        {kPause, &notify::names::midiCommandPause},
        {kStop, &notify::names::midiCommandStop},
        {kNextSong, &notify::names::midiCommandNextSong},
        {kPreviousSong, &notify::names::midiCommandPreviousSong},
        {kNextMarker, &notify::names::midiCommandNextMarker},
        {kPreviousMarker, &notify::names::midiCommandPreviousMarker},
        {kContinue, &notify::names::midiCommandContinue},
        {10, &notify::names::midiCommandNextPatch},
        {11, &notify::names::midiCommandPreviousPatch},
    };
    return names;
}

std::string Lower(std::string text) {
    std::ranges::transform(text, text.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string Trim(const std::string& text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// The one entry of `names` that `text` names: its number, its exact name, or a part of exactly
// one name (any case).
template <typename Number>
Number ResolveByName(const std::vector<std::pair<Number, std::string>>& names,
                     const std::string& text, const std::string& what) {
    std::string list;
    for (const auto& [number, name] : names) {
        list += (list.empty() ? "" : ", ") + std::to_string(number) + " " + name;
    }
    const auto refuse = [&](const std::string& why) {
        return std::out_of_range(why + " (" + (list.empty() ? "there are none" : list) + ")");
    };
    const std::string wanted = Trim(text);
    for (const auto& [number, name] : names) {
        if (std::to_string(number) == wanted || name == wanted) {
            return number;
        }
    }
    std::vector<Number> matches;
    for (const auto& [number, name] : names) {
        if (!wanted.empty() && Lower(name).find(Lower(wanted)) != std::string::npos) {
            matches.push_back(number);
        }
    }
    if (matches.size() != 1) {
        throw refuse((matches.empty() ? "there is no " : "more than one ") + what + " \"" + wanted +
                     "\"");
    }
    return matches.front();
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// CueList

CueList CueList::Load(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        throw std::runtime_error("the cue list " + path + " cannot be read");
    }
    CueList list;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        const std::string text = Trim(line);
        if (text.empty() || text.front() == '#') {
            continue;
        }
        std::istringstream fields(text);
        std::string cue;
        int song = 0;
        if (!(fields >> cue >> song) || song < 1) {
            throw std::runtime_error(path + " line " + std::to_string(number) +
                                     ": give a cue number, a song number from 1 and optionally "
                                     "a marker");
        }
        std::string marker;
        std::getline(fields, marker);
        list.cues_[cue] = CueTarget{song, Trim(marker)};
    }
    return list;
}

std::optional<CueTarget> CueList::Find(const std::string& cueNumber) const {
    const auto found = cues_.find(cueNumber);
    if (found == cues_.end()) {
        return std::nullopt;
    }
    return found->second;
}

// ---------------------------------------------------------------------------------------------
// CommandInput

CommandInput::CommandInput(std::string settingsPath, std::function<void()> wake)
    : wake_(std::move(wake)) {
    activity_->onLearned = [this](int value) {
        const auto id = static_cast<unsigned char>(value >> 16);
        Post_({InputEvent::Kind::learned,
               id,
               {static_cast<unsigned char>((value >> 8) & 0xFF),
                static_cast<unsigned char>(value & 0xFF)},
               {}});
    };
    previousSink_ = notify::guiDispatcher.GetSink();
    notify::guiDispatcher.SetSink(activity_);
    for (const auto& [id, name] : CommandNotifications()) {
        notify::callbackDispatcher.AddCallback(*name, this, [this, id = id](void*) {
            Post_({InputEvent::Kind::command, id, {}, {}});
        });
    }
    dispatcher_.SetSystemExclusiveFunction(
        [this](std::span<const std::uint8_t> message) { ReceiveSysEx_(message); });
    {
        // Before the first learning there is no file: the engine's warning that it could not be
        // read is no news to the performer.
        const bool firstRun = !std::filesystem::exists(settingsPath);
        const kit::LogSink previous =
            firstRun ? kit::SetLogSink([](const std::string&) {}) : kit::LogSink();
        commands_ =
            std::make_unique<midi_commands::MidiCommands>(dispatcher_, std::move(settingsPath));
        if (firstRun) {
            kit::SetLogSink(previous);
        }
    }
    DropRebindingReports_();
}

// Connecting binds every learned command again, which the engine reports as learning it: not
// news either.
void CommandInput::DropRebindingReports_() {
    std::scoped_lock lock(eventMutex_);
    std::erase_if(events_,
                  [](const InputEvent& event) { return event.kind == InputEvent::Kind::learned; });
}

CommandInput::~CommandInput() {
    // No notification reaches this object once the callbacks are gone (the removal waits for
    // calls in flight); closing the input ends the delivery thread's use of the dispatcher.
    notify::callbackDispatcher.RemoveCallbacksForTarget(this);
    dispatcher_.Disconnect();
    commands_.reset();
    notify::guiDispatcher.SetSink(previousSink_);
}

void CommandInput::Post_(InputEvent event) {
    {
        std::scoped_lock lock(eventMutex_);
        events_.push_back(std::move(event));
    }
    if (wake_) {
        wake_();
    }
}

void CommandInput::ReceiveSysEx_(std::span<const std::uint8_t> message) {
    // Universal real-time System Exclusive: F0 7F, then the show-control message.
    if (message.size() < 2 || message[1] != 0x7F) {
        return;
    }
    try {
        const MscMessage go(message.data() + 2, message.size() - 2);
        Post_({InputEvent::Kind::cue, 0, {}, go.EventId()});
    } catch (const std::runtime_error&) {
        // Another command or another kind of real-time message: not for the player.
    }
}

std::vector<std::pair<int, std::string>> SourceNames() {
    std::vector<std::pair<int, std::string>> names;
    for (const MidiEndPoint& source : GetNonVeltMidiSources()) {
        names.emplace_back(source.GetSourceIndex(), source.GetSourceName());
    }
    return names;
}

void CommandInput::Connect(const std::string& spec) {
    const auto names = SourceNames();
    const int index = ResolveByName(names, spec, "MIDI input");
    commands_->ConnectSourceByIndex(static_cast<unsigned char>(index));
    DropRebindingReports_();
    sourceName_ = std::ranges::find(names, index, &std::pair<int, std::string>::first)->second;
    activity_->count = 0;
}

void CommandInput::Learn(unsigned char id) {
    commands_->LearnMidiCommandNoAssign(id);
}

std::optional<unsigned char> CommandInput::Learning() {
    for (const auto& [id, name] : CommandNotifications()) {
        if (commands_->IsMidiCommandLearning(id)) {
            return id;
        }
    }
    return std::nullopt;
}

std::map<unsigned char, midi_commands::LearnedCommand> CommandInput::Learned() {
    return commands_->GetLearnedCommands();
}

std::deque<InputEvent> CommandInput::TakeEvents() {
    std::scoped_lock lock(eventMutex_);
    return std::exchange(events_, {});
}

// ---------------------------------------------------------------------------------------------
// Performing

const std::map<unsigned char, std::string>& PlayerCommandNames() {
    // The transport commands, and the conductor's beat for the conducted clock. Continuous Mode
    // is not offered: the clock is chosen when the player starts.
    static const std::map<unsigned char, std::string> names = [] {
        auto names = midi_commands::commandNames;
        names.emplace(kConductBeat, midi_commands::parvelCommandNames.at(kConductBeat));
        return names;
    }();
    return names;
}

unsigned char ResolveCommand(const std::string& text) {
    std::vector<std::pair<int, std::string>> names;
    for (const auto& [id, name] : PlayerCommandNames()) {
        names.emplace_back(id, name);
    }
    return static_cast<unsigned char>(ResolveByName(names, text, "command"));
}

std::string PerformCommand(ShowSession& session, unsigned char id) {
    const auto name = midi_commands::keysCommandNames.find(id);
    const std::string what =
        "MIDI: " + (name == midi_commands::keysCommandNames.end() ? "command " + std::to_string(id)
                                                                  : name->second);
    const PlayState state = session.Status().state;
    switch (id) {
        case kConductBeat:
            // A pedal or pad that beats the clicks: only a conducted clock takes beats.
            try {
                session.ConductBeat();
            } catch (const std::logic_error&) {
                return what + ": beats need the conducted clock (--clock conducted)";
            }
            return what;
        case kPlay:
            session.Play();
            return what;
        case kPause:
            if (state == PlayState::playing) {
                session.Stop();
            }
            return what;
        case kStop:
            // Stopped and cued at the start of the song.
            session.Stop();
            session.SelectSong(session.Status().songNumber);
            return what;
        case kNextSong:
            session.NextSong();
            return what;
        case kPreviousSong:
            session.PreviousSong();
            return what;
        case kNextMarker:
            return what + (session.NextMarker() ? "" : ": there is no marker after this");
        case kPreviousMarker:
            return what + (session.PreviousMarker() ? "" : ": there is no marker before this");
        case kContinue:
            if (state == PlayState::caesura || state == PlayState::stopped) {
                session.Resume();
            }
            return what;
        default:
            return what + ": not offered by this player";
    }
}

std::string RecallCue(ShowSession& session, const CueTarget& target) {
    const bool playing = session.Status().state == PlayState::playing;
    session.SelectSong(target.song);
    std::string done = "song " + std::to_string(target.song);
    if (!target.marker.empty()) {
        // Markers are walked in order from the song's start until the one of this text.
        bool found = session.Status().marker == target.marker;
        while (!found && session.NextMarker()) {
            found = session.Status().marker == target.marker;
        }
        if (!found) {
            session.SelectSong(target.song);
            done += ", which has no marker \"" + target.marker + "\"";
        } else {
            done += " at \"" + target.marker + "\"";
        }
    }
    if (playing) {
        session.Play();
    }
    return done;
}

std::vector<std::string> PerformInputEvents(ShowSession& session, CommandInput& input,
                                            const CueList& cues) {
    std::vector<std::string> lines;
    for (const InputEvent& event : input.TakeEvents()) {
        try {
            switch (event.kind) {
                case InputEvent::Kind::command:
                    lines.push_back(PerformCommand(session, event.commandId));
                    break;
                case InputEvent::Kind::learned: {
                    const auto name = midi_commands::keysCommandNames.find(event.commandId);
                    lines.push_back("Learned " +
                                    (name == midi_commands::keysCommandNames.end()
                                         ? std::to_string(event.commandId)
                                         : name->second) +
                                    " on " + DescribeMessage(event.key) + ".");
                    break;
                }
                case InputEvent::Kind::cue: {
                    const std::string cue = "MIDI cue " + event.cue.number;
                    if (const auto target = cues.Find(event.cue.number)) {
                        lines.push_back(cue + ": " + RecallCue(session, *target));
                    } else {
                        lines.push_back(cue + (cues.Empty() ? ": no cue list was given"
                                                            : ": not in the cue list"));
                    }
                    break;
                }
            }
        } catch (const std::exception& error) {
            lines.push_back(std::string("MIDI: ") + error.what());
        }
    }
    return lines;
}

std::string DescribeMessage(MidiBindingKey key) {
    const int kind = key.first & 0xF0;
    const std::string what = kind == 0x90   ? "note "
                             : kind == 0xB0 ? "controller "
                             : kind == 0xC0 ? "program "
                                            : "message " + std::to_string(kind) + " ";
    return what + std::to_string(key.second) + " on channel " +
           std::to_string((key.first & 0x0F) + 1);
}

std::string InputStatusLine(CommandInput& input) {
    std::string line = "MIDI in \"" + input.SourceName() + "\"  " +
                       std::to_string(input.MessageCount()) + " messages   " +
                       std::to_string(input.Learned().size()) + " commands learned";
    if (const auto learning = input.Learning()) {
        const auto name = midi_commands::keysCommandNames.find(*learning);
        line += "   LEARNING " +
                (name == midi_commands::keysCommandNames.end() ? std::to_string(*learning)
                                                               : name->second) +
                ": play the note or move the controller";
    }
    return line;
}

std::string CommandSettingsPath() {
    std::filesystem::path folder;
    if (const char* config = std::getenv("XDG_CONFIG_HOME"); config != nullptr && *config != 0) {
        folder = config;
    } else if (const char* home = std::getenv("HOME"); home != nullptr && *home != 0) {
        folder = std::filesystem::path(home) / ".config";
    } else {
        throw std::runtime_error(
            "neither XDG_CONFIG_HOME nor HOME is set: nowhere to keep the "
            "learned MIDI commands");
    }
    folder /= "velt-play";
    std::filesystem::create_directories(folder);
    return (folder / "midi_commands.dat").string();
}

}  // namespace velt_play
