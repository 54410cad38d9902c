// The MIDI output service on POSIX, driven the way the engine's stream device drives it.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <filesystem>
#include <latch>
#include <memory>
#include <optional>

#include "platform/virtual_midi.h"
#include "platform_midi_support.h"
#include "tests/support/temp_folder.h"

using namespace platform_midi_test;
using velt_platform::VirtualMidiOutput;
using Bytes = std::vector<std::uint8_t>;

namespace {

constexpr DWORD kNopWithCallback = MEVT_F_CALLBACK | (static_cast<DWORD>(MEVT_NOP) << 24);

HMIDIOUT AsOut(HMIDISTRM stream) {
    return reinterpret_cast<HMIDIOUT>(stream);
}

LPMIDIHDR HeaderOf(const CallbackRecord& record) {
    return reinterpret_cast<LPMIDIHDR>(record.param1);
}

// A stream opened on a fresh virtual output, paused as after open; closed at the end of the test
// unless the test closed it itself.
class PlatformMidiStream : public ::testing::Test {
  protected:
    PlatformMidiStream() {
        UINT device = *port.DeviceId();
        EXPECT_EQ(midiStreamOpen(&stream, &device, 1, CallbackLog::Function(), log.Instance(),
                                 CALLBACK_FUNCTION),
                  MMSYSERR_NOERROR);
    }
    void TearDown() override {
        if (!closed_) {
            EXPECT_EQ(Close(), MMSYSERR_NOERROR);
        }
    }
    MMRESULT Close() {
        closed_ = true;
        return midiStreamClose(stream);
    }
    MMRESULT Prepare(StreamPacket& packet) {
        return midiOutPrepareHeader(AsOut(stream), packet.Header(), sizeof(MIDIHDR));
    }
    MMRESULT Unprepare(StreamPacket& packet) {
        return midiOutUnprepareHeader(AsOut(stream), packet.Header(), sizeof(MIDIHDR));
    }
    MMRESULT Queue(StreamPacket& packet) {
        return midiStreamOut(stream, packet.Header(), sizeof(MIDIHDR));
    }
    MMRESULT PrepareAndQueue(StreamPacket& packet) {
        const MMRESULT prepared = Prepare(packet);
        return prepared != MMSYSERR_NOERROR ? prepared : Queue(packet);
    }
    template <typename Value>
    MMRESULT Property(Value& value, DWORD flags) {
        return midiStreamProperty(stream, reinterpret_cast<LPBYTE>(&value), flags);
    }

    VirtualMidiOutput port{"VELT Out"};
    CallbackLog log;
    HMIDISTRM stream = nullptr;

  private:
    bool closed_ = false;
};

}  // namespace

TEST(PlatformMidiLayout, StructsHaveTheWindowsSizesAndOffsets) {
    EXPECT_EQ(sizeof(MIDIHDR), 112u);
    EXPECT_EQ(offsetof(MIDIHDR, dwBufferLength), 8u);
    EXPECT_EQ(offsetof(MIDIHDR, dwUser), 16u);
    EXPECT_EQ(offsetof(MIDIHDR, dwFlags), 24u);
    EXPECT_EQ(offsetof(MIDIHDR, lpNext), 28u);
    EXPECT_EQ(offsetof(MIDIHDR, dwOffset), 44u);
    EXPECT_EQ(offsetof(MIDIHDR, dwReserved), 48u);
    EXPECT_EQ(sizeof(MIDIOUTCAPSW), 84u);
    EXPECT_EQ(offsetof(MIDIOUTCAPSW, szPname), 8u);
    EXPECT_EQ(offsetof(MIDIOUTCAPSW, wTechnology), 72u);
    EXPECT_EQ(offsetof(MIDIOUTCAPSW, dwSupport), 80u);
    EXPECT_EQ(sizeof(MIDIINCAPSW), 76u);
    EXPECT_EQ(sizeof(WCHAR), 2u);
    EXPECT_EQ(kNopWithCallback, 0x42000000u);
}

TEST(PlatformMidiDevices, DefaultOutputIsListedOnlyAloneAndVirtualOutputsHideIt) {
    bool listed = false;
    for (UINT id = 0; id < midiOutGetNumDevs(); ++id) {
        listed = listed || OutputName(id) == "Built-in Default Output";
    }
    MIDIOUTCAPSW caps{};
    if (listed) {
        EXPECT_EQ(midiOutGetNumDevs(), 1u);
        ASSERT_EQ(midiOutGetDevCapsW(0, &caps, sizeof caps), MMSYSERR_NOERROR);
        EXPECT_EQ(caps.wTechnology, MOD_SWSYNTH);
    }
    VirtualMidiOutput first("VELT Out");
    VirtualMidiOutput second("IAC Driver VELT Bus 1");
    ASSERT_EQ(first.DeviceId(), 0u);  // virtual outputs come first, in creation order
    ASSERT_EQ(second.DeviceId(), 1u);
    EXPECT_EQ(OutputName(0), "VELT Out");
    EXPECT_EQ(OutputName(1), "IAC Driver VELT Bus 1");
    for (UINT id = 0; id < midiOutGetNumDevs(); ++id) {
        EXPECT_NE(OutputName(id), "Built-in Default Output");
    }
    EXPECT_EQ(midiOutGetDevCapsW(midiOutGetNumDevs(), &caps, sizeof caps), MMSYSERR_BADDEVICEID);
    EXPECT_EQ(midiOutGetDevCapsW(0, nullptr, sizeof caps), MMSYSERR_INVALPARAM);
}

