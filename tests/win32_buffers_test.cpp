// Stream packets and the platform buffer: the 12-byte event layout, the fullness rule, channel
// forcing on the later ports, the in-use handshake, headers prepared with a real (virtual)
// stream device, and quarantine.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "interfaces/notify.h"
#include "midi/velt_midi_error.h"
#include "midi/win32/data_buffer.h"
#include "midi/win32/midi_buffer_win32.h"
#include "platform/mmsystem.h"
#include "tests/support/virtual_devices.h"

namespace {

// A stream opened on a virtual output, for preparing headers with a real handle. Nothing is
// ever queued on it, so the completion callback is not needed.
class OpenStream {
  public:
    explicit OpenStream(const char* name = "Buffers Test Out") : device_(name) {
        UINT deviceId = *device_.DeviceId();
        EXPECT_EQ(midiStreamOpen(&stream_, &deviceId, 1, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    }
    ~OpenStream() { midiStreamClose(stream_); }
    HMIDIOUT Handle() const { return reinterpret_cast<HMIDIOUT>(stream_); }

  private:
    velt_platform::VirtualMidiOutput device_;
    HMIDISTRM stream_ = nullptr;
};

std::uint32_t StoredWord(const DataBuffer& buffer, std::uint16_t index) {
    return buffer.GetMidiMessageAtMessageIndex(index).dwEvent;
}

}  // namespace

TEST(DataBuffer, EventsAreTwelveLittleEndianBytesWithDeltaAndStreamIdZero) {
    DataBuffer buffer(65535, 0, "Main Buffer 0");
    buffer.AddVoiceEvent(velt_midi::VoiceEvent(0, 0x92, 0x02, 60, 100));
    buffer.AddCallbackEvent(DataBuffer::callbackEventWord);
    const std::uint8_t* raw = buffer.GetRawData();
    const std::uint8_t expected[24] = {0, 0, 0, 0, 0, 0, 0, 0, 0x92, 60, 100, 0,
                                       0, 0, 0, 0, 0, 0, 0, 0, 0,    0,  0,   0x42};
    EXPECT_EQ(std::memcmp(raw, expected, sizeof(expected)), 0);
    EXPECT_EQ(buffer.GetEventCount(), 2);
    EXPECT_EQ(buffer.GetBufferName(), "Main Buffer 0 data buffer 0");
    // The header is packed to one byte: its fields are read into values, never bound by reference.
    EXPECT_EQ(DWORD{buffer.GetMidiHeader()->dwFlags}, MHDR_ISSTRM);
    EXPECT_EQ(reinterpret_cast<DataBuffer*>(buffer.GetMidiHeader()->dwUser), &buffer);

    buffer.ResetEventCount();
    EXPECT_EQ(buffer.GetEventCount(), 0);
}

TEST(DataBuffer, OneEventPastMaxEventsIsAcceptedBeforeTheBufferReportsFull) {
    DataBuffer buffer(65535, 0, "b");
    EXPECT_EQ(buffer.GetMaxEvents(), 5461);
    for (int i = 0; i < 5462; ++i) {
        ASSERT_FALSE(buffer.GetBufferIsFull()) << i;
        buffer.AddVoiceEvent(
            velt_midi::VoiceEvent(0, 0x90, 0, static_cast<std::uint8_t>(i % 128), 1));
    }
    EXPECT_TRUE(buffer.GetBufferIsFull());
    // The 5462nd event sits in the storage's extra slot, intact.
    EXPECT_EQ(StoredWord(buffer, 5461), (1u << 16) | ((5461u % 128) << 8) | 0x90u);
}

TEST(DataBuffer, LaterPortsForceChannelFifteenAndInvalidEventsAreLoggedButKept) {
    DataBuffer forced(120, 1, "b");
    forced.SetUseChannel15();
    forced.AddVoiceEvent(velt_midi::VoiceEvent(0, 0x92, 0x12, 60, 100));
    EXPECT_EQ(StoredWord(forced, 0) & 0xFF, 0x9Fu);

    DataBuffer plain(120, 0, "b");
    plain.AddVoiceEvent(velt_midi::VoiceEvent(0, 0x90, 0, 200, 5));  // data byte out of range
    EXPECT_EQ(plain.GetEventCount(), 1);
}

TEST(DataBuffer, InUseHandshakeThrowsOnASecondSendAndWakesTheSender) {
    DataBuffer buffer(120, 2, "Main Buffer 3");
    EXPECT_TRUE(buffer.WaitForMidiStreamOutDone(3));  // not in use: at once
    buffer.SetInUse();
    try {
        buffer.SetInUse();
        FAIL() << "a second SetInUse must throw";
    } catch (const MidiImplementationError& error) {
        EXPECT_STREQ(error.what(), "Main Buffer 3 data buffer 2 in use");
    }
    std::thread service([&buffer] { buffer.SignalMidiStreamOutDone(); });
    EXPECT_TRUE(buffer.WaitForMidiStreamOutDone(10));
    service.join();
    EXPECT_FALSE(buffer.GetInUse());
}

VIRTUAL_DEVICE_TEST(DataBuffer,
                    HeadersArePreparedWithTheEventsLengthAndMovedBuffersKeepTheirHeader) {
    OpenStream stream;
    DataBuffer buffer(120, 0, "b");
    for (int i = 0; i < 3; ++i)
        buffer.AddVoiceEvent(velt_midi::VoiceEvent(0, 0x90, 0, 60, 1));
    buffer.PrepareHeader(stream.Handle());
    EXPECT_EQ(DWORD{buffer.GetMidiHeader()->dwBufferLength}, 36u);
    EXPECT_EQ(DWORD{buffer.GetMidiHeader()->dwBytesRecorded}, 36u);
    EXPECT_TRUE(buffer.GetHeaderIsPrepared());
    EXPECT_EQ(buffer.GetPreparedOutputHandle(), stream.Handle());

    DataBuffer moved(std::move(buffer));
    EXPECT_EQ(reinterpret_cast<std::uint8_t*>(moved.GetMidiHeader()->lpData), moved.GetRawData());
    EXPECT_EQ(reinterpret_cast<DataBuffer*>(moved.GetMidiHeader()->dwUser), &moved);
    moved.UnprepareHeader(stream.Handle());
    EXPECT_FALSE(moved.GetHeaderIsPrepared());
    EXPECT_EQ(moved.GetPreparedOutputHandle(), nullptr);

    // Unpreparing what is not prepared is the service's error, reported with its text.
    try {
        moved.UnprepareHeader(nullptr);
        FAIL() << "unpreparing with no handle must throw";
    } catch (const MidiImplementationError& error) {
        EXPECT_EQ(
            std::string(error.what())
                .rfind("midi/Sources/win32/data_buffer line 242: calling midiOutUnprepareHeader "
                       "caused error 5, MMSYSERR_INVALHANDLE",
                       0),
            0u)
            << error.what();
    }
}

// Moving to another device connects the new one before the old one is disconnected: the header
// passes to the new handle, and the old device's disconnect must not take it away again.
VIRTUAL_DEVICE_TEST(DataBuffer, AHeaderPassesToANewDeviceAndOnlyTheHandleHoldingItUnpreparesIt) {
    OpenStream first("Buffers First Out");
    OpenStream second("Buffers Second Out");
    DataBuffer buffer(120, 0, "b");
    buffer.PrepareHeader(first.Handle());
    buffer.PrepareHeader(second.Handle());
    EXPECT_EQ(buffer.GetPreparedOutputHandle(), second.Handle());
    buffer.UnprepareHeader(first.Handle());
    EXPECT_TRUE(buffer.GetHeaderIsPrepared());
    EXPECT_EQ(buffer.GetPreparedOutputHandle(), second.Handle());
    EXPECT_NE(buffer.GetMidiHeader()->dwFlags & MHDR_PREPARED, 0u);
    buffer.UnprepareHeader(second.Handle());
    EXPECT_FALSE(buffer.GetHeaderIsPrepared());
    EXPECT_EQ(buffer.GetMidiHeader()->dwFlags & MHDR_PREPARED, 0u);
}

TEST(MidiBufferWin32, PortsAfterTheFirstForceChannelFifteenAndOnlyPortZeroIsStamped) {
    MidiBufferWin32 buffer(3, 120, "Main Buffer 0");
    for (unsigned char port = 0; port < 3; ++port) {
        buffer.AddEventToBuffer(port, velt_midi::VoiceEvent(0, 0x93, 0x03, 64, 90));
    }
    EXPECT_EQ(StoredWord(*buffer.GetDataBuffer(0), 0) & 0xFF, 0x93u);
    EXPECT_EQ(StoredWord(*buffer.GetDataBuffer(1), 0) & 0xFF, 0x9Fu);
    EXPECT_EQ(StoredWord(*buffer.GetDataBuffer(2), 0) & 0xFF, 0x9Fu);
    EXPECT_EQ(buffer.GetPortEventCount(2), 1);

    buffer.SetTickIndex(7);
    EXPECT_EQ(buffer.GetTickIndex(), 7u);
    EXPECT_EQ(buffer.GetDataBuffer(0)->GetTickIndex(), 7u);
    EXPECT_EQ(buffer.GetDataBuffer(1)->GetTickIndex(), 0u);
    EXPECT_THROW(buffer.GetDataBuffer(3), std::out_of_range);

    buffer.AddPositionCallback();
    EXPECT_EQ(StoredWord(*buffer.GetDataBuffer(0), 1), 0x42000000u);
    buffer.ResetPortEventCounts();
    EXPECT_EQ(buffer.GetPortEventCount(0), 0);
}

TEST(MidiBufferWin32, AFullPortRefusesTheEventAndKeepsItsProgramRecord) {
    // 24 bytes: two events fit the rule, the third is the one accepted past maxEvents.
    MidiBufferWin32 buffer(1, 24, "b");
    EXPECT_TRUE(buffer.AddEventToBuffer(0, velt_midi::VoiceEvent(0, 0xC0, 0, 5, 0)));
    EXPECT_TRUE(buffer.AddEventToBuffer(0, velt_midi::VoiceEvent(0, 0x90, 0, 60, 1)));
    EXPECT_TRUE(buffer.AddEventToBuffer(0, velt_midi::VoiceEvent(0, 0x90, 0, 61, 1)));
    EXPECT_TRUE(buffer.GetBufferIsFull(0));
    EXPECT_FALSE(buffer.AddEventToBuffer(0, velt_midi::VoiceEvent(0, 0xC0, 0, 9, 0)));
    EXPECT_EQ(buffer.GetPortEventCount(0), 3);

    MidiBuffer::ProgramChangeMap seen;
    auto id = notify::callbackDispatcher.AddCallback(
        notify::names::currentProgramIds, &seen,
        [&seen](void* payload) { seen = *static_cast<MidiBuffer::ProgramChangeMap*>(payload); });
    buffer.SendProgramChanges();
    notify::callbackDispatcher.RemoveCallback(id);
    EXPECT_EQ(seen, (MidiBuffer::ProgramChangeMap{{0, 5}}));
}

VIRTUAL_DEVICE_TEST(MidiBufferWin32, QuarantineReplacesThePacketAndCleanUpDropsOnlyReturnedOnes) {
    OpenStream stream;
    MidiBufferWin32 buffer(3, 120, "Main Buffer 1");
    buffer.PrepareHeaders(stream.Handle());
    auto first = buffer.GetDataBuffer(2);
    first->SetInUse();  // sent, not yet handed back
    buffer.QuarantineDataBuffer(2, stream.Handle());
    auto fresh = buffer.GetDataBuffer(2);
    EXPECT_NE(fresh, first);
    EXPECT_TRUE(fresh->GetHeaderIsPrepared());
    fresh->AddVoiceEvent(velt_midi::VoiceEvent(0, 0x90, 0, 60, 1));
    EXPECT_EQ(StoredWord(*fresh, 0) & 0xFF, 0x9Fu);  // the replacement forces channel 15 too

    auto second = buffer.GetDataBuffer(2);
    second->SetInUse();
    buffer.QuarantineDataBuffer(2, stream.Handle());
    EXPECT_EQ(buffer.GetQuarantinedDataBufferCount(), 2u);

    first->SignalMidiStreamOutDone();  // the service returned the first one late
    buffer.CleanUpQuarantinedDataBuffers(stream.Handle());
    EXPECT_EQ(buffer.GetQuarantinedDataBufferCount(), 1u);
    EXPECT_FALSE(first->GetHeaderIsPrepared());
    EXPECT_TRUE(second->GetHeaderIsPrepared());
    EXPECT_TRUE(buffer.GetHasQuarantinedDataBuffers());
    second->SignalMidiStreamOutDone();
    buffer.CleanUpQuarantinedDataBuffers(stream.Handle());
    EXPECT_FALSE(buffer.GetHasQuarantinedDataBuffers());
    buffer.UnprepareHeaders(stream.Handle());
}
