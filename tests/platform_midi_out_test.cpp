// The MIDI output service on POSIX, driven the way the engine's stream device drives it.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <latch>
#include <memory>

#include "platform/virtual_midi.h"
#include "platform_midi_support.h"

using namespace platform_midi_test;
using velt_platform::VirtualMidiOutput;

namespace {

constexpr DWORD kNopWithCallback = MEVT_F_CALLBACK | (static_cast<DWORD>(MEVT_NOP) << 24);

HMIDISTRM OpenStream(UINT device, CallbackLog& log) {
    HMIDISTRM stream = nullptr;
    EXPECT_EQ(midiStreamOpen(&stream, &device, 1, CallbackLog::Function(), log.Instance(),
                             CALLBACK_FUNCTION),
              MMSYSERR_NOERROR);
    return stream;
}

HMIDIOUT AsOut(HMIDISTRM stream) {
    return reinterpret_cast<HMIDIOUT>(stream);
}

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

TEST(PlatformMidiDevices, VirtualOutputsComeFirstInCreationOrderAndHideTheDefault) {
    VirtualMidiOutput first("VELT Out");
    VirtualMidiOutput second("IAC Driver VELT Bus 1");
    ASSERT_EQ(first.DeviceId(), 0u);
    ASSERT_EQ(second.DeviceId(), 1u);
    EXPECT_EQ(OutputName(0), "VELT Out");
    EXPECT_EQ(OutputName(1), "IAC Driver VELT Bus 1");
    for (UINT id = 0; id < midiOutGetNumDevs(); ++id) {
        EXPECT_NE(OutputName(id), "Built-in Default Output");
    }
    MIDIOUTCAPSW caps{};
    EXPECT_EQ(midiOutGetDevCapsW(midiOutGetNumDevs(), &caps, sizeof caps), MMSYSERR_BADDEVICEID);
    EXPECT_EQ(midiOutGetDevCapsW(0, nullptr, sizeof caps), MMSYSERR_INVALPARAM);
}

TEST(PlatformMidiDevices, DefaultOutputIsListedOnlyAlone) {
    const UINT count = midiOutGetNumDevs();
    ASSERT_GE(count, 1u);
    bool listed = false;
    for (UINT id = 0; id < count; ++id) {
        listed = listed || OutputName(id) == "Built-in Default Output";
    }
    if (listed) {
        EXPECT_EQ(count, 1u);
        MIDIOUTCAPSW caps{};
        ASSERT_EQ(midiOutGetDevCapsW(0, &caps, sizeof caps), MMSYSERR_NOERROR);
        EXPECT_EQ(caps.wTechnology, MOD_SWSYNTH);
    }
}

TEST(PlatformMidiDevices, CapabilitiesCarryA16BitNameCutTo31UnitsAndHonourTheSize) {
    VirtualMidiOutput port("Stage Left \xC3\xA9 Port With A Rather Long Name");  // é in UTF-8
    MIDIOUTCAPSW caps{};
    ASSERT_EQ(midiOutGetDevCapsW(*port.DeviceId(), &caps, sizeof caps), MMSYSERR_NOERROR);
    const std::u16string expected =
        std::u16string(u"Stage Left \u00E9 Port With A Rather Long Name").substr(0, 31);
    EXPECT_EQ(std::u16string(caps.szPname), expected);
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
    const UINT id = *port.DeviceId();
    CallbackLog log;
    HMIDISTRM stream = reinterpret_cast<HMIDISTRM>(1);
    UINT device = id;

    port.FailOpen(MMSYSERR_NODRIVER);
    EXPECT_EQ(midiStreamOpen(&stream, &device, 1, CallbackLog::Function(), log.Instance(),
                             CALLBACK_FUNCTION),
              MMSYSERR_NODRIVER);
    EXPECT_EQ(stream, nullptr);
    EXPECT_TRUE(log.Records().empty());
    port.FailOpen(MMSYSERR_NOERROR);

    stream = OpenStream(id, log);
    ASSERT_NE(stream, nullptr);
    ASSERT_EQ(log.Of(MOM_OPEN).size(), 1u);  // made inside the call, on this thread
    EXPECT_EQ(log.Of(MOM_OPEN)[0].thread, std::this_thread::get_id());
    EXPECT_TRUE(port.IsOpen());

    HMIDIOUT second = nullptr;
    EXPECT_EQ(midiOutOpen(&second, id, 0, 0, CALLBACK_NULL), MMSYSERR_ALLOCATED);
    EXPECT_EQ(midiOutOpen(&second, midiOutGetNumDevs(), 0, 0, CALLBACK_NULL), MMSYSERR_BADDEVICEID);
    EXPECT_EQ(midiOutOpen(&second, id, 0, 0, CALLBACK_WINDOW), MMSYSERR_NOTSUPPORTED);
    EXPECT_EQ(midiStreamOpen(reinterpret_cast<LPHMIDISTRM>(&second), &device, 2, 0, 0, 0),
              MMSYSERR_INVALPARAM);

    ASSERT_EQ(midiStreamClose(stream), MMSYSERR_NOERROR);
    EXPECT_EQ(log.Records().back().message, static_cast<UINT>(MOM_CLOSE));
    EXPECT_FALSE(port.IsOpen());
    EXPECT_EQ(midiStreamClose(stream), MMSYSERR_INVALHANDLE);
    EXPECT_EQ(midiOutShortMsg(AsOut(stream), 0x90), MMSYSERR_INVALHANDLE);
}

TEST(PlatformMidiStream, HeadersMustBePreparedAndCannotBeQueuedTwice) {
    VirtualMidiOutput port("VELT Out");
    CallbackLog log;
    HMIDISTRM stream = OpenStream(*port.DeviceId(), log);
    StreamPacket packet;
    packet.AddShort(0x90, 60, 100);

    EXPECT_EQ(midiStreamOut(stream, packet.Header(), sizeof(MIDIHDR)), MIDIERR_UNPREPARED);
    ASSERT_EQ(midiOutPrepareHeader(AsOut(stream), packet.Header(), sizeof(MIDIHDR)),
              MMSYSERR_NOERROR);
    EXPECT_EQ(packet.Header()->dwFlags, MHDR_PREPARED);
    // Preparing twice has no effect; the size must cover the header.
    EXPECT_EQ(midiOutPrepareHeader(AsOut(stream), packet.Header(), sizeof(MIDIHDR)),
              MMSYSERR_NOERROR);
    EXPECT_EQ(midiStreamOut(stream, packet.Header(), sizeof(MIDIHDR) - 8), MMSYSERR_INVALPARAM);

    // Paused since open, so the buffer stays queued.
    ASSERT_EQ(midiStreamOut(stream, packet.Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    EXPECT_EQ(packet.Header()->dwFlags, MHDR_PREPARED | MHDR_INQUEUE | MHDR_ISSTRM);
    EXPECT_EQ(midiStreamOut(stream, packet.Header(), sizeof(MIDIHDR)), MIDIERR_STILLPLAYING);
    EXPECT_EQ(midiOutUnprepareHeader(AsOut(stream), packet.Header(), sizeof(MIDIHDR)),
              MIDIERR_STILLPLAYING);
    EXPECT_EQ(port.Messages().size(), 0u);

    ASSERT_EQ(midiStreamClose(stream), MMSYSERR_NOERROR);
    EXPECT_EQ(packet.Header()->dwFlags, MHDR_PREPARED | MHDR_DONE | MHDR_ISSTRM);
}

TEST(PlatformMidiStream, ManyPacketsPlayInOrderAndComeBackOnOneServiceThread) {
    constexpr int kPackets = 300;
    constexpr int kEventsPerPacket = 5;
    VirtualMidiOutput port("VELT Out");
    CallbackLog log;
    HMIDISTRM stream = OpenStream(*port.DeviceId(), log);
    std::vector<std::unique_ptr<StreamPacket>> packets;
    for (int p = 0; p < kPackets; ++p) {
        packets.push_back(std::make_unique<StreamPacket>());
        for (int e = 0; e < kEventsPerPacket; ++e) {
            packets.back()->AddShort(0xB0 | (p % 16), static_cast<BYTE>(e),
                                     static_cast<BYTE>(p % 128));
        }
        packets.back()->Header()->dwUser = static_cast<DWORD_PTR>(p);
        ASSERT_EQ(midiOutPrepareHeader(AsOut(stream), packets.back()->Header(), sizeof(MIDIHDR)),
                  MMSYSERR_NOERROR);
    }
    const std::int64_t beforeRestart = SteadyNowNs();
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    for (auto& packet : packets) {
        ASSERT_EQ(midiStreamOut(stream, packet->Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    }
    ASSERT_TRUE(log.WaitFor(MOM_DONE, kPackets));

    const auto done = log.Of(MOM_DONE);
    ASSERT_EQ(done.size(), static_cast<std::size_t>(kPackets));
    for (int p = 0; p < kPackets; ++p) {
        const auto* header = reinterpret_cast<LPMIDIHDR>(done[p].param1);
        EXPECT_EQ(header->dwUser, static_cast<DWORD_PTR>(p));
        EXPECT_EQ(header->dwFlags & (MHDR_DONE | MHDR_INQUEUE), MHDR_DONE);
        EXPECT_NE(done[p].thread, std::this_thread::get_id());
        EXPECT_EQ(done[p].thread, done[0].thread);
        EXPECT_EQ(done[p].handle, stream);
    }

    const auto messages = port.Messages();
    ASSERT_EQ(messages.size(), static_cast<std::size_t>(kPackets * kEventsPerPacket));
    for (std::size_t i = 0; i < messages.size(); ++i) {
        const int p = static_cast<int>(i) / kEventsPerPacket;
        const int e = static_cast<int>(i) % kEventsPerPacket;
        ASSERT_EQ(messages[i].packet, static_cast<std::uint64_t>(p));
        ASSERT_EQ(messages[i].bytes,
                  (std::vector<std::uint8_t>{static_cast<std::uint8_t>(0xB0 | (p % 16)),
                                             static_cast<std::uint8_t>(e),
                                             static_cast<std::uint8_t>(p % 128)}));
        EXPECT_GE(messages[i].timestampNs, beforeRestart);
        if (i > 0) {
            EXPECT_GE(messages[i].timestampNs, messages[i - 1].timestampNs);
        }
    }
    EXPECT_EQ(port.PacketCount(), static_cast<std::uint64_t>(kPackets));
    for (auto& packet : packets) {
        EXPECT_EQ(midiOutUnprepareHeader(AsOut(stream), packet->Header(), sizeof(MIDIHDR)),
                  MMSYSERR_NOERROR);
    }
    EXPECT_EQ(midiStreamClose(stream), MMSYSERR_NOERROR);
}

TEST(PlatformMidiStream, StopReturnsQueuedBuffersInOrderAndReleasesSoundingNotes) {
    VirtualMidiOutput port("VELT Out");
    CallbackLog log;
    HMIDISTRM stream = OpenStream(*port.DeviceId(), log);
    StreamPacket noteOn;
    noteOn.AddShort(0x91, 64, 90);
    noteOn.AddShort(0x91, 67, 90);
    noteOn.AddShort(0x81, 67, 0);
    ASSERT_EQ(midiOutPrepareHeader(AsOut(stream), noteOn.Header(), sizeof(MIDIHDR)),
              MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamOut(stream, noteOn.Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 1));

    ASSERT_EQ(midiStreamPause(stream), MMSYSERR_NOERROR);
    std::array<StreamPacket, 3> queued;
    for (std::size_t i = 0; i < queued.size(); ++i) {
        queued[i].AddShort(0x90, 1, 1);
        queued[i].Header()->dwUser = i;
        ASSERT_EQ(midiOutPrepareHeader(AsOut(stream), queued[i].Header(), sizeof(MIDIHDR)),
                  MMSYSERR_NOERROR);
        ASSERT_EQ(midiStreamOut(stream, queued[i].Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    }

    ASSERT_EQ(midiStreamStop(stream), MMSYSERR_NOERROR);
    // Every buffer is back before the call returns, in queue order, and can be unprepared.
    const auto done = log.Of(MOM_DONE);
    ASSERT_EQ(done.size(), 4u);
    for (std::size_t i = 0; i < queued.size(); ++i) {
        EXPECT_EQ(reinterpret_cast<LPMIDIHDR>(done[i + 1].param1), queued[i].Header());
        EXPECT_NE(done[i + 1].thread, std::this_thread::get_id());
        EXPECT_EQ(midiOutUnprepareHeader(AsOut(stream), queued[i].Header(), sizeof(MIDIHDR)),
                  MMSYSERR_NOERROR);
    }
    // Played: two note-ons and one note-off; the stop turns off the one still sounding.
    const auto messages = port.Messages();
    ASSERT_EQ(messages.size(), 4u);
    EXPECT_EQ(messages[3].bytes, (std::vector<std::uint8_t>{0x81, 64, 0x40}));
    EXPECT_FALSE(messages[3].packet.has_value());

    // Stopped until restarted: a new buffer plays only after midiStreamRestart.
    ASSERT_EQ(midiOutPrepareHeader(AsOut(stream), queued[0].Header(), sizeof(MIDIHDR)),
              MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamOut(stream, queued[0].Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    const std::int64_t beforeRestart = SteadyNowNs();
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    ASSERT_TRUE(port.WaitForMessages(5, kHangLimit));
    EXPECT_GE(port.Messages()[4].timestampNs, beforeRestart);
    EXPECT_EQ(midiStreamClose(stream), MMSYSERR_NOERROR);
}

TEST(PlatformMidiStream, CloseWithQueuedBuffersHandsThemBackBeforeClose) {
    VirtualMidiOutput port("VELT Out");
    CallbackLog log;
    HMIDISTRM stream = OpenStream(*port.DeviceId(), log);
    std::array<StreamPacket, 4> queued;
    for (auto& packet : queued) {
        packet.AddShort(0x90, 1, 1);
        ASSERT_EQ(midiOutPrepareHeader(AsOut(stream), packet.Header(), sizeof(MIDIHDR)),
                  MMSYSERR_NOERROR);
        ASSERT_EQ(midiStreamOut(stream, packet.Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    }
    ASSERT_EQ(midiStreamClose(stream), MMSYSERR_NOERROR);
    const auto records = log.Records();
    ASSERT_EQ(records.size(), 6u);  // open, four done, close
    EXPECT_EQ(records.front().message, static_cast<UINT>(MOM_OPEN));
    for (std::size_t i = 0; i < queued.size(); ++i) {
        EXPECT_EQ(records[i + 1].message, static_cast<UINT>(MOM_DONE));
        EXPECT_EQ(reinterpret_cast<LPMIDIHDR>(records[i + 1].param1), queued[i].Header());
    }
    EXPECT_EQ(records.back().message, static_cast<UINT>(MOM_CLOSE));
    EXPECT_EQ(records.back().thread, std::this_thread::get_id());
    EXPECT_TRUE(port.Messages().empty());
}

TEST(PlatformMidiStream, LostCompletionsAreNeverHandedBack) {
    VirtualMidiOutput port("VELT Out");
    port.LoseCompletionOfPacket(1);
    CallbackLog log;
    HMIDISTRM stream = OpenStream(*port.DeviceId(), log);
    std::array<StreamPacket, 5> packets;
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    port.LoseNextCompletions(0);
    for (std::size_t i = 0; i < packets.size(); ++i) {
        if (i == 3) {
            port.LoseNextCompletions(1);  // the fourth one too
        }
        packets[i].AddShort(0x90, static_cast<BYTE>(i), 1);
        ASSERT_EQ(midiOutPrepareHeader(AsOut(stream), packets[i].Header(), sizeof(MIDIHDR)),
                  MMSYSERR_NOERROR);
        ASSERT_EQ(midiStreamOut(stream, packets[i].Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    }
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 3));
    const auto done = log.Of(MOM_DONE);
    ASSERT_EQ(done.size(), 3u);
    EXPECT_EQ(reinterpret_cast<LPMIDIHDR>(done[0].param1), packets[0].Header());
    EXPECT_EQ(reinterpret_cast<LPMIDIHDR>(done[1].param1), packets[2].Header());
    EXPECT_EQ(reinterpret_cast<LPMIDIHDR>(done[2].param1), packets[4].Header());
    // The lost ones were played but keep their queued state for good.
    EXPECT_EQ(port.Messages().size(), 5u);
    EXPECT_EQ(packets[1].Header()->dwFlags & (MHDR_DONE | MHDR_INQUEUE), MHDR_INQUEUE);
    EXPECT_EQ(midiOutUnprepareHeader(AsOut(stream), packets[1].Header(), sizeof(MIDIHDR)),
              MIDIERR_STILLPLAYING);
    ASSERT_EQ(midiStreamStop(stream), MMSYSERR_NOERROR);
    EXPECT_EQ(log.Of(MOM_DONE).size(), 3u);
    EXPECT_EQ(midiStreamClose(stream), MMSYSERR_NOERROR);
}

TEST(PlatformMidiStream, SlowCompletionHoldsTheBufferUntilStopped) {
    VirtualMidiOutput port("VELT Out");
    port.SetCompletionDelay(std::chrono::hours(1));
    CallbackLog log;
    HMIDISTRM stream = OpenStream(*port.DeviceId(), log);
    StreamPacket packet;
    packet.AddShort(0x90, 60, 1);
    ASSERT_EQ(midiOutPrepareHeader(AsOut(stream), packet.Header(), sizeof(MIDIHDR)),
              MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamOut(stream, packet.Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    ASSERT_TRUE(port.WaitForMessages(1, kHangLimit));
    EXPECT_TRUE(log.Of(MOM_DONE).empty());
    EXPECT_NE(packet.Header()->dwFlags & MHDR_INQUEUE, 0u);
    ASSERT_EQ(midiStreamStop(stream), MMSYSERR_NOERROR);
    EXPECT_EQ(log.Of(MOM_DONE).size(), 1u);
    EXPECT_EQ(midiStreamClose(stream), MMSYSERR_NOERROR);
}

TEST(PlatformMidiStream, PositionCallbackComesAfterItsEventAndBeforeDone) {
    VirtualMidiOutput port("VELT Out");
    CallbackLog log;
    HMIDISTRM stream = OpenStream(*port.DeviceId(), log);
    StreamPacket packet;
    packet.AddShort(0x90, 60, 100);
    packet.AddShort(0x90, 62, 100);
    packet.Add(0, kNopWithCallback);
    ASSERT_EQ(midiOutPrepareHeader(AsOut(stream), packet.Header(), sizeof(MIDIHDR)),
              MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamOut(stream, packet.Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 1));
    const auto records = log.Records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[1].message, static_cast<UINT>(MOM_POSITIONCB));
    EXPECT_EQ(reinterpret_cast<LPMIDIHDR>(records[1].param1), packet.Header());
    EXPECT_EQ(packet.Header()->dwOffset, 24u);
    EXPECT_EQ(records[2].message, static_cast<UINT>(MOM_DONE));
    EXPECT_EQ(port.Messages().size(), 2u);  // the NOP sends nothing
    EXPECT_EQ(midiStreamClose(stream), MMSYSERR_NOERROR);
}

TEST(PlatformMidiStream, DeltaTimesAndTempoAreHonouredNeverEarly) {
    VirtualMidiOutput port("VELT Out");
    CallbackLog log;
    HMIDISTRM stream = OpenStream(*port.DeviceId(), log);

    MIDIPROPTIMEDIV division{sizeof division, 0};
    ASSERT_EQ(midiStreamProperty(stream, reinterpret_cast<LPBYTE>(&division),
                                 MIDIPROP_GET | MIDIPROP_TIMEDIV),
              MMSYSERR_NOERROR);
    EXPECT_EQ(division.dwTimeDiv, 96u);
    MIDIPROPTEMPO tempo{sizeof tempo, 0};
    ASSERT_EQ(
        midiStreamProperty(stream, reinterpret_cast<LPBYTE>(&tempo), MIDIPROP_GET | MIDIPROP_TEMPO),
        MMSYSERR_NOERROR);
    EXPECT_EQ(tempo.dwTempo, 500000u);
    division.dwTimeDiv = 100;
    ASSERT_EQ(midiStreamProperty(stream, reinterpret_cast<LPBYTE>(&division),
                                 MIDIPROP_SET | MIDIPROP_TIMEDIV),
              MMSYSERR_NOERROR);
    tempo.dwTempo = 100000;  // 1 ms per tick
    ASSERT_EQ(
        midiStreamProperty(stream, reinterpret_cast<LPBYTE>(&tempo), MIDIPROP_SET | MIDIPROP_TEMPO),
        MMSYSERR_NOERROR);
    EXPECT_EQ(midiStreamProperty(stream, reinterpret_cast<LPBYTE>(&tempo), MIDIPROP_TEMPO),
              MMSYSERR_INVALPARAM);
    EXPECT_EQ(midiStreamProperty(stream, reinterpret_cast<LPBYTE>(&tempo), MIDIPROP_GET | 4),
              MMSYSERR_INVALFLAG);

    StreamPacket packet;
    packet.AddShort(0x90, 60, 100);
    packet.AddShort(0x80, 60, 0, 20);                                // 20 ms later
    packet.Add(0, (static_cast<DWORD>(MEVT_TEMPO) << 24) | 200000);  // now 2 ms per tick
    packet.AddShort(0x90, 62, 100, 10);                              // 20 ms later
    ASSERT_EQ(midiOutPrepareHeader(AsOut(stream), packet.Header(), sizeof(MIDIHDR)),
              MMSYSERR_NOERROR);
    const std::int64_t beforeRestart = SteadyNowNs();
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    // The division can only change while stopped.
    EXPECT_EQ(midiStreamProperty(stream, reinterpret_cast<LPBYTE>(&division),
                                 MIDIPROP_SET | MIDIPROP_TIMEDIV),
              MMSYSERR_INVALPARAM);
    ASSERT_EQ(midiStreamOut(stream, packet.Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 1));
    const auto messages = port.Messages();
    ASSERT_EQ(messages.size(), 3u);
    // Event times count from the restart on the stream's own schedule: an event may be late,
    // never early.
    EXPECT_GE(messages[1].timestampNs - beforeRestart, 20'000'000);
    EXPECT_GE(messages[2].timestampNs - beforeRestart, 40'000'000);
    EXPECT_EQ(midiStreamClose(stream), MMSYSERR_NOERROR);
}

TEST(PlatformMidiStream, CallbackMayQueueTheNextBufferButNotCloseItsHandle) {
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
    ASSERT_EQ(midiOutShortMsg(out, 0x643C90), MMSYSERR_NOERROR);
    ASSERT_EQ(midiOutShortMsg(out, 0x00403E), MMSYSERR_NOERROR);  // running status 0x90
    ASSERT_EQ(midiOutShortMsg(out, 0x0000F8), MMSYSERR_NOERROR);  // real-time keeps it
    ASSERT_EQ(midiOutShortMsg(out, 0x000540), MMSYSERR_NOERROR);
    ASSERT_EQ(midiOutShortMsg(out, 0x0007C2), MMSYSERR_NOERROR);  // program change: 2 bytes
    EXPECT_EQ(midiOutShortMsg(out, 0x0000F0), MMSYSERR_INVALPARAM);

    std::vector<BYTE> sysex{0xF0, 0x7F, 0x7F, 0x02, 0x01, 0x01, 0xF7};
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
    EXPECT_EQ(messages[0].bytes, (std::vector<std::uint8_t>{0x90, 0x3C, 0x64}));
    EXPECT_EQ(messages[1].bytes, (std::vector<std::uint8_t>{0x90, 0x3E, 0x40}));
    EXPECT_EQ(messages[2].bytes, (std::vector<std::uint8_t>{0xF8}));
    EXPECT_EQ(messages[3].bytes, (std::vector<std::uint8_t>{0x90, 0x40, 0x05}));
    EXPECT_EQ(messages[4].bytes, (std::vector<std::uint8_t>{0xC2, 0x07}));
    EXPECT_EQ(messages[5].bytes, sysex);
    EXPECT_FALSE(messages[0].packet.has_value());

    // Reset: the three sounding notes are turned off, then all-notes-off on every channel.
    ASSERT_EQ(midiOutReset(out), MMSYSERR_NOERROR);
    const auto afterReset = port.Messages();
    ASSERT_EQ(afterReset.size(), 6u + 3u + 16u);
    EXPECT_EQ(afterReset[6].bytes, (std::vector<std::uint8_t>{0x80, 0x3C, 0x40}));
    EXPECT_EQ(afterReset[24].bytes, (std::vector<std::uint8_t>{0xBF, 123, 0}));
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

TEST(PlatformMidiFile, WritesFormatZeroWithMillisecondTicks) {
    using velt_platform::RecordedMessage;
    const std::int64_t start = 5'000'000'000;
    const std::vector<RecordedMessage> messages{
        {{0x90, 60, 100}, start + 1'000'000, 0},
        {{0xF8}, start + 2'000'000, 0},            // real-time: left out
        {{0x80, 60, 64}, start + 201'000'000, 1},  // 200 ms later: delta 200
        {{0xF0, 0x7E, 0x7F, 0xF7}, start + 201'000'000, std::nullopt},
    };
    const auto path = std::filesystem::temp_directory_path() / "velt_platform_midi_file_test.mid";
    velt_platform::WriteStandardMidiFile(path, messages, start);
    std::ifstream in(path, std::ios::binary);
    const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
    std::filesystem::remove(path);
    const std::vector<std::uint8_t> expected{
        'M',  'T',  'h',  'd',  0,    0,    0,    6,    0,    0,
        0,    1,    0x03, 0xE8,  // format 0, 1 track, 1000 per quarter
        'M',  'T',  'r',  'k',  0,    0,    0,    26,   0x00, 0xFF,
        0x51, 0x03, 0x0F, 0x42, 0x40,                        // 1000000 us per quarter
        0x01, 0x90, 60,   100,  0x81, 0x48, 0x80, 60,   64,  // delta 200 as a two-byte quantity
        0x00, 0xF0, 0x03, 0x7E, 0x7F, 0xF7, 0x00, 0xFF, 0x2F, 0x00};
    EXPECT_EQ(bytes, expected);
}

TEST(PlatformMidiFile, DefaultOutputWritesWhatItReceivedOnClose) {
    if (midiOutGetNumDevs() != 1 || OutputName(0) != "Built-in Default Output") {
        GTEST_SKIP() << "system MIDI ports are present, so the default output is not listed";
    }
    const auto path = std::filesystem::temp_directory_path() / "velt_default_output_test.mid";
    velt_platform::SetDefaultOutputMidiFile(path);
    HMIDIOUT out = nullptr;
    ASSERT_EQ(midiOutOpen(&out, 0, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    ASSERT_EQ(midiOutShortMsg(out, 0x7F4391), MMSYSERR_NOERROR);
    ASSERT_EQ(midiOutClose(out), MMSYSERR_NOERROR);
    velt_platform::SetDefaultOutputMidiFile({});
    EXPECT_EQ(velt_platform::DefaultMidiOutput().Messages().back().bytes,
              (std::vector<std::uint8_t>{0x91, 0x43, 0x7F}));
    std::ifstream in(path, std::ios::binary);
    const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
    std::filesystem::remove(path);
    ASSERT_EQ(bytes.size(), 14u + 8u + 7u + 4u + 4u);
    EXPECT_EQ((std::vector<std::uint8_t>(bytes.end() - 7, bytes.end() - 4)),
              (std::vector<std::uint8_t>{0x91, 0x43, 0x7F}));
}
