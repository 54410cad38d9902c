// Exact timing: each event of a clock period carries its offset inside the period as the stream
// packet's delta time, written when the period is sent with the clock's own period; the send does
// not wait for the device, so a packet's next fill waits for it; a stop drops what is still
// queued.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "midi/clocks.h"
#include "midi/win32/data_buffer.h"
#include "midi/win32/midi_buffer_win32.h"
#include "midi/win32/midi_output_ports_win32.h"
#include "midi/win32/midi_output_win32.h"
#include "platform/virtual_midi.h"
#include "tests/support/song_player.h"
#include "tests/support/virtual_devices.h"
#include "velt_core/song_builder.h"

namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t kTicksPerQuarter = 480;
constexpr std::uint32_t kTicksPerClock = kTicksPerQuarter / 24;

// A stream event as the packet holds it.
struct StreamEvent {
    DWORD delta = 0;
    DWORD word = 0;
};

std::vector<StreamEvent> EventsOf(DataBuffer& packet) {
    std::vector<StreamEvent> events;
    const std::uint8_t* raw = packet.GetRawData();
    for (std::uint16_t i = 0; i < packet.GetEventCount(); ++i) {
        // Read from the bytes the service reads: little-endian delta, stream id, event.
        const std::uint8_t* at = raw + static_cast<std::size_t>(i) * DataBuffer::eventSize;
        auto dword = [](const std::uint8_t* p) {
            return static_cast<DWORD>(p[0] | (p[1] << 8) | (p[2] << 16)) |
                   (static_cast<DWORD>(p[3]) << 24);
        };
        EXPECT_EQ(dword(at + 4), 0u) << "stream id of event " << i;
        events.push_back({dword(at), dword(at + 8)});
    }
    return events;
}

// Each event's time from the packet's start: the running sum of the deltas.
std::vector<DWORD> TimesOf(const std::vector<StreamEvent>& events) {
    std::vector<DWORD> times;
    DWORD sum = 0;
    for (const auto& event : events) {
        sum += event.delta;
        times.push_back(sum);
    }
    return times;
}

std::uint8_t NoteOf(DWORD word) {
    return static_cast<std::uint8_t>((word >> 8) & 0x7F);
}

TEST(ExactTimingPackets, DeltaTimesPutEveryEventAtItsOffsetInTimeOrderWithoutAddingUpRounding) {
    MidiBufferWin32 buffer(1, 1200, "Exact");
    const std::uint32_t periodStart = 9600;
    buffer.SetTickIndex(periodStart);
    // As a stream writes a period: track after track, so offsets go back and forth. Track 0
    // has the even offsets, track 1 the odd ones, each note numbered 40 + its offset.
    for (std::uint16_t track = 0; track < 2; ++track) {
        for (std::uint32_t offset = track; offset < kTicksPerClock; offset += 2) {
            ASSERT_TRUE(buffer.AddEventToBuffer(
                0, velt_midi::VoiceEvent(periodStart + offset, 0x90, track,
                                         static_cast<std::uint8_t>(40 + offset), 64)));
        }
    }
    // A chase written from an earlier tick is due at the period's start; one written past the
    // period still plays inside it, at its last tick.
    ASSERT_TRUE(buffer.AddEventToBuffer(0, velt_midi::VoiceEvent(0, 0xB0, 0, 7, 100)));
    ASSERT_TRUE(
        buffer.AddEventToBuffer(0, velt_midi::VoiceEvent(periodStart + 25, 0xB0, 1, 10, 64)));

    // 97 quarter notes a minute: 25773.195... microseconds a clock, 1288.66 per tick, so a
    // rounded delta per event would drift by the end of the period.
    const double clockTime = 60.0 / 97.0 / 24.0;
    const double microsecondsPerTick = clockTime * 1e6 / kTicksPerClock;
    buffer.WriteDeltaTimes(clockTime, kTicksPerClock);

    const auto events = EventsOf(*buffer.GetDataBuffer(0));
    ASSERT_EQ(events.size(), kTicksPerClock + 2);
    const auto times = TimesOf(events);
    // First the events of offset 0 in the order written: the note of track 0, then the chase.
    EXPECT_EQ(events[0].word & 0xFF, 0x90u);
    EXPECT_EQ(NoteOf(events[0].word), 40);
    EXPECT_EQ(events[1].word, 0x006407B0u);
    EXPECT_EQ(times[1], 0u);
    for (std::uint32_t offset = 1; offset < kTicksPerClock; ++offset) {
        SCOPED_TRACE(offset);
        const auto& event = events[offset + 1];
        EXPECT_EQ(NoteOf(event.word), 40 + offset);
        EXPECT_EQ(event.word & 0x0F, offset % 2) << "channel of the track";
        EXPECT_EQ(times[offset + 1], static_cast<DWORD>(std::lround(offset * microsecondsPerTick)));
    }
    // The note at the last tick, then the late controller at the same time.
    EXPECT_EQ(events.back().word, 0x00400AB1u);
    EXPECT_EQ(times.back(), times[times.size() - 2]);
    EXPECT_LT(times.back(), static_cast<DWORD>(clockTime * 1e6));

    // Clock timing writes nothing: a packet filled afresh keeps delta 0 everywhere.
    buffer.ResetPortEventCounts();
    buffer.AddEventToBuffer(0, velt_midi::VoiceEvent(periodStart + 7, 0x90, 0, 60, 64));
    EXPECT_EQ(EventsOf(*buffer.GetDataBuffer(0))[0].delta, 0u);
}