TEST(PlatformMidiDevices, CapabilitiesCarryA16BitNameCutTo31UnitsAndHonourTheSize) {
    VirtualMidiOutput port("Stage Left \xC3\xA9 Port With A Rather Long Name");  // é in UTF-8
    MIDIOUTCAPSW caps{};
    ASSERT_EQ(midiOutGetDevCapsW(*port.DeviceId(), &caps, sizeof caps), MMSYSERR_NOERROR);
    EXPECT_EQ(std::u16string(caps.szPname),
              std::u16string(u"Stage Left \u00E9 Port With A Rather Long Name").substr(0, 31));
    EXPECT_EQ(caps.szPname[11], u'\u00E9');
    EXPECT_EQ(caps.szPname[31], u'\0');
    EXPECT_EQ(caps.wTechnology, MOD_MIDIPORT);
    EXPECT_EQ(caps.wChannelMask, 0xFFFF);
    EXPECT_EQ(caps.dwSupport, static_cast<DWORD>(MIDICAPS_STREAM));

    // Only cbmoc bytes are written.
    std::array<BYTE, sizeof(MIDIOUTCAPSW)> raw;
    raw.fill(0xAB);
    ASSERT_EQ(
        midiOutGetDevCapsW(*port.DeviceId(), reinterpret_cast<LPMIDIOUTCAPSW>(raw.data()), 10),
        MMSYSERR_NOERROR);
    EXPECT_EQ(raw[9], 0x00);  // high byte of 'S'
    EXPECT_EQ(raw[10], 0xAB);
}

TEST(PlatformMidiDevices, ErrorTextsFollowTheResultNumbers) {
    std::array<WCHAR, 512> text{};
    ASSERT_EQ(midiOutGetErrorTextW(MIDIERR_STILLPLAYING, text.data(), text.size()),
              MMSYSERR_NOERROR);
    EXPECT_NE(Narrow(text.data()).find("still playing"), std::string::npos);
    ASSERT_EQ(midiOutGetErrorTextW(MMSYSERR_BADDEVICEID, text.data(), 10), MMSYSERR_NOERROR);
    EXPECT_EQ(Narrow(text.data()).size(), 9u);  // cut to the buffer, terminator included
    EXPECT_EQ(midiOutGetErrorTextW(22, text.data(), text.size()), MMSYSERR_BADERRNUM);
    EXPECT_EQ(midiOutGetErrorTextW(72, text.data(), text.size()), MMSYSERR_BADERRNUM);
    EXPECT_EQ(midiOutGetErrorTextW(MMSYSERR_ERROR, nullptr, 10), MMSYSERR_INVALPARAM);
}

TEST(PlatformMidiOpen, FailureExclusivityAndBadIds) {
    VirtualMidiOutput port("VELT Out");
    UINT device = *port.DeviceId();
    CallbackLog log;
    HMIDISTRM stream = reinterpret_cast<HMIDISTRM>(1);
    const auto open = [&] {
        return midiStreamOpen(&stream, &device, 1, CallbackLog::Function(), log.Instance(),
                              CALLBACK_FUNCTION);
    };

    port.FailOpen(MMSYSERR_NODRIVER);
    EXPECT_EQ(open(), MMSYSERR_NODRIVER);
    EXPECT_EQ(stream, nullptr);
    EXPECT_TRUE(log.Records().empty());
    port.FailOpen(MMSYSERR_NOERROR);

    ASSERT_EQ(open(), MMSYSERR_NOERROR);
    ASSERT_EQ(log.Of(MOM_OPEN).size(), 1u);  // made inside the call, on this thread
    EXPECT_EQ(log.Of(MOM_OPEN)[0].thread, std::this_thread::get_id());
    EXPECT_TRUE(port.IsOpen());

    HMIDIOUT second = nullptr;
    EXPECT_EQ(midiOutOpen(&second, device, 0, 0, CALLBACK_NULL), MMSYSERR_ALLOCATED);
    EXPECT_EQ(midiOutOpen(&second, midiOutGetNumDevs(), 0, 0, CALLBACK_NULL), MMSYSERR_BADDEVICEID);
    EXPECT_EQ(midiOutOpen(&second, device, 0, 0, CALLBACK_WINDOW), MMSYSERR_NOTSUPPORTED);
    EXPECT_EQ(midiStreamOpen(reinterpret_cast<LPHMIDISTRM>(&second), &device, 2, 0, 0, 0),
              MMSYSERR_INVALPARAM);

    ASSERT_EQ(midiStreamClose(stream), MMSYSERR_NOERROR);
    EXPECT_EQ(log.Records().back().message, static_cast<UINT>(MOM_CLOSE));
    EXPECT_FALSE(port.IsOpen());
    EXPECT_EQ(midiStreamClose(stream), MMSYSERR_INVALHANDLE);
    EXPECT_EQ(midiOutShortMsg(AsOut(stream), 0x90), MMSYSERR_INVALHANDLE);
}

