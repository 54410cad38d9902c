#include "midi/midi_commands.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <vector>

#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "midi/midi_endpoints.h"
#include "midi/velt_midi_error.h"

namespace midi_commands {
namespace {

std::function<void()> Posting(const std::string& name) {
    return [&name] { notify::callbackDispatcher.Notify(name, nullptr); };
}

constexpr const char* kSettingsTag = "MidiCommandsSettings";
constexpr unsigned char kConductBeat = 0;

enum class SourceMode : std::uint8_t { None = 0, Connected = 1, ByUniqueId = 2 };

// Strings in the settings file: one length byte, then that many bytes.
void WriteString(std::ostream& out, const std::string& text) {
    if (text.size() > 255) {
        throw std::length_error("String length is limited to 256 characters");
    }
    out.put(static_cast<char>(text.size()));
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

std::string ReadString(std::istream& in) {
    std::array<char, 256> buffer{};
    const auto length = static_cast<unsigned char>(in.get());
    in.read(buffer.data(), length);
    return std::string(buffer.data(), length);
}

template <typename Integer>
void WriteLittleEndian(std::ostream& out, Integer value) {
    for (std::size_t byte = 0; byte < sizeof(Integer); ++byte) {
        out.put(static_cast<char>((static_cast<std::uint64_t>(value) >> (8 * byte)) & 0xFF));
    }
}

template <typename Integer>
Integer ReadLittleEndian(std::istream& in) {
    std::uint64_t value = 0;
    for (std::size_t byte = 0; byte < sizeof(Integer); ++byte) {
        value |= static_cast<std::uint64_t>(static_cast<unsigned char>(in.get())) << (8 * byte);
    }
    return static_cast<Integer>(value);
}

}  // namespace

const std::map<unsigned char, std::function<void()>> commandIds = {
    {0, Posting(notify::names::midiCommandConductBeat)},
    {1, Posting(notify::names::midiCommandContinuousMode)},
    {2, Posting(notify::names::midiCommandPlay)},
    {3, Posting(notify::names::midiCommandPause)},
    {4, Posting(notify::names::midiCommandStop)},
    {5, Posting(notify::names::midiCommandNextSong)},
    {6, Posting(notify::names::midiCommandPreviousSong)},
    {7, Posting(notify::names::midiCommandNextMarker)},
    {8, Posting(notify::names::midiCommandPreviousMarker)},
    {9, Posting(notify::names::midiCommandContinue)},
    {10, Posting(notify::names::midiCommandNextPatch)},
    {11, Posting(notify::names::midiCommandPreviousPatch)},
};

// The editions' tables are ranges of one list of names: the basic edition offers ids 2 to 9,
// the conducting edition 0 to 9, the keyboard edition all twelve. The patch commands are written
// without a space; hosts match on these texts.
namespace {
const std::map<unsigned char, std::string> kAllCommandNames = {
    {0, "Conduct Beat"},
    {1, "Continuous Mode"},
    {2, "Play"},
    {3, "Pause"},
    {4, "Stop"},
    {5, "Next Song"},
    {6, "Previous Song"},
    {7, "Next Marker"},
    {8, "Previous Marker"},
    {9, "Continue"},
    {10, "NextPatch"},
    {11, "PreviousPatch"},
};

std::map<unsigned char, std::string> NamesOfIds(unsigned char first, unsigned char last) {
    return {kAllCommandNames.lower_bound(first), kAllCommandNames.upper_bound(last)};
}
}  // namespace

const std::map<unsigned char, std::string> commandNames = NamesOfIds(2, 9);
const std::map<unsigned char, std::string> parvelCommandNames = NamesOfIds(0, 9);
const std::map<unsigned char, std::string> keysCommandNames = NamesOfIds(0, 11);

MidiCommands::MidiCommands(MidiMessageDispatcher& dispatcher, std::string settingsPath)
    : dispatcher_(dispatcher), settingsPath_(std::move(settingsPath)) {
    lifeline_->owner = this;
    try {
        LoadFromFile();
    } catch (const VeltMidiError& error) {
        kit::CoutBuffer() << "WARNING: VeltMidiError on LoadFromFile: " << error.what()
                          << kit::endl;
    } catch (const std::exception& error) {
        kit::CoutBuffer() << "WARNING: LoadFromFile error: " << error.what() << kit::endl;
    }
}

MidiCommands::~MidiCommands() {
    {
        std::scoped_lock lock(lifeline_->mutex);
        lifeline_->owner = nullptr;
    }
    try {
        SaveToFile();
    } catch (...) {
        kit::CoutBuffer() << "WARNING: Unable to save settings to " << settingsPath_ << kit::endl;
    }
}

void MidiCommands::ConnectSourceByIndex(unsigned char index) {
    {
        std::scoped_lock lock(mutex_);
        sourceConnected_ = false;
        sourceByUniqueId_ = false;
    }
    if (!IsValidNonVeltSourceIndex(index)) {
        throw MidiPortError("Invalid MIDI source.");
    }
    // Opening (and closing the input it replaces) happens without this class's lock: closing
    // waits for the old input's delivery thread, which may be reporting a learned message.
    dispatcher_.ConnectWithSourceIndex(index);
    dispatcher_.Start();
    {
        std::scoped_lock lock(mutex_);
        sourceConnected_ = true;
        sourceByUniqueId_ = false;
    }
    notify::guiDispatcher.SendSourceConnected(index);
    ReconnectLearnedCommands();
    notify::callbackDispatcher.Notify(notify::names::midiSourceConnected, nullptr);
}

unsigned char MidiCommands::GetConnectedSourceIndex() {
    std::scoped_lock lock(mutex_);
    if (!sourceByUniqueId_) {
        return dispatcher_.GetPortIndex();
    }
    return GetIndexFromUniqueId(static_cast<int>(sourceUniqueId_));
}

bool MidiCommands::HasMidiSource() {
    return dispatcher_.GetIsConnected();
}

void MidiCommands::LearnMidiCommandNoAssign(unsigned char id) {
    {
        std::scoped_lock lock(mutex_);
        learnQueue_.push_back(id);
    }
    dispatcher_.LearnMidiBindingNoAssign([lifeline = lifeline_, id](MidiBindingKey key) {
        std::scoped_lock lock(lifeline->mutex);
        if (lifeline->owner != nullptr) {
            lifeline->owner->OnLearnedMidiCommandNoAssign(id, key);
        }
    });
}

bool MidiCommands::IsMidiCommandLearning(unsigned char id) {
    std::scoped_lock lock(mutex_);
    return std::ranges::find(learnQueue_, id) != learnQueue_.end();
}

void MidiCommands::OnLearnedMidiCommandNoAssign(unsigned char id, MidiBindingKey key) {
    {
        std::scoped_lock lock(mutex_);
        const unsigned char expected = learnQueue_.empty() ? id : learnQueue_.front();
        if (!learnQueue_.empty()) {
            learnQueue_.pop_front();
        }
        if (expected != id) {
            std::cerr << "Error: Learned Midi Command Id Does Not match expected command id.\n";
        }
    }
    SetMidiCommand(id, key.first & 0xF0, key.first & 0x0F, key.second);
}

void MidiCommands::SetMidiCommand(unsigned char id, unsigned char kind, unsigned char channel,
                                  unsigned char data) {
    RemoveDuplicateLearnedCommand(id, kind, channel, data);
    const MidiBindingKey key{static_cast<unsigned char>(kind | channel), data};
    const auto found = commandIds.find(id);
    if (found == commandIds.end()) {
        throw std::out_of_range("invalid map<K, T> key");
    }
    dispatcher_.SetMidiBinding(key, found->second);
    std::scoped_lock lock(mutex_);
    if (id == kConductBeat) {
        hasConductBeat_ = true;
    }
    SendLearnedCommand(id, key);
    learned_[id] = LearnedCommand{id, kind, channel, data};
}

void MidiCommands::UnsetMidiCommand(unsigned char id) {
    std::scoped_lock lock(mutex_);
    const auto found = learned_.find(id);
    if (found != learned_.end()) {
        const LearnedCommand& command = found->second;
        dispatcher_.RemoveMidiBinding(
            {static_cast<unsigned char>(command.kind | command.channel), command.data});
    }
    if (id == kConductBeat) {
        hasConductBeat_ = false;
    }
    if (found != learned_.end()) {
        learned_.erase(found);
        SendCommandCanceled(id);
    }
}

void MidiCommands::RemoveDuplicateLearnedCommand(unsigned char id, unsigned char kind,
                                                 unsigned char channel, unsigned char data) {
    std::scoped_lock lock(mutex_);
    // Another command on this message, or this command on another message; an entry equal in
    // both is left for the caller to overwrite.
    std::vector<LearnedCommand> collected;
    for (const auto& [learnedId, command] : learned_) {
        const bool sameMessage =
            command.kind == kind && command.channel == channel && command.data == data;
        const bool sameId = learnedId == id;
        if (sameMessage != sameId) {
            collected.push_back(command);
        }
    }
    for (const LearnedCommand& command : collected) {
        dispatcher_.RemoveMidiBinding(
            {static_cast<unsigned char>(command.kind | command.channel), command.data});
        if (command.id != id) {
            learned_.erase(command.id);
            SendCommandCanceled(command.id);
        }
    }
}

void MidiCommands::ReconnectLearnedCommands() {
    std::scoped_lock lock(mutex_);
    const std::map<unsigned char, LearnedCommand> commands = learned_;
    for (const auto& [id, command] : commands) {
        SetMidiCommand(command.id, command.kind, command.channel, command.data);
    }
}

void MidiCommands::SendLearnedCommand(unsigned char id, MidiBindingKey key) {
    notify::guiDispatcher.SendLearnedMIDICommand(id * 65536 + key.first * 256 + key.second);
    notify::callbackDispatcher.Notify(notify::names::midiCommandLearned, nullptr);
}

void MidiCommands::SendCommandCanceled(unsigned char id) {
    notify::guiDispatcher.SendMidiCommandCanceled(id);
}

bool MidiCommands::GetHasConductBeat() {
    std::scoped_lock lock(mutex_);
    return hasConductBeat_;
}

std::map<unsigned char, LearnedCommand> MidiCommands::GetLearnedCommands() {
    std::scoped_lock lock(mutex_);
    return learned_;
}

void MidiCommands::SaveToFile() {
    std::ofstream out(settingsPath_, std::ios::out | std::ios::binary);
    if (!out) {
        throw kit::IoError(settingsPath_ + " is not writable.");
    }
    WriteString(out, kSettingsTag);
    std::scoped_lock lock(mutex_);
    SourceMode mode = SourceMode::None;
    std::uint32_t value = 0;
    if (sourceConnected_) {
        mode = SourceMode::Connected;
        value = GetConnectedSourceIndex();
    } else if (sourceByUniqueId_) {
        mode = SourceMode::ByUniqueId;
        value = sourceUniqueId_;
    }
    out.put(static_cast<char>(mode));
    WriteLittleEndian(out, value);
    WriteLittleEndian(out, static_cast<std::uint16_t>(learned_.size()));
    for (const auto& [id, command] : learned_) {
        for (const unsigned char byte : {command.id, command.kind, command.channel, command.data}) {
            out.put(static_cast<char>(byte));
        }
    }
    out.flush();
    if (!out) {
        throw kit::IoError(settingsPath_ + " is not writable.");
    }
}

void MidiCommands::LoadFromFile() {
    std::ifstream in;
    in.exceptions(std::ios::failbit | std::ios::badbit);
    in.open(settingsPath_, std::ios::in | std::ios::binary);
    if (ReadString(in) != kSettingsTag) {
        throw VeltMidiError("Unrecognized command settings file.");
    }
    const auto mode = static_cast<SourceMode>(in.get());
    const auto value = ReadLittleEndian<std::uint32_t>(in);
    const auto count = ReadLittleEndian<std::uint16_t>(in);
    std::vector<LearnedCommand> entries(count);
    for (LearnedCommand& entry : entries) {
        std::array<char, 4> bytes{};
        in.read(bytes.data(), bytes.size());
        entry = LearnedCommand{
            static_cast<unsigned char>(bytes[0]), static_cast<unsigned char>(bytes[1]),
            static_cast<unsigned char>(bytes[2]), static_cast<unsigned char>(bytes[3])};
    }
    {
        std::scoped_lock lock(mutex_);
        for (const LearnedCommand& entry : entries) {
            learned_[entry.id] = entry;  // a later entry of the same id wins
        }
    }
    if (mode == SourceMode::Connected) {
        ConnectSourceByIndex(static_cast<unsigned char>(value & 0xFF));
    }
}

}  // namespace midi_commands