TEST(ExactTimingPackets, APacketIsEmptiedForItsNextFillOnlyOnceTheServiceHandsItBack) {
    MidiBufferWin32 buffer(2, 120, "Reuse");
    buffer.AddEventToBuffer(1, velt_midi::VoiceEvent(0, 0x90, 0x10, 60, 64));
    auto packet = buffer.GetDataBuffer(1);
    packet->SetInUse();  // handed to the service, which still plays it

    std::atomic<bool> emptied{false};
    auto reset = std::async(std::launch::async, [&] {
        buffer.Reset();
        emptied = true;
    });
    // The fill must not write into a packet the service is reading.
    EXPECT_EQ(reset.wait_for(100ms), std::future_status::timeout);
    EXPECT_FALSE(emptied.load());
    EXPECT_EQ(packet->GetEventCount(), 1);

    packet->SignalMidiStreamOutDone();
    reset.get();
    EXPECT_EQ(buffer.GetDataBuffer(1), packet) << "a packet that came back is not quarantined";
    EXPECT_EQ(packet->GetEventCount(), 0);
    EXPECT_EQ(buffer.GetQuarantinedDataBufferCount(), 0u);
}

// The clock's timer is the test: each AdvanceClock is one period, sent at once.
class SteppedClock : public StandardMidiClock {
  public:
    bool WaitUntilStopped(std::chrono::milliseconds) { return true; }

  protected:
    void SetClockTimer(double) override {}
    void StartClock() override {}
};

using SteppedHost = playback::SongPlayer<SteppedClock>;

// One period, once the queue thread has filled the ring ahead of it, as it has when a clock runs
// in real time: the fill moves the position, which schedules the clock's changes at their ticks.
bool StepWithTheRingFilled(SteppedHost& host, std::uint32_t lastTick) {
    const std::uint32_t due = host.GetClock().GetClockState().GetTickIndex() + 3 * kTicksPerClock;
    for (int wait = 0; wait < 1000; ++wait) {
        const auto filled = host.Filled();
        if (!filled.empty() && (filled.back().tick >= due || filled.back().tick >= lastTick)) {
            break;
        }
        std::this_thread::sleep_for(1ms);
    }
    return host.GetClock().AdvanceClock();
}

// Replaces what port 0 sends with a record of the packets as they were handed over.
class SentPackets {
  public:
    explicit SentPackets(MidiOutputWin32& output) {
        dynamic_cast<MidiOutputPortsWin32&>(output.GetPorts())
            .GetPort(0)
            .SetMidiOutputCallback([this](MidiBufferWin32* buffer, unsigned char port) {
                std::scoped_lock lock(mutex_);
                byTick_[buffer->GetTickIndex()] = EventsOf(*buffer->GetDataBuffer(port));
            });
    }
    std::map<std::uint32_t, std::vector<StreamEvent>> ByTick() {
        std::scoped_lock lock(mutex_);
        return byTick_;
    }

  private:
    std::mutex mutex_;
    std::map<std::uint32_t, std::vector<StreamEvent>> byTick_;
};