TEST_F(PlatformMidiStream, HeadersMustBePreparedAndQueuedOnceAndCloseHandsThemBackFirst) {
    std::array<StreamPacket, 4> queued;
    StreamPacket& packet = queued[0];
    for (auto& each : queued) {
        each.AddShort(0x90, 1, 1);
    }
    EXPECT_EQ(Queue(packet), MIDIERR_UNPREPARED);
    ASSERT_EQ(Prepare(packet), MMSYSERR_NOERROR);
    EXPECT_EQ(packet.Header()->dwFlags, MHDR_PREPARED);
    // Preparing twice has no effect; the size must cover the header.
    EXPECT_EQ(Prepare(packet), MMSYSERR_NOERROR);
    EXPECT_EQ(midiStreamOut(stream, packet.Header(), sizeof(MIDIHDR) - 8), MMSYSERR_INVALPARAM);

    // Paused since open, so the buffers stay queued.
    for (auto& each : queued) {
        ASSERT_EQ(PrepareAndQueue(each), MMSYSERR_NOERROR);
    }
    EXPECT_EQ(packet.Header()->dwFlags, MHDR_PREPARED | MHDR_INQUEUE | MHDR_ISSTRM);
    EXPECT_EQ(Queue(packet), MIDIERR_STILLPLAYING);
    EXPECT_EQ(Unprepare(packet), MIDIERR_STILLPLAYING);

    ASSERT_EQ(Close(), MMSYSERR_NOERROR);
    EXPECT_EQ(packet.Header()->dwFlags, MHDR_PREPARED | MHDR_DONE | MHDR_ISSTRM);
    const auto records = log.Records();
    ASSERT_EQ(records.size(), 6u);  // open, four done, close
    EXPECT_EQ(records.front().message, static_cast<UINT>(MOM_OPEN));
    for (std::size_t i = 0; i < queued.size(); ++i) {
        EXPECT_EQ(records[i + 1].message, static_cast<UINT>(MOM_DONE));
        EXPECT_EQ(HeaderOf(records[i + 1]), queued[i].Header());
    }
    EXPECT_EQ(records.back().message, static_cast<UINT>(MOM_CLOSE));
    EXPECT_EQ(records.back().thread, std::this_thread::get_id());
    EXPECT_TRUE(port.Messages().empty());
}

TEST_F(PlatformMidiStream, ManyPacketsPlayInOrderAndComeBackOnOneServiceThread) {
    constexpr int kPackets = 300;
    constexpr int kEventsPerPacket = 5;
    const auto event = [](int p, int e) {
        return Bytes{static_cast<std::uint8_t>(0xB0 | (p % 16)), static_cast<std::uint8_t>(e),
                     static_cast<std::uint8_t>(p % 128)};
    };
    std::vector<std::unique_ptr<StreamPacket>> packets;
    for (int p = 0; p < kPackets; ++p) {
        packets.push_back(std::make_unique<StreamPacket>());
        for (int e = 0; e < kEventsPerPacket; ++e) {
            const Bytes bytes = event(p, e);
            packets.back()->AddShort(bytes[0], bytes[1], bytes[2]);
        }
        packets.back()->Header()->dwUser = static_cast<DWORD_PTR>(p);
        ASSERT_EQ(Prepare(*packets.back()), MMSYSERR_NOERROR);
    }
    const std::int64_t beforeRestart = SteadyNowNs();
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    for (auto& packet : packets) {
        ASSERT_EQ(Queue(*packet), MMSYSERR_NOERROR);
    }
    ASSERT_TRUE(log.WaitFor(MOM_DONE, kPackets));

    const auto done = log.Of(MOM_DONE);
    ASSERT_EQ(done.size(), static_cast<std::size_t>(kPackets));
    for (int p = 0; p < kPackets; ++p) {
        EXPECT_EQ(HeaderOf(done[p])->dwUser, static_cast<DWORD_PTR>(p));
        EXPECT_EQ(HeaderOf(done[p])->dwFlags & (MHDR_DONE | MHDR_INQUEUE), MHDR_DONE);
        EXPECT_NE(done[p].thread, std::this_thread::get_id());
        EXPECT_EQ(done[p].thread, done[0].thread);
        EXPECT_EQ(done[p].handle, stream);
    }
    const auto messages = port.Messages();
    ASSERT_EQ(messages.size(), static_cast<std::size_t>(kPackets * kEventsPerPacket));
    for (std::size_t i = 0; i < messages.size(); ++i) {
        const int p = static_cast<int>(i) / kEventsPerPacket;
        ASSERT_EQ(messages[i].packet, static_cast<std::uint64_t>(p));
        ASSERT_EQ(messages[i].bytes, event(p, static_cast<int>(i) % kEventsPerPacket));
        EXPECT_GE(messages[i].timestampNs, i > 0 ? messages[i - 1].timestampNs : beforeRestart);
    }
    EXPECT_EQ(port.PacketCount(), static_cast<std::uint64_t>(kPackets));
    for (auto& packet : packets) {
        EXPECT_EQ(Unprepare(*packet), MMSYSERR_NOERROR);
    }
}

