// The MIDI input service on POSIX, fed by virtual inputs.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>

#include "platform/virtual_midi.h"
#include "platform_midi_support.h"

using namespace platform_midi_test;
using velt_platform::VirtualMidiInput;

namespace {

HMIDIIN OpenInput(const VirtualMidiInput& device, CallbackLog& log) {
    HMIDIIN input = nullptr;
    EXPECT_EQ(midiInOpen(&input, *device.DeviceId(), CallbackLog::Function(), log.Instance(),
                         CALLBACK_FUNCTION),
              MMSYSERR_NOERROR);
    return input;
}

}  // namespace

TEST(PlatformMidiIn, DevicesAreListedInCreationOrderAndMessagesArriveInOrderOnTheServiceThread) {
    VirtualMidiInput first("VELT Out");
    VirtualMidiInput device("Piano");
    ASSERT_EQ(first.DeviceId(), 0u);
    ASSERT_EQ(device.DeviceId(), 1u);
    MIDIINCAPSW caps{};
    ASSERT_EQ(midiInGetDevCapsW(1, &caps, 76), MMSYSERR_NOERROR);
    EXPECT_EQ(std::u16string(caps.szPname), u"Piano");
    EXPECT_EQ(caps.wMid, MM_UNMAPPED);
    EXPECT_EQ(midiInGetDevCapsW(midiInGetNumDevs(), &caps, 76), MMSYSERR_BADDEVICEID);
    HMIDIIN input = nullptr;
    EXPECT_EQ(midiInOpen(&input, midiInGetNumDevs(), 0, 0, CALLBACK_NULL), MMSYSERR_BADDEVICEID);
    EXPECT_EQ(midiInOpen(&input, 0, 0, 0, CALLBACK_EVENT), MMSYSERR_NOTSUPPORTED);
    EXPECT_EQ(midiInOpen(&input, 0, 0, 0, 0x1), MMSYSERR_INVALFLAG);

    CallbackLog log;
    input = OpenInput(device, log);
    ASSERT_EQ(log.Of(MIM_OPEN).size(), 1u);
    EXPECT_EQ(log.Of(MIM_OPEN)[0].thread, std::this_thread::get_id());

    EXPECT_FALSE(device.SendShort(0x90, 0x3C, 0x64));  // open but not started: dropped
    HMIDIIN second = nullptr;
    EXPECT_EQ(midiInOpen(&second, *device.DeviceId(), 0, 0, CALLBACK_NULL), MMSYSERR_ALLOCATED);
    ASSERT_EQ(midiInStart(input), MMSYSERR_NOERROR);

    ASSERT_TRUE(device.SendShort(0x90, 0x3C, 0x64));
    ASSERT_TRUE(device.SendShort(0xF8, 0x12, 0x34));  // one byte: the data bytes are not sent
    ASSERT_TRUE(device.SendShort(0xC5, 0x07, 0x55));  // two bytes
    constexpr int kBurst = 2000;
    for (int i = 0; i < kBurst; ++i) {
        ASSERT_TRUE(device.SendShort(0xB0, static_cast<BYTE>(i % 128), static_cast<BYTE>(i / 128)));
    }
    ASSERT_TRUE(log.WaitFor(MIM_DATA, 3 + kBurst));
    const auto data = log.Of(MIM_DATA);
    EXPECT_EQ(data[0].param1, 0x643C90u);
    EXPECT_EQ(data[1].param1, 0xF8u);
    EXPECT_EQ(data[2].param1, 0x07C5u);
    DWORD_PTR lastTime = 0;
    for (int i = 0; i < kBurst; ++i) {
        const auto& record = data[3 + i];
        ASSERT_EQ(record.param1, 0xB0u | (static_cast<DWORD_PTR>(i % 128) << 8) |
                                     (static_cast<DWORD_PTR>(i / 128) << 16));
        EXPECT_NE(record.thread, std::this_thread::get_id());
        EXPECT_EQ(record.thread, data[0].thread);
        EXPECT_EQ(record.handle, input);
        EXPECT_GE(record.param2, lastTime);  // milliseconds since start, never going back
        lastTime = record.param2;
    }

    ASSERT_EQ(midiInStop(input), MMSYSERR_NOERROR);
    EXPECT_FALSE(device.SendShort(0x90, 1, 1));
    ASSERT_EQ(midiInReset(input), MMSYSERR_NOERROR);
    ASSERT_EQ(midiInClose(input), MMSYSERR_NOERROR);
    EXPECT_EQ(log.Records().back().message, static_cast<UINT>(MIM_CLOSE));
    EXPECT_FALSE(device.IsOpen());
    EXPECT_EQ(midiInClose(input), MMSYSERR_INVALHANDLE);
}

