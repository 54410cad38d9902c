// What a recording output device received, seen as the stream packets that carried it, and the
// prepared panic packet a song ends with.
#pragma once

#include <cstdint>
#include <limits>
#include <vector>

#include "platform/virtual_midi.h"

namespace playback {

using Message = std::vector<std::uint8_t>;

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

}  // namespace playback