TEST_F(PlatformMidiStream, StopReturnsQueuedBuffersInOrderAndReleasesSoundingNotes) {
    StreamPacket noteOn;
    noteOn.AddShort(0x91, 64, 90);
    noteOn.AddShort(0x91, 67, 90);
    noteOn.AddShort(0x81, 67, 0);
    ASSERT_EQ(Prepare(noteOn), MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    ASSERT_EQ(Queue(noteOn), MMSYSERR_NOERROR);
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 1));

    ASSERT_EQ(midiStreamPause(stream), MMSYSERR_NOERROR);
    std::array<StreamPacket, 3> queued;
    for (auto& packet : queued) {
        packet.AddShort(0x90, 1, 1);
        ASSERT_EQ(PrepareAndQueue(packet), MMSYSERR_NOERROR);
    }
    ASSERT_EQ(midiStreamStop(stream), MMSYSERR_NOERROR);
    // Every buffer is back before the call returns, in queue order, and can be unprepared.
    const auto done = log.Of(MOM_DONE);
    ASSERT_EQ(done.size(), 4u);
    for (std::size_t i = 0; i < queued.size(); ++i) {
        EXPECT_EQ(HeaderOf(done[i + 1]), queued[i].Header());
        EXPECT_NE(done[i + 1].thread, std::this_thread::get_id());
        EXPECT_EQ(Unprepare(queued[i]), MMSYSERR_NOERROR);
    }
    // Played: two note-ons and one note-off; the stop turns off the one still sounding.
    const auto messages = port.Messages();
    ASSERT_EQ(messages.size(), 4u);
    EXPECT_EQ(messages[3].bytes, (Bytes{0x81, 64, 0x40}));
    EXPECT_FALSE(messages[3].packet.has_value());

    // Stopped until restarted: a new buffer plays only after midiStreamRestart.
    ASSERT_EQ(PrepareAndQueue(queued[0]), MMSYSERR_NOERROR);
    const std::int64_t beforeRestart = SteadyNowNs();
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    ASSERT_TRUE(port.WaitForMessages(5, kHangLimit));
    EXPECT_GE(port.Messages()[4].timestampNs, beforeRestart);
}

TEST_F(PlatformMidiStream, LostCompletionsAreNeverHandedBackAndSlowOnesOnlyAtStop) {
    port.LoseCompletionOfPacket(1);
    std::array<StreamPacket, 6> packets;
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    for (std::size_t i = 0; i < packets.size(); ++i) {
        if (i == 3) {
            port.LoseNextCompletions(1);  // the fourth one too
        } else if (i == 5) {
            port.SetCompletionDelay(std::chrono::hours(1));
        }
        packets[i].AddShort(0x90, static_cast<BYTE>(i), 1);
        ASSERT_EQ(PrepareAndQueue(packets[i]), MMSYSERR_NOERROR);
    }
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 3));
    ASSERT_TRUE(port.WaitForMessages(6, kHangLimit));
    const auto done = log.Of(MOM_DONE);
    ASSERT_EQ(done.size(), 3u);
    EXPECT_EQ(HeaderOf(done[0]), packets[0].Header());
    EXPECT_EQ(HeaderOf(done[1]), packets[2].Header());
    EXPECT_EQ(HeaderOf(done[2]), packets[4].Header());
    // The lost ones were played but keep their queued state for good; the slow one is held.
    EXPECT_EQ(packets[1].Header()->dwFlags & (MHDR_DONE | MHDR_INQUEUE), MHDR_INQUEUE);
    EXPECT_EQ(Unprepare(packets[1]), MIDIERR_STILLPLAYING);
    EXPECT_NE(packets[5].Header()->dwFlags & MHDR_INQUEUE, 0u);
    ASSERT_EQ(midiStreamStop(stream), MMSYSERR_NOERROR);
    const auto afterStop = log.Of(MOM_DONE);
    ASSERT_EQ(afterStop.size(), 4u);
    EXPECT_EQ(HeaderOf(afterStop[3]), packets[5].Header());
}

