// The player's MIDI input: learned transport commands and show-control cues from one input
// device, handed to the main thread, which performs them on the show session as the keys do.
//
// Learned commands and the chosen input are kept in the user's configuration folder
// (CommandSettingsPath). A cue list (a text file, see CueList) maps show-control GO cues to songs
// and markers of the show.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "apps/show_session.h"
#include "interfaces/notify.h"
#include "midi/midi_commands.h"
#include "midi/midi_message_dispatcher.h"
#include "midi/msc_message.h"

namespace velt_play {

/// Where a cue takes the show: a song (1-based) and, optionally, a marker's text in it.
struct CueTarget {
    int song = 0;
    std::string marker;
};

/// Show-control cues of the show, read from a text file: one cue a line, its cue number, the
/// song number, then optionally the text of a marker in that song (the rest of the line); blank
/// lines and lines starting with # are skipped. The cue list of a GO is not looked at: cue
/// numbers are unique in the file.
///
///     # cue  song  marker
///     1      1
///     1.5    2     Verse 2
class CueList {
  public:
    CueList() = default;
    /// Throws std::runtime_error naming the file and line for a line it cannot read.
    static CueList Load(const std::string& path);
    std::optional<CueTarget> Find(const std::string& cueNumber) const;
    bool Empty() const { return cues_.empty(); }

  private:
    std::map<std::string, CueTarget> cues_;
};

/// Something the input asked for, in the order it arrived.
struct InputEvent {
    enum class Kind { command, learned, cue };
    Kind kind = Kind::command;
    unsigned char commandId = 0;
    MidiBindingKey key{};  // for `learned`
    MscCueNumber cue;      // for `cue`
};

/// Threads: the main thread constructs, connects, learns and takes events; the input's delivery
/// thread queues events (through the engine's notifications) and counts messages. Locks: the
/// event mutex, around the queue only; `wake` is called with no lock held.
class CommandInput {
  public:
    /// Loads the learned commands from `settingsPath` (which may reconnect the input saved
    /// there). `wake` is called on the input thread after each event is queued.
    CommandInput(std::string settingsPath, std::function<void()> wake);
    /// Saves the learned commands and the input.
    ~CommandInput();
    CommandInput(const CommandInput&) = delete;
    CommandInput& operator=(const CommandInput&) = delete;

    /// Opens and starts the input `spec` names: its number in SourceNames, its exact name, or a
    /// part of exactly one name (any case). Throws std::out_of_range listing the inputs.
    void Connect(const std::string& spec);
    const std::string& SourceName() const { return sourceName_; }

    /// The next learnable message (a note, a controller, a program change) teaches command `id`.
    void Learn(unsigned char id);
    /// The command waiting to be learned, if any.
    std::optional<unsigned char> Learning();
    std::map<unsigned char, midi_commands::LearnedCommand> Learned();

    std::deque<InputEvent> TakeEvents();
    /// Every message the input delivered since it was connected.
    std::uint64_t MessageCount() const { return activity_->count.load(); }

  private:
    // Counts the engine's MIDI activity notices and reports learned commands; installed as the
    // user interface sink while this object lives.
    struct ActivitySink final : notify::GuiSink {
        void SendGuiDelayMessage(int) override {}
        void SendMidiClockDebugMessage(const std::string&) override {}
        void SendMtcActiveStateNotification(bool) override {}
        void SendMtcOutputPortNotification(int) override {}
        void SendMtcFrameRateNotification(const std::string&) override {}
        void SendMidiNotification() override { ++count; }
        void SendSourceConnected(int) override {}
        void SendMidiCommandCanceled(int) override {}
        void SendLearnedMIDICommand(int value) override { onLearned(value); }

        std::atomic<std::uint64_t> count{0};
        std::function<void(int)> onLearned;
    };

    void Post_(InputEvent event);
    void DropRebindingReports_();
    void ReceiveSysEx_(std::span<const std::uint8_t> message);

    std::function<void()> wake_;
    std::mutex eventMutex_;
    std::deque<InputEvent> events_;  // guarded by eventMutex_
    std::string sourceName_;
    std::shared_ptr<ActivitySink> activity_ = std::make_shared<ActivitySink>();
    std::shared_ptr<notify::GuiSink> previousSink_;
    MidiMessageDispatcher dispatcher_;
    std::unique_ptr<midi_commands::MidiCommands> commands_;  // after the dispatcher it uses
};

/// The input devices a performer can choose (the product's own left out), by source number.
std::vector<std::pair<int, std::string>> SourceNames();

/// The transport commands the player performs, by id, with their names.
const std::map<unsigned char, std::string>& PlayerCommandNames();
/// The command `text` names: its id or (part of) its name, any case. Throws std::out_of_range.
unsigned char ResolveCommand(const std::string& text);

/// Performs command `id` on the session (main thread) as the keys do; returns what was done.
std::string PerformCommand(ShowSession& session, unsigned char id);
/// Goes to the cue's song, and marker if it names one (cued, or playing on there when the
/// show was playing); returns what was done.
std::string RecallCue(ShowSession& session, const CueTarget& target);
/// Performs every event taken from the input; returns a line for each.
std::vector<std::string> PerformInputEvents(ShowSession& session, CommandInput& input,
                                            const CueList& cues);

/// "note 60 on channel 1", "controller 64 on channel 3", "program 5 on channel 16".
std::string DescribeMessage(MidiBindingKey key);
/// The status area's input line: the device, the messages received, what is being learned.
std::string InputStatusLine(CommandInput& input);

/// $XDG_CONFIG_HOME/velt-play/midi_commands.dat (or ~/.config/velt-play/...), its folder created.
std::string CommandSettingsPath();

}  // namespace velt_play
