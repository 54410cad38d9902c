// What a recording output device received: its messages, the stream packets that carried them,
// the prepared panic packet a song ends with, and the notes left sounding.
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <set>
#include <vector>

#include "platform/virtual_midi.h"

namespace playback {

using Message = std::vector<std::uint8_t>;

// Every message the device received, in order.
inline std::vector<Message> Heard(const velt_platform::MidiOutputRecorder& device) {
    std::vector<Message> messages;
    for (const auto& message : device.Messages())
        messages.push_back(message.bytes);
    return messages;
}

// One list of messages per stream packet, in packet order; messages sent outside a packet (a
// host's own short messages) are left out.
inline std::vector<std::vector<Message>> Packets(const velt_platform::MidiOutputRecorder& device) {
    std::vector<std::vector<Message>> packets;
    std::uint64_t current = std::numeric_limits<std::uint64_t>::max();
    for (const auto& message : device.Messages()) {
        if (!message.packet)
            continue;
        if (*message.packet != current) {
            current = *message.packet;
            packets.emplace_back();
        }
        packets.back().push_back(message.bytes);
    }
    return packets;
}

// The prepared all-notes-off packet: controllers 123 then 121 on each of the 16 channels.
inline std::vector<Message> AllNotesOffMessages() {
    std::vector<Message> messages;
    for (std::uint8_t channel = 0; channel < 16; ++channel) {
        messages.push_back({static_cast<std::uint8_t>(0xB0 | channel), 123, 0});
        messages.push_back({static_cast<std::uint8_t>(0xB0 | channel), 121, 0});
    }
    return messages;
}

inline bool IsNoteOn(const Message& m) {
    return (m[0] & 0xF0) == 0x90 && m[2] > 0;
}
inline bool IsNoteOff(const Message& m) {
    return (m[0] & 0xF0) == 0x80 || ((m[0] & 0xF0) == 0x90 && m[2] == 0);
}
// A note as channel << 8 | key.
inline int NoteKey(const Message& m) {
    return ((m[0] & 0x0F) << 8) | m[1];
}

// Counts voices as an instrument that ignores controllers does: each note-on takes a voice,
// each note-off gives one back (a note-off for a note not sounding gives nothing back).
class Voices {
  public:
    void Hear(const Message& m) {
        if (IsNoteOn(m)) {
            ++voices_[NoteKey(m)];
        } else if (IsNoteOff(m) && voices_[NoteKey(m)] > 0) {
            --voices_[NoteKey(m)];
        }
    }
    bool Sounds(const Message& noteOff) const {
        const auto voice = voices_.find(NoteKey(noteOff));
        return voice != voices_.end() && voice->second > 0;
    }
    std::set<int> Held() const {
        std::set<int> held;
        for (const auto& [key, count] : voices_) {
            if (count > 0) {
                held.insert(key);
            }
        }
        return held;
    }

  private:
    std::map<int, int> voices_;
};

// The notes (channel << 8 | key) still sounding after the messages.
inline std::set<int> Sounding(const std::vector<Message>& messages) {
    Voices voices;
    for (const auto& m : messages)
        voices.Hear(m);
    return voices.Held();
}

}  // namespace playback