TEST_F(PlatformMidiStream, PositionCallbackComesAfterItsEventAndBeforeDone) {
    StreamPacket packet;
    packet.AddShort(0x90, 60, 100);
    packet.AddShort(0x90, 62, 100);
    packet.Add(0, kNopWithCallback);
    ASSERT_EQ(Prepare(packet), MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    ASSERT_EQ(Queue(packet), MMSYSERR_NOERROR);
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 1));
    const auto records = log.Records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[1].message, static_cast<UINT>(MOM_POSITIONCB));
    EXPECT_EQ(HeaderOf(records[1]), packet.Header());
    EXPECT_EQ(packet.Header()->dwOffset, 24u);
    EXPECT_EQ(records[2].message, static_cast<UINT>(MOM_DONE));
    EXPECT_EQ(port.Messages().size(), 2u);  // the NOP sends nothing
}

TEST_F(PlatformMidiStream, DeltaTimesAndTempoAreHonouredNeverEarly) {
    MIDIPROPTIMEDIV division{sizeof division, 0};
    MIDIPROPTEMPO tempo{sizeof tempo, 0};
    ASSERT_EQ(Property(division, MIDIPROP_GET | MIDIPROP_TIMEDIV), MMSYSERR_NOERROR);
    EXPECT_EQ(division.dwTimeDiv, 96u);
    ASSERT_EQ(Property(tempo, MIDIPROP_GET | MIDIPROP_TEMPO), MMSYSERR_NOERROR);
    EXPECT_EQ(tempo.dwTempo, 500000u);
    division.dwTimeDiv = 100;
    ASSERT_EQ(Property(division, MIDIPROP_SET | MIDIPROP_TIMEDIV), MMSYSERR_NOERROR);
    tempo.dwTempo = 100000;  // 1 ms per tick
    ASSERT_EQ(Property(tempo, MIDIPROP_SET | MIDIPROP_TEMPO), MMSYSERR_NOERROR);
    EXPECT_EQ(Property(tempo, MIDIPROP_TEMPO), MMSYSERR_INVALPARAM);
    EXPECT_EQ(Property(tempo, MIDIPROP_GET | 4), MMSYSERR_INVALFLAG);

    StreamPacket packet;
    packet.AddShort(0x90, 60, 100);
    packet.AddShort(0x80, 60, 0, 20);                                // 20 ms later
    packet.Add(0, (static_cast<DWORD>(MEVT_TEMPO) << 24) | 200000);  // now 2 ms per tick
    packet.AddShort(0x90, 62, 100, 10);                              // 20 ms later
    ASSERT_EQ(Prepare(packet), MMSYSERR_NOERROR);
    const std::int64_t beforeRestart = SteadyNowNs();
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    // The division can only change while stopped.
    EXPECT_EQ(Property(division, MIDIPROP_SET | MIDIPROP_TIMEDIV), MMSYSERR_INVALPARAM);
    ASSERT_EQ(Queue(packet), MMSYSERR_NOERROR);
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 1));
    const auto messages = port.Messages();
    ASSERT_EQ(messages.size(), 3u);
    // Event times count from the restart on the stream's own schedule: an event may be late,
    // never early.
    EXPECT_GE(messages[1].timestampNs - beforeRestart, 20'000'000);
    EXPECT_GE(messages[2].timestampNs - beforeRestart, 40'000'000);
}