TEST(PlatformMidiIn, SysExFillsQueuedBuffersAndResetReturnsTheRest) {
    VirtualMidiInput device("Lighting Desk");
    CallbackLog log;
    HMIDIIN input = OpenInput(device, log);
    std::array<std::array<BYTE, 8>, 3> storage{};
    std::array<MIDIHDR, 3> headers{};
    for (std::size_t i = 0; i < headers.size(); ++i) {
        headers[i].lpData = reinterpret_cast<LPSTR>(storage[i].data());
        headers[i].dwBufferLength = storage[i].size();
        EXPECT_EQ(midiInAddBuffer(input, &headers[i], sizeof(MIDIHDR)), MIDIERR_UNPREPARED);
        ASSERT_EQ(midiInPrepareHeader(input, &headers[i], sizeof(MIDIHDR)), MMSYSERR_NOERROR);
        ASSERT_EQ(midiInAddBuffer(input, &headers[i], sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    }
    EXPECT_EQ(midiInAddBuffer(input, &headers[0], sizeof(MIDIHDR)), MIDIERR_STILLPLAYING);
    EXPECT_EQ(midiInUnprepareHeader(input, &headers[0], sizeof(MIDIHDR)), MIDIERR_STILLPLAYING);
    ASSERT_EQ(midiInStart(input), MMSYSERR_NOERROR);

    // A 12-byte MIDI Show Control message: the first buffer comes back full, the second with
    // the last four bytes.
    const std::vector<std::uint8_t> sysex{0xF0, 0x7F, 0x01, 0x02, 0x01, 0x01,
                                          0x31, 0x2E, 0x35, 0x00, 0x31, 0xF7};
    ASSERT_TRUE(device.SendSysEx(sysex));
    ASSERT_TRUE(device.SendShort(0x90, 60, 1));  // after the SysEx, in order
    ASSERT_TRUE(log.WaitFor(MIM_DATA, 1));
    const auto records = log.Records();
    ASSERT_EQ(records.size(), 4u);  // open, two long data, data
    EXPECT_EQ(records[1].message, static_cast<UINT>(MIM_LONGDATA));
    EXPECT_EQ(reinterpret_cast<LPMIDIHDR>(records[1].param1), &headers[0]);
    EXPECT_EQ(headers[0].dwBytesRecorded, 8u);
    EXPECT_EQ(reinterpret_cast<LPMIDIHDR>(records[2].param1), &headers[1]);
    EXPECT_EQ(headers[1].dwBytesRecorded, 4u);
    EXPECT_EQ(headers[1].dwFlags & (MHDR_DONE | MHDR_INQUEUE), MHDR_DONE);
    EXPECT_TRUE(std::equal(sysex.begin(), sysex.begin() + 8, storage[0].begin()));
    EXPECT_TRUE(std::equal(sysex.begin() + 8, sysex.end(), storage[1].begin()));
    EXPECT_EQ(records[3].message, static_cast<UINT>(MIM_DATA));

    EXPECT_EQ(midiInClose(input), MIDIERR_STILLPLAYING);  // the third buffer is still queued
    ASSERT_EQ(midiInReset(input), MMSYSERR_NOERROR);
    const auto afterReset = log.Of(MIM_LONGDATA);
    ASSERT_EQ(afterReset.size(), 3u);  // returned before midiInReset returned
    EXPECT_EQ(reinterpret_cast<LPMIDIHDR>(afterReset[2].param1), &headers[2]);
    EXPECT_EQ(headers[2].dwBytesRecorded, 0u);
    EXPECT_EQ(headers[2].dwFlags & (MHDR_DONE | MHDR_INQUEUE), MHDR_DONE);
    for (auto& header : headers) {
        EXPECT_EQ(midiInUnprepareHeader(input, &header, sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    }
    ASSERT_EQ(midiInStart(input), MMSYSERR_NOERROR);
    EXPECT_TRUE(device.SendSysEx(sysex));  // taken, but dropped for want of a buffer
    EXPECT_EQ(midiInClose(input), MMSYSERR_NOERROR);
    EXPECT_EQ(log.Of(MIM_LONGDATA).size(), 3u);
}

TEST(PlatformMidiIn, CloseWhileMessagesArriveEndsCallbacksBeforeItReturns) {
    VirtualMidiInput device("Busy Keyboard");
    struct Watch {
        std::atomic<bool> closed{false};
        std::atomic<int> late{0};
        std::atomic<int> data{0};
    } watch;
    auto callback = [](HDRVR, UINT message, DWORD_PTR instance, DWORD_PTR, DWORD_PTR) {
        auto* w = reinterpret_cast<Watch*>(instance);
        if (message == MIM_DATA) {
            w->data.fetch_add(1);
            if (w->closed.load()) {
                w->late.fetch_add(1);
            }
        }
    };
    HMIDIIN input = nullptr;
    ASSERT_EQ(midiInOpen(&input, *device.DeviceId(), reinterpret_cast<DWORD_PTR>(+callback),
                         reinterpret_cast<DWORD_PTR>(&watch), CALLBACK_FUNCTION),
              MMSYSERR_NOERROR);
    ASSERT_EQ(midiInStart(input), MMSYSERR_NOERROR);

    std::atomic<bool> stop{false};
    std::atomic<int> accepted{0};
    std::thread sender([&] {
        while (!stop.load()) {
            if (device.SendShort(0x90, 60, 100)) {
                accepted.fetch_add(1);
            }
        }
    });
    while (watch.data.load() < 100) {
        std::this_thread::yield();  // let traffic build up before closing into it
    }
    ASSERT_EQ(midiInClose(input), MMSYSERR_NOERROR);
    watch.closed.store(true);
    EXPECT_FALSE(device.SendShort(0x90, 60, 100));
    stop.store(true);
    sender.join();

    EXPECT_EQ(watch.late.load(), 0);
    EXPECT_LE(watch.data.load(), accepted.load());  // undelivered ones were dropped, none invented
    EXPECT_FALSE(device.IsOpen());
}
