// A MIDI Time Code receiver written from the MIDI Time Code rules alone, sharing no code with
// the engine's encoder: a full frame (F0 7F 7F 01 01 hr mn sc fr F7) sets the position and
// restarts the pieces; eight quarter frames (F1, piece 0 to 7) carry frames, seconds, minutes
// and hours low nibble first, the rate in piece 7; one cycle of eight spans two frames. It
// checks each rule as it hears the bytes and keeps what it decoded.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace mtc_receiver {

struct Label {
    int hours = 0, minutes = 0, seconds = 0, frames = 0, rate = 0;
    bool operator==(const Label&) const = default;
};

inline std::string Text(const Label& l) {
    char text[32];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d%c%02d/r%d", l.hours, l.minutes, l.seconds,
                  l.rate == 2 ? ';' : ':', l.frames, l.rate);
    return text;
}

inline int FramesPerSecond(int rate) {
    return rate == 0 ? 24 : rate == 1 ? 25 : 30;
}

// Frame number since midnight. Drop-frame: every minute not divisible by ten lacks labels 0
// and 1, i.e. two labels per minute minus those of the tens.
inline std::int64_t FrameNumber(const Label& l) {
    const std::int64_t totalMinutes = 60 * l.hours + l.minutes;
    const std::int64_t labels =
        (totalMinutes * 60 + l.seconds) * FramesPerSecond(l.rate) + l.frames;
    return l.rate == 2 ? labels - 2 * (totalMinutes - totalMinutes / 10) : labels;
}

// The label of frame number n, by the usual drop-frame arithmetic (17982 frames per ten minutes,
// 1798 per dropped minute).
inline Label LabelOf(std::int64_t n, int rate) {
    const int fps = FramesPerSecond(rate);
    if (rate == 2) {
        const std::int64_t perDay = 24 * 6 * 17982;
        n = ((n % perDay) + perDay) % perDay;
        const std::int64_t tens = n / 17982;
        const std::int64_t rest = n % 17982;
        n += 18 * tens + (rest > 1 ? 2 * ((rest - 2) / 1798) : 0);
    }
    n %= std::int64_t{24} * 3600 * fps;
    Label l;
    l.rate = rate;
    l.frames = static_cast<int>(n % fps);
    l.seconds = static_cast<int>(n / fps % 60);
    l.minutes = static_cast<int>(n / fps / 60 % 60);
    l.hours = static_cast<int>(n / fps / 3600);
    return l;
}

// Listens to the recorded bytes and checks every rule as it goes.
struct Receiver {
    std::vector<std::string> faults;
    std::vector<Label> fullFrames;
    std::vector<Label> cycles;  // the time of each completed eight-piece cycle
    std::int64_t quarterFrames = 0;
    int expectedPiece = -1;  // -1: no full frame yet
    Label partial;

    void Hear(const std::vector<std::uint8_t>& bytes) {
        if (bytes.size() == 10 && bytes[0] == 0xF0) {
            const std::vector<std::uint8_t> head{0xF0, 0x7F, 0x7F, 0x01, 0x01};
            if (!std::equal(head.begin(), head.end(), bytes.begin()) || bytes[9] != 0xF7) {
                faults.push_back("malformed full frame");
            }
            fullFrames.push_back(
                Label{bytes[5] & 0x1F, bytes[6], bytes[7], bytes[8], (bytes[5] >> 5) & 3});
            expectedPiece = 0;  // a stream restarts with piece 0 after a full frame
            return;
        }
        if (bytes.size() != 2 || bytes[0] != 0xF1) {
            faults.push_back("unexpected message");
            return;
        }
        ++quarterFrames;
        const int piece = bytes[1] >> 4;
        const int nibble = bytes[1] & 0x0F;
        if (expectedPiece < 0) {
            faults.push_back("quarter frame before any full frame");
        } else if (piece != expectedPiece) {
            faults.push_back("piece " + std::to_string(piece) + " where " +
                             std::to_string(expectedPiece) + " was due");
        }
        expectedPiece = (piece + 1) % 8;
        int* fields[] = {&partial.frames, &partial.seconds, &partial.minutes, &partial.hours};
        if (piece < 7) {
            int& field = *fields[piece / 2];
            field = piece % 2 == 0 ? (field & 0xF0) | nibble : (field & 0x0F) | (nibble << 4);
        } else {
            partial.hours = (partial.hours & 0x0F) | ((nibble & 1) << 4);
            partial.rate = (nibble >> 1) & 3;
            Check(partial);
        }
    }

    // A cycle right after a full frame carries the full frame's time; any other carries the
    // previous cycle's time plus two frames.
    void Check(const Label& time) {
        if (fullFrames.size() != fullFramesAtLastCycle) {
            if (!(time == fullFrames.back())) {
                faults.push_back("first cycle " + Text(time) + " after full frame " +
                                 Text(fullFrames.back()));
            }
        } else if (!cycles.empty()) {
            const Label expected = LabelOf(FrameNumber(cycles.back()) + 2, time.rate);
            if (!(time == expected)) {
                faults.push_back("cycle " + Text(time) + " after " + Text(cycles.back()) +
                                 " (expected " + Text(expected) + ")");
            }
        }
        cycles.push_back(time);
        fullFramesAtLastCycle = fullFrames.size();
    }
    std::size_t fullFramesAtLastCycle = 0;
};

}  // namespace mtc_receiver