// A sender that queues one packet per period with each event's offset as its delta: the offsets
// count from when the packet was queued, not from the last event of the packet before, which had
// finished long ago; a packet queued while the one before still plays follows it.
TEST_F(PlatformMidiStream, APacketsDeltasCountFromWhenItWasQueuedAndQueuedPacketsFollowInOrder) {
    MIDIPROPTIMEDIV division{sizeof division, 1000};
    MIDIPROPTEMPO tempo{sizeof tempo, 1000};  // one tick = one microsecond
    ASSERT_EQ(Property(division, MIDIPROP_SET | MIDIPROP_TIMEDIV), MMSYSERR_NOERROR);
    ASSERT_EQ(Property(tempo, MIDIPROP_SET | MIDIPROP_TEMPO), MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);

    StreamPacket first;
    first.AddShort(0x90, 60, 100);
    first.AddShort(0x90, 61, 100, 30'000);  // at 30 ms
    ASSERT_EQ(PrepareAndQueue(first), MMSYSERR_NOERROR);
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 1));
    // Later than the first packet's last event, as the next period is.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    StreamPacket second;
    second.AddShort(0x90, 62, 100, 10'000);  // 10 ms after it was queued
    second.AddShort(0x90, 63, 100, 10'000);  // 20 ms
    StreamPacket third;
    third.AddShort(0x90, 64, 100, 5'000);  // 5 ms after the second packet's last event
    ASSERT_EQ(Prepare(second), MMSYSERR_NOERROR);
    ASSERT_EQ(Prepare(third), MMSYSERR_NOERROR);
    const std::int64_t secondQueued = SteadyNowNs();
    ASSERT_EQ(Queue(second), MMSYSERR_NOERROR);
    ASSERT_EQ(Queue(third), MMSYSERR_NOERROR);
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 3));

    const auto messages = port.Messages();
    ASSERT_EQ(messages.size(), 5u);
    for (std::size_t i = 0; i < messages.size(); ++i) {
        EXPECT_EQ(messages[i].bytes[1], 60 + i) << "played in queue order";
    }
    // Never early against its own deadline. Counted from the first packet's last event instead
    // of from its queueing, the second packet's first event would be due before it was queued.
    EXPECT_GE(messages[2].timestampNs - secondQueued, 10'000'000);
    EXPECT_GE(messages[3].timestampNs - secondQueued, 20'000'000);
    EXPECT_GE(messages[4].timestampNs - secondQueued, 25'000'000);
    EXPECT_GE(messages[3].timestampNs - messages[2].timestampNs, 0);
}

TEST(PlatformMidiStreamCallback, MayQueueTheNextBufferButNotCloseItsHandle) {
    struct Chain {
        HMIDISTRM stream = nullptr;
        StreamPacket packets[2];
        std::atomic<int> done{0};
        MMRESULT closeFromCallback = MMSYSERR_NOERROR;
        std::latch finished{1};
    } chain;
    auto callback = [](HDRVR, UINT message, DWORD_PTR instance, DWORD_PTR, DWORD_PTR) {
        auto* c = reinterpret_cast<Chain*>(instance);
        if (message != MOM_DONE) {
            return;
        }
        if (c->done.fetch_add(1) == 0) {
            midiStreamOut(c->stream, c->packets[1].Header(), sizeof(MIDIHDR));
        } else {
            c->closeFromCallback = midiStreamClose(c->stream);
            c->finished.count_down();
        }
    };
    VirtualMidiOutput port("VELT Out");
    UINT device = *port.DeviceId();
    ASSERT_EQ(midiStreamOpen(&chain.stream, &device, 1, reinterpret_cast<DWORD_PTR>(+callback),
                             reinterpret_cast<DWORD_PTR>(&chain), CALLBACK_FUNCTION),
              MMSYSERR_NOERROR);
    for (auto& packet : chain.packets) {
        packet.AddShort(0x90, 60, 1);
        ASSERT_EQ(midiOutPrepareHeader(AsOut(chain.stream), packet.Header(), sizeof(MIDIHDR)),
                  MMSYSERR_NOERROR);
    }
    ASSERT_EQ(midiStreamRestart(chain.stream), MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamOut(chain.stream, chain.packets[0].Header(), sizeof(MIDIHDR)),
              MMSYSERR_NOERROR);
    chain.finished.wait();
    EXPECT_EQ(chain.closeFromCallback, static_cast<MMRESULT>(MMSYSERR_HANDLEBUSY));
    EXPECT_EQ(port.Messages().size(), 2u);
    EXPECT_EQ(midiStreamClose(chain.stream), MMSYSERR_NOERROR);
}

