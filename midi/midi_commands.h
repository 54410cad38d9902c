// Transport commands driven from a MIDI controller: the performer picks an input, asks for a
// command to be learned, presses a key, pad or controller, and from then on that message
// triggers the command. Learned commands and the chosen input survive restarts in a small binary
// settings file.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "midi/midi_message_dispatcher.h"

namespace midi_commands {

/// Each command's action: posts its notify::names::midiCommand* notification (null payload).
extern const std::map<unsigned char, std::function<void()>> commandIds;
/// Display names, one table per edition: ids 2-9; ids 0-9; all twelve.
extern const std::map<unsigned char, std::string> commandNames;
extern const std::map<unsigned char, std::string> parvelCommandNames;
extern const std::map<unsigned char, std::string> keysCommandNames;

/// A command and the message that triggers it: kind is the status's upper nibble (0x90, 0xB0,
/// 0xC0), channel 0-15, data the note, controller or program number.
struct LearnedCommand {
    unsigned char id = 0;
    unsigned char kind = 0;
    unsigned char channel = 0;
    unsigned char data = 0;

    bool operator==(const LearnedCommand&) const = default;
};

/// Threads: the user interface's thread for every operation; OnLearnedMidiCommandNoAssign and
/// the command actions run on the input's delivery thread, the actions only posting
/// notifications.
///
/// Locks: a recursive mutex over all of this class's state, taken before the dispatcher's mutex.
/// It is never held while the dispatcher opens or closes an input: closing waits for the input's
/// delivery thread, which may itself be waiting for this mutex to report a learned message.
///
/// Settings file, little-endian: 1 byte 20, the 20 bytes "MidiCommandsSettings"; source mode
/// (1 byte: 0 none, 1 connected port index, 2 remembered unique id) and its value (4 bytes);
/// count (2 bytes); then per learned command id, kind, channel, data, in ascending id order.
class MidiCommands {
  public:
    /// Loads the file; any failure is reported as a warning line and construction goes on with
    /// what was loaded before it.
    MidiCommands(MidiMessageDispatcher& dispatcher, std::string settingsPath);
    /// Saves the file; a failure is reported as a warning line.
    ~MidiCommands();
    MidiCommands(const MidiCommands&) = delete;
    MidiCommands& operator=(const MidiCommands&) = delete;

    /// Opens and starts input source `index` and rebinds every learned command. Throws
    /// MidiPortError "Invalid MIDI source." when no offered source has that index; a failure
    /// leaves no source flags set.
    void ConnectSourceByIndex(unsigned char index);
    unsigned char GetConnectedSourceIndex();
    bool HasMidiSource();

    /// Queues command `id` for learning; the next learnable message that arrives teaches it.
    void LearnMidiCommandNoAssign(unsigned char id);
    bool IsMidiCommandLearning(unsigned char id);
    void OnLearnedMidiCommandNoAssign(unsigned char id, MidiBindingKey key);

    /// Binds command `id` to the message, first removing whatever the message or the command
    /// was bound to before, so one message drives one command and one command answers one
    /// message. An unknown id throws std::out_of_range "invalid map<K, T> key".
    void SetMidiCommand(unsigned char id, unsigned char kind, unsigned char channel,
                        unsigned char data);
    void UnsetMidiCommand(unsigned char id);
    void RemoveDuplicateLearnedCommand(unsigned char id, unsigned char kind, unsigned char channel,
                                       unsigned char data);
    /// Rebinds every learned command in id order (after a new connection).
    void ReconnectLearnedCommands();
    void SendLearnedCommand(unsigned char id, MidiBindingKey key);
    void SendCommandCanceled(unsigned char id);

    bool GetHasConductBeat();
    std::map<unsigned char, LearnedCommand> GetLearnedCommands();

  private:
    // Learn requests outlive nothing: the dispatcher may answer one after this object is gone,
    // so its callback reaches the object only through this, cleared by the destructor. Its
    // mutex comes before this class's mutex.
    struct Lifeline {
        std::mutex mutex;
        MidiCommands* owner = nullptr;
    };

    void LoadFromFile();
    void SaveToFile();

    std::recursive_mutex mutex_;
    MidiMessageDispatcher& dispatcher_;
    std::deque<unsigned char> learnQueue_;
    bool hasConductBeat_ = false;
    bool sourceConnected_ = false;
    bool sourceByUniqueId_ = false;
    std::uint32_t sourceUniqueId_ = 0;
    std::map<unsigned char, LearnedCommand> learned_;
    const std::string settingsPath_;
    const std::shared_ptr<Lifeline> lifeline_ = std::make_shared<Lifeline>();
};

}  // namespace midi_commands