VIRTUAL_DEVICE_TEST(ExactTimingPlayback, EachPeriodIsTimedWithItsOwnTempoAcrossATempoChangeAndATempoScale) {
    constexpr std::uint32_t kTempoChange = 2 * kTicksPerQuarter;  // 120 -> 90
    constexpr std::uint32_t kScaleStart = 4 * kTicksPerQuarter;   // 90 x 1.5 until 6 quarters
    constexpr std::uint32_t kScaleEnd = 6 * kTicksPerQuarter;
    velt_core::SongBuilder builder("Offsets", kTicksPerQuarter);
    builder.Tempo(0, 120).Tempo(kTempoChange, 90).Meter(0, 4, 4).Bars(2);
    builder.TempoScale(kScaleStart, kScaleEnd, 1.5f);
    // Periods on both sides of each change, with a note at every offset (tracks interleaved).
    const std::vector<std::uint32_t> periods = {kTempoChange - kTicksPerClock,     kTempoChange,
                                                kScaleStart - kTicksPerClock,      kScaleStart,
                                                kScaleStart + 10 * kTicksPerClock, kScaleEnd};
    // Each note is struck once (a note struck again while it sounds is released first).
    auto noteAt = [&](std::size_t period, std::uint32_t offset) {
        return static_cast<std::uint8_t>(4 + period * kTicksPerClock + offset);
    };
    for (std::size_t i = 0; i < periods.size(); ++i) {
        for (std::uint32_t offset = 0; offset < kTicksPerClock; ++offset) {
            builder.Event(static_cast<std::uint16_t>(offset % 2), periods[i] + offset, 0x90,
                          noteAt(i, offset), 64);
        }
    }
    velt_platform::VirtualMidiOutput device("Exact Timing Out");
    const auto song = builder.Build();
    SteppedHost host(*song, 1, {}, true);
    SentPackets sent(host.Output());
    host.Play(0);
    for (int step = 0;
         step < 1000 && StepWithTheRingFilled(host, song->GetTimeline().lastTickIndex); ++step) {
    }

    const auto byTick = sent.ByTick();
    for (std::size_t i = 0; i < periods.size(); ++i) {
        const std::uint32_t period = periods[i];
        SCOPED_TRACE(period);
        const double quarterNotesPerMinute =
            (period < kTempoChange ? 120.0 : 90.0) *
            (period >= kScaleStart && period < kScaleEnd ? 1.5 : 1.0);
        const double microsecondsPerTick = 60e6 / quarterNotesPerMinute / kTicksPerQuarter;
        const auto found = byTick.find(period);
        ASSERT_NE(found, byTick.end());
        const auto& events = found->second;
        ASSERT_EQ(events.size(), kTicksPerClock);
        const auto times = TimesOf(events);
        for (std::uint32_t offset = 0; offset < kTicksPerClock; ++offset) {
            EXPECT_EQ(NoteOf(events[offset].word), noteAt(i, offset));
            EXPECT_EQ(times[offset], static_cast<DWORD>(std::lround(offset * microsecondsPerTick)))
                << "offset " << offset;
        }
    }
}

VIRTUAL_DEVICE_TEST(ExactTimingPlayback, AStopDropsTheRestOfThePacketAndTheResetsFollowNothingOfIt) {
    // 10 quarter notes a minute: a clock lasts 250 ms, a tick 12.5 ms.
    velt_core::SongBuilder builder("Slow", kTicksPerQuarter);
    builder.Tempo(0, 10).Meter(0, 4, 4).Bars(1);
    for (const std::uint32_t offset : {0u, 8u, 16u}) {
        builder.Event(0, kTicksPerClock + offset, 0x90, static_cast<std::uint8_t>(60 + offset / 8),
                      64);
    }
    velt_platform::VirtualMidiOutput device("Exact Timing Out");
    SteppedHost host(*builder.Build(), 1, {}, true);
    host.Play(0);
    ASSERT_TRUE(host.GetClock().AdvanceClock());  // period 0: the song's opening state
    ASSERT_TRUE(host.GetClock().AdvanceClock());  // period 1: the three notes
    auto heardNote = [&](std::uint8_t note) {
        const auto messages = device.Messages();
        return std::find_if(messages.begin(), messages.end(), [&](const auto& m) {
                   return m.bytes.size() == 3 && (m.bytes[0] & 0xF0) == 0x90 && m.bytes[1] == note;
               }) != messages.end();
    };
    for (int wait = 0; wait < 200 && !heardNote(60); ++wait) {
        std::this_thread::sleep_for(5ms);
    }
    ASSERT_TRUE(heardNote(60));

    // The performer's stop while the period still plays, then the resets, as a host sends them.
    host.Output().DisarmPlayback();
    host.Output().AllNotesOff();
    // Past the period's end: anything of it still queued would have played by now.
    std::this_thread::sleep_for(400ms);

    const auto messages = device.Messages();
    EXPECT_FALSE(heardNote(61));
    EXPECT_FALSE(heardNote(62));
    const auto firstReset = std::find_if(messages.begin(), messages.end(), [](const auto& m) {
        return m.bytes.size() == 3 && (m.bytes[0] & 0xF0) == 0xB0 && m.bytes[1] == 123;
    });
    ASSERT_NE(firstReset, messages.end());
    // The note that sounded was released before the resets, and nothing of the packet follows.
    const auto release = std::find_if(messages.begin(), firstReset, [](const auto& m) {
        return m.bytes.size() == 3 && (m.bytes[0] & 0xF0) == 0x80 && m.bytes[1] == 60;
    });
    EXPECT_NE(release, firstReset);
    EXPECT_TRUE(std::none_of(firstReset, messages.end(),
                             [](const auto& m) { return (m.bytes[0] & 0xF0) == 0x90; }));
    EXPECT_EQ(std::count_if(firstReset, messages.end(),
                            [](const auto& m) { return (m.bytes[0] & 0xF0) == 0xB0; }),
              32);
}

}  // namespace