TEST(PlatformMidiPlain, ShortMessagesUseRunningStatusAndLongOnesComeBackDone) {
    VirtualMidiOutput port("VELT Out");
    CallbackLog log;
    HMIDIOUT out = nullptr;
    ASSERT_EQ(midiOutOpen(&out, *port.DeviceId(), CallbackLog::Function(), log.Instance(),
                          CALLBACK_FUNCTION),
              MMSYSERR_NOERROR);
    EXPECT_EQ(midiOutShortMsg(out, 0x00003C), MMSYSERR_INVALPARAM);  // no status to run on
    const std::vector<std::pair<DWORD, Bytes>> shorts{
        {0x643C90, {0x90, 0x3C, 0x64}},
        {0x00403E, {0x90, 0x3E, 0x40}},  // running status 0x90
        {0x0000F8, {0xF8}},              // real-time keeps it
        {0x000540, {0x90, 0x40, 0x05}},
        {0x0007C2, {0xC2, 0x07}},  // program change: 2 bytes
    };
    for (const auto& [word, bytes] : shorts) {
        ASSERT_EQ(midiOutShortMsg(out, word), MMSYSERR_NOERROR);
    }
    EXPECT_EQ(midiOutShortMsg(out, 0x0000F0), MMSYSERR_INVALPARAM);

    Bytes sysex{0xF0, 0x7F, 0x7F, 0x02, 0x01, 0x01, 0xF7};
    MIDIHDR header{};
    header.lpData = reinterpret_cast<LPSTR>(sysex.data());
    header.dwBufferLength = static_cast<DWORD>(sysex.size());
    EXPECT_EQ(midiOutLongMsg(out, &header, sizeof header), MIDIERR_UNPREPARED);
    ASSERT_EQ(midiOutPrepareHeader(out, &header, sizeof header), MMSYSERR_NOERROR);
    ASSERT_EQ(midiOutLongMsg(out, &header, sizeof header), MMSYSERR_NOERROR);
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 1));
    EXPECT_EQ(header.dwFlags & (MHDR_DONE | MHDR_INQUEUE), MHDR_DONE);

    const auto messages = port.Messages();
    ASSERT_EQ(messages.size(), 6u);
    for (std::size_t i = 0; i < shorts.size(); ++i) {
        EXPECT_EQ(messages[i].bytes, shorts[i].second) << "message " << i;
    }
    EXPECT_EQ(messages[5].bytes, sysex);
    EXPECT_FALSE(messages[0].packet.has_value());

    // Reset: the three sounding notes are turned off, then all-notes-off on every channel.
    ASSERT_EQ(midiOutReset(out), MMSYSERR_NOERROR);
    const auto afterReset = port.Messages();
    ASSERT_EQ(afterReset.size(), 6u + 3u + 16u);
    EXPECT_EQ(afterReset[6].bytes, (Bytes{0x80, 0x3C, 0x40}));
    EXPECT_EQ(afterReset[24].bytes, (Bytes{0xBF, 123, 0}));
    EXPECT_EQ(midiOutUnprepareHeader(out, &header, sizeof header), MMSYSERR_NOERROR);
    EXPECT_EQ(midiOutClose(out), MMSYSERR_NOERROR);
}

TEST(PlatformMidiPlain, CloseRefusesWhileLongMessagesAreQueued) {
    struct Blocker {
        std::latch entered{1};
        std::latch release{1};
    } blocker;
    auto callback = [](HDRVR, UINT message, DWORD_PTR instance, DWORD_PTR, DWORD_PTR) {
        auto* b = reinterpret_cast<Blocker*>(instance);
        if (message == MOM_DONE && !b->entered.try_wait()) {
            b->entered.count_down();
            b->release.wait();  // hold the service thread inside the first MOM_DONE
        }
    };
    VirtualMidiOutput port("VELT Out");
    HMIDIOUT out = nullptr;
    ASSERT_EQ(midiOutOpen(&out, *port.DeviceId(), reinterpret_cast<DWORD_PTR>(+callback),
                          reinterpret_cast<DWORD_PTR>(&blocker), CALLBACK_FUNCTION),
              MMSYSERR_NOERROR);
    std::array<BYTE, 3> data{0xF0, 0x01, 0xF7};
    MIDIHDR first{};
    MIDIHDR second{};
    for (MIDIHDR* h : {&first, &second}) {
        h->lpData = reinterpret_cast<LPSTR>(data.data());
        h->dwBufferLength = data.size();
        ASSERT_EQ(midiOutPrepareHeader(out, h, sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    }
    ASSERT_EQ(midiOutLongMsg(out, &first, sizeof first), MMSYSERR_NOERROR);
    blocker.entered.wait();
    ASSERT_EQ(midiOutLongMsg(out, &second, sizeof second), MMSYSERR_NOERROR);
    EXPECT_EQ(midiOutClose(out), MIDIERR_STILLPLAYING);
    EXPECT_EQ(midiOutUnprepareHeader(out, &second, sizeof second), MIDIERR_STILLPLAYING);
    blocker.release.count_down();
    ASSERT_EQ(midiOutReset(out), MMSYSERR_NOERROR);
    EXPECT_NE(second.dwFlags & MHDR_DONE, 0u);
    EXPECT_EQ(midiOutClose(out), MMSYSERR_NOERROR);
}

TEST(PlatformMidiPlain, DestroyedVirtualOutputLeavesAnOpenHandleWithoutDevice) {
    HMIDIOUT out = nullptr;
    {
        VirtualMidiOutput port("Unplugged");
        ASSERT_EQ(midiOutOpen(&out, *port.DeviceId(), 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
        EXPECT_EQ(midiOutShortMsg(out, 0x643C90), MMSYSERR_NOERROR);
    }
    EXPECT_EQ(midiOutShortMsg(out, 0x643C90), MIDIERR_NODEVICE);
    EXPECT_EQ(midiOutClose(out), MMSYSERR_NOERROR);
}

// A device that goes away under a playing stream: the stream notices at its next event, hands
// back the packet it was playing and those queued behind it, and refuses further packets with the
// device's own error, while stop, unprepare and close still tidy up.
TEST(PlatformMidiStreamLoss, ADeviceGoneMidStreamHandsPacketsBackAndRefusesMore) {
    std::optional<VirtualMidiOutput> port(std::in_place, "Unplugged Stream");
    CallbackLog log;
    HMIDISTRM stream = nullptr;
    UINT device = *port->DeviceId();
    ASSERT_EQ(midiStreamOpen(&stream, &device, 1, CallbackLog::Function(), log.Instance(),
                             CALLBACK_FUNCTION),
              MMSYSERR_NOERROR);
    const auto out = AsOut(stream);
    std::array<StreamPacket, 4> packets;
    for (auto& packet : packets) {
        packet.AddShort(0x90, 60, 100);
        packet.AddShort(0x80, 60, 0);
        ASSERT_EQ(midiOutPrepareHeader(out, packet.Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    }
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamOut(stream, packets[0].Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 1));
    EXPECT_EQ(port->Messages().size(), 2u);

    ASSERT_EQ(midiStreamPause(stream), MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamOut(stream, packets[1].Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamOut(stream, packets[2].Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    port.reset();
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 3));
    const auto done = log.Of(MOM_DONE);
    EXPECT_EQ(HeaderOf(done[1]), packets[1].Header());
    EXPECT_EQ(HeaderOf(done[2]), packets[2].Header());
    EXPECT_EQ(packets[2].Header()->dwFlags, MHDR_PREPARED | MHDR_DONE | MHDR_ISSTRM);

    EXPECT_EQ(midiStreamOut(stream, packets[3].Header(), sizeof(MIDIHDR)), MIDIERR_NODEVICE);
    EXPECT_EQ(packets[3].Header()->dwFlags & MHDR_INQUEUE, 0u);
    EXPECT_EQ(midiStreamStop(stream), MMSYSERR_NOERROR);
    for (auto& packet : packets) {
        EXPECT_EQ(midiOutUnprepareHeader(out, packet.Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    }
    EXPECT_EQ(midiStreamClose(stream), MMSYSERR_NOERROR);
    EXPECT_EQ(log.Of(MOM_DONE).size(), 3u);
}

TEST(PlatformMidiFile, WritesFormatZeroWithMillisecondTicks) {
    using velt_platform::RecordedMessage;
    const std::int64_t start = 5'000'000'000;
    const std::vector<RecordedMessage> messages{
        {{0x90, 60, 100}, start + 1'000'000, 0},
        {{0xF8}, start + 2'000'000, 0},            // real-time: left out
        {{0x80, 60, 64}, start + 201'000'000, 1},  // 200 ms later: delta 200
        {{0xF0, 0x7E, 0x7F, 0xF7}, start + 201'000'000, std::nullopt},
    };
    const test_support::TempFolder folder;
    const auto path = folder.path() / "written.mid";
    velt_platform::WriteStandardMidiFile(path, messages, start);
    const Bytes expected{
        'M',  'T',  'h',  'd',  0,    0,    0,    6,    0,    0,
        0,    1,    0x03, 0xE8,  // format 0, 1 track, 1000 per quarter
        'M',  'T',  'r',  'k',  0,    0,    0,    26,   0x00, 0xFF,
        0x51, 0x03, 0x0F, 0x42, 0x40,                        // 1000000 us per quarter
        0x01, 0x90, 60,   100,  0x81, 0x48, 0x80, 60,   64,  // delta 200 as a two-byte quantity
        0x00, 0xF0, 0x03, 0x7E, 0x7F, 0xF7, 0x00, 0xFF, 0x2F, 0x00};
    EXPECT_EQ(test_support::ReadBytes(path), expected);
}

TEST(PlatformMidiFile, DefaultOutputWritesWhatItReceivedOnClose) {
    if (midiOutGetNumDevs() != 1 || OutputName(0) != "Built-in Default Output") {
        GTEST_SKIP() << "system MIDI ports are present, so the default output is not listed";
    }
    const test_support::TempFolder folder;
    const auto path = folder.path() / "default_output.mid";
    velt_platform::SetDefaultOutputMidiFile(path);
    HMIDIOUT out = nullptr;
    ASSERT_EQ(midiOutOpen(&out, 0, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    ASSERT_EQ(midiOutShortMsg(out, 0x7F4391), MMSYSERR_NOERROR);
    ASSERT_EQ(midiOutClose(out), MMSYSERR_NOERROR);
    velt_platform::SetDefaultOutputMidiFile({});
    const Bytes note{0x91, 0x43, 0x7F};
    EXPECT_EQ(velt_platform::DefaultMidiOutput().Messages().back().bytes, note);
    const Bytes bytes = test_support::ReadBytes(path);
    ASSERT_EQ(bytes.size(), 14u + 8u + 7u + 4u + 4u);
    EXPECT_EQ(Bytes(bytes.end() - 7, bytes.end() - 4), note);
}
