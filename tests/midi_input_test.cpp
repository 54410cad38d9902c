// Show-control parsing, the offered sources, the input device wrapper and the dispatcher, fed
// through virtual input devices.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/notify.h"
#include "midi/midi_endpoints.h"
#include "midi/midi_message_dispatcher.h"
#include "midi/msc_message.h"
#include "midi/win32/midi_input_win32.h"
#include "midi_input_support.h"
#include "platform/virtual_midi.h"

using namespace midi_input_test;
using velt_platform::VirtualMidiInput;

namespace {

// Parses from a buffer of exactly the given bytes, so a read past them is a heap overflow that
// the address sanitizer reports.
MscMessage Parse(const std::vector<std::uint8_t>& bytes) {
    const std::vector<std::uint8_t> exact(bytes);
    return MscMessage(exact.data(), exact.size());
}

std::string ParseError(const std::vector<std::uint8_t>& bytes) {
    try {
        Parse(bytes);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(accepted)";
}

}  // namespace

TEST(MscMessage, GoMessagesParseToTheirCueFields) {
    const MscMessage go = Parse({0x7F, 0x02, 0x11, 0x01, 0x31, 0x2E, 0x35, 0x00, 0x32, 0xF7});
    EXPECT_EQ(go.DeviceId(), 0x7F);
    EXPECT_EQ(go.Format(), MscCommandFormat::Music);
    EXPECT_EQ(go.Command(), MscCommand::Go);
    EXPECT_EQ(go.EventId(), (MscCueNumber{"1.5", "2", ""}));

    const MscMessage empty = Parse({0x01, 0x02, 0x17, 0x01, 0xF7});
    EXPECT_EQ(empty.Format(), MscCommandFormat::AudioEffects);
    EXPECT_EQ(empty.EventId(), MscCueNumber{});

    // Two separators in a row: an empty list, then the path.
    EXPECT_EQ(Parse({0x05, 0x02, 0x11, 0x01, 0x34, 0x00, 0x00, 0x39, 0xF7}).EventId(),
              (MscCueNumber{"4", "", "9"}));
    // All three fields, the last ended by the separator rather than 0xF7.
    EXPECT_EQ(Parse({0x05, 0x02, 0x11, 0x01, 0x31, 0x00, 0x32, 0x00, 0x33, 0x00}).EventId(),
              (MscCueNumber{"1", "2", "3"}));
}

TEST(MscMessage, RefusalsCarryTheirTextsAndNeverReadPastTheBytes) {
    // The three-field message of a format other than the two accepted.
    std::vector<std::uint8_t> lighting = {0x01, 0x02, 0x20, 0x01};
    for (const char* field : {"25.5", "3.1", "1.9"}) {
        lighting.insert(lighting.end(), field, field + std::string(field).size());
        lighting.push_back(0x00);
    }
    lighting.back() = 0xF7;
    EXPECT_EQ(ParseError(lighting), "Invalid MSC command format type");
    EXPECT_EQ(ParseError({0x01, 0x02, 0x10, 0x01, 0xF7}), "Invalid MSC command format type");
    EXPECT_EQ(ParseError({0x01, 0x02, 0x11, 0x02, 0xF7}), "Invalid Msc command");
    EXPECT_EQ(ParseError({0x01, 0x7F, 0x11, 0x01, 0xF7}), "The SysEx code is not for MSC");
    EXPECT_EQ(ParseError({0x01, 0x02}), "Insufficient bytes to be a valid MSC message");
    // Three bytes hold no command byte: refused rather than read one past.
    EXPECT_EQ(ParseError({0x01, 0x02, 0x11}), "Insufficient bytes to be a valid MSC message");
    // Cue fields that reach the end of the bytes without a terminator.
    EXPECT_EQ(ParseError({0x01, 0x02, 0x11, 0x01, 0x31}), "MSC Message Cue Overflow");
    EXPECT_EQ(ParseError({0x01, 0x02, 0x11, 0x01}), "MSC Message Cue Overflow");
    EXPECT_EQ(ParseError({0x01, 0x02, 0x11, 0x01, 0x31, 0x00, 0x32}), "MSC Message Cue Overflow");
    EXPECT_EQ(ParseError({0x01, 0x02, 0x11, 0x01, 0x31, 0x00, 0x32, 0x00}),
              "MSC Message Cue Overflow");
    // The first bytes of a longer buffer: the count, not the buffer, ends the message.
    const std::uint8_t longer[] = {0x01, 0x02, 0x11, 0x01, 0x31, 0x32, 0xF7};
    EXPECT_THROW(MscMessage(longer, 5), std::runtime_error);
}

TEST(MidiEndpoints, OwnPortsAreLeftOutAndIndicesKeepTheirGaps) {
    EXPECT_TRUE(GetMidiInputPorts().empty());
    EXPECT_TRUE(GetMidiInputPortNames().empty());
    EXPECT_TRUE(GetNonVeltMidiSources().empty());
    EXPECT_TRUE(GetNonVeltMidiDestinations().empty());
    EXPECT_FALSE(IsValidNonVeltSourceIndex(0));
    EXPECT_FALSE(IsValidNonVeltDestinationIndex(0));
    {
        CapturedStderr errors;
        EXPECT_EQ(GetUniqueIdFromIndex(0), 0);
        EXPECT_EQ(GetIndexFromUniqueId(0), 0);
        EXPECT_EQ(
            errors.Text(),
            "Unable to get unique midi id from index.\nUnable to get index from unique id.\n");
    }

    VirtualMidiInput own("VELT Out");
    VirtualMidiInput piano("Piano");
    VirtualMidiInput bus("IAC Driver VELT Bus 1");
    VirtualMidiInput otherCase("Velt");
    VirtualMidiInput tooShort("VEL");
    VirtualMidiInput busShort("IAC Driver VEL");
    EXPECT_EQ(GetMidiInputPortNames(),
              (std::vector<std::string>{"VELT Out", "Piano", "IAC Driver VELT Bus 1", "Velt", "VEL",
                                        "IAC Driver VEL"}));
    std::vector<std::pair<int, std::string>> sources;
    for (const MidiEndPoint& endpoint : GetNonVeltMidiSources()) {
        sources.emplace_back(endpoint.GetSourceIndex(), endpoint.GetSourceName());
    }
    EXPECT_EQ(sources, (std::vector<std::pair<int, std::string>>{
                           {1, "Piano"}, {3, "Velt"}, {4, "VEL"}, {5, "IAC Driver VEL"}}));
    EXPECT_FALSE(IsValidNonVeltSourceIndex(0));
    EXPECT_TRUE(IsValidNonVeltSourceIndex(1));
    EXPECT_FALSE(IsValidNonVeltSourceIndex(2));
    EXPECT_FALSE(IsValidNonVeltSourceIndex(6));

    // Every port answers unique id 0: id 0 is the first port, any other id is unknown.
    CapturedStderr errors;
    EXPECT_EQ(GetUniqueIdFromIndex(4), 0);
    EXPECT_EQ(GetIndexFromUniqueId(0), 0);
    EXPECT_EQ(errors.Text(), "");
    EXPECT_EQ(GetIndexFromUniqueId(7), 0);
    EXPECT_EQ(GetUniqueIdFromIndex(9), 0);
    EXPECT_EQ(errors.Text(),
              "Unable to get index from unique id.\nUnable to get unique midi id from index.\n");
}

namespace {

// A target that records what the input hands it and on which thread.
struct RecordingTarget {
    void ProcessMessage(const MIDIMessage& message) {
        std::scoped_lock lock(mutex);
        messages.push_back(message);
        threads.push_back(std::this_thread::get_id());
        changed.notify_all();
    }
    void ProcessSystemExclusive(std::span<const std::uint8_t> message) {
        std::scoped_lock lock(mutex);
        sysEx.emplace_back(message.begin(), message.end());
    }
    bool WaitFor(std::size_t count) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, kHangLimit, [&] { return messages.size() >= count; });
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<MIDIMessage> messages;
    std::vector<std::vector<std::uint8_t>> sysEx;
    std::vector<std::thread::id> threads;
};

}  // namespace

TEST(MidiInputWin32, ShortMessagesReachTheTargetOnlyWhileRunning) {
    VirtualMidiInput device("Pads");
    EXPECT_EQ(MidiInputPortWin32(0).GetDisplayName(), "Pads");
    EXPECT_EQ(MidiInputPortWin32(1).GetDisplayName(), "Not a valid input device.");
    EXPECT_EQ(MidiInputPortWin32(0).GetCallbackTarget(), nullptr);
    try {
        MidiInputWin32<RecordingTarget> missing(1, nullptr);
        ADD_FAILURE() << "opened a device that does not exist";
    } catch (const MidiPortError& error) {
        EXPECT_TRUE(std::string(error.what()).starts_with("midiInOpen: 2 ")) << error.what();
    }

    RecordingTarget target;
    {
        MidiInputWin32<RecordingTarget> input(0, &target);
        EXPECT_EQ(input.GetPortIndex(), 0);
        EXPECT_FALSE(device.SendShort(0x90, 0x3C, 0x64));  // open, not started: dropped
        input.Start();
        // More messages than the port has buffers: each buffer must come back into use. One
        // longer than a buffer arrives in pieces and is not passed on.
        const std::vector<std::uint8_t> go = {0xF0, 0x7F, 0x01, 0x02, 0x11, 0x01, 0xF7};
        for (std::size_t i = 0; i < 2 * MidiInputPortWin32::kSysExBufferCount; ++i) {
            ASSERT_TRUE(device.SendSysEx(go));
        }
        std::vector<std::uint8_t> longer(MidiInputPortWin32::kSysExBufferSize + 10, 0x11);
        longer.front() = 0xF0;
        longer.back() = 0xF7;
        ASSERT_TRUE(device.SendSysEx(longer));
        ASSERT_TRUE(device.SendSysEx(go));
        ASSERT_TRUE(device.SendShort(0x90, 0x3C, 0x64));
        ASSERT_TRUE(device.SendShort(0xF8));
        ASSERT_TRUE(target.WaitFor(2));
        std::scoped_lock lock(target.mutex);
        EXPECT_EQ(target.sysEx, std::vector<std::vector<std::uint8_t>>(
                                    2 * MidiInputPortWin32::kSysExBufferCount + 1, go));
    }
    EXPECT_FALSE(device.IsOpen());
    std::scoped_lock lock(target.mutex);
    ASSERT_EQ(target.messages.size(), 2u);  // the SysEx never reaches ProcessMessage
    EXPECT_EQ(target.messages[0], (MIDIMessage{0x90, 0x3C, 0x64}));
    EXPECT_EQ(target.messages[1], (MIDIMessage{0xF8, 0, 0}));
    EXPECT_NE(target.threads[0], std::this_thread::get_id());
}

TEST(MidiInputWin32, KillingTwiceClosesOnceAndLaterInputIsDropped) {
    VirtualMidiInput device("Pads");
    RecordingTarget target;
    MidiInputPortWin32 port(
        0, [](HDRVR, UINT, DWORD_PTR, DWORD_PTR, DWORD_PTR) {}, &target);
    EXPECT_EQ(port.GetCallbackTarget(), &target);
    port.Start();
    EXPECT_TRUE(port.GetIsRunning());
    port.KillIt();
    EXPECT_FALSE(port.GetIsRunning());
    EXPECT_FALSE(device.IsOpen());
    port.KillIt();
    EXPECT_FALSE(device.SendShort(0x90, 0x3C, 0x64));
    // The device is free again for another opener.
    MidiInputPortWin32 again(
        0, [](HDRVR, UINT, DWORD_PTR, DWORD_PTR, DWORD_PTR) {}, nullptr);
    EXPECT_TRUE(device.IsOpen());
}

namespace {

// A dispatcher connected to a started virtual input, with a record of what it forwards.
struct ConnectedDispatcher {
    explicit ConnectedDispatcher(const std::string& name = "Pads") : device(name) {
        dispatcher.SetForwardingFunction([this](std::span<const MIDIMessage> packet) {
            std::scoped_lock lock(mutex);
            packets.emplace_back(packet.begin(), packet.end());
            packetThreads.push_back(std::this_thread::get_id());
        });
        dispatcher.ConnectWithSourceIndex(*device.DeviceId());
        dispatcher.Start();
    }
    void Send(std::uint8_t status, std::uint8_t data1, std::uint8_t data2 = 0) {
        ASSERT_TRUE(device.SendShort(status, data1, data2));
    }

    VirtualMidiInput device;
    MidiMessageDispatcher dispatcher;
    std::mutex mutex;
    std::vector<std::vector<MIDIMessage>> packets;
    std::vector<std::thread::id> packetThreads;
};

// Binds `key` to posting `name`.
void BindPosting(MidiMessageDispatcher& dispatcher, MidiBindingKey key, const std::string& name) {
    dispatcher.SetMidiBinding(key, [&name] { notify::callbackDispatcher.Notify(name, nullptr); });
}

const std::string kFirst = "test first binding";
const std::string kSecond = "test second binding";
const std::string kFence = "test fence";

}  // namespace

TEST(MidiMessageDispatcher, OnlyLearnableMessagesOfTheBoundKeyRunTheAction) {
    ConnectedDispatcher input;
    NotificationLog log({kFirst, kSecond, kFence});
    BindPosting(input.dispatcher, {0x90, 60}, kFirst);
    BindPosting(input.dispatcher, {0xB0, 60}, kSecond);
    BindPosting(input.dispatcher, {0xC3, 0x7F}, kFence);

    input.Send(0x90, 60, 0);    // velocity 0 is a note off
    input.Send(0x80, 60, 64);   // note off
    input.Send(0x91, 60, 100);  // same note, channel 2
    input.Send(0xA0, 60, 100);  // poly pressure is never bound
    input.Send(0xB0, 60, 127);  // the controller of the same number
    input.Send(0xC3, 0x7F);     // fence: everything before it has been dispatched
    ASSERT_TRUE(log.WaitFor(kFence, 1));
    EXPECT_EQ(log.Count(kFirst), 0u);
    EXPECT_EQ(log.Count(kSecond), 1u);
    EXPECT_NE(log.Threads(kSecond)[0], std::this_thread::get_id());

    input.Send(0x90, 60, 1);
    ASSERT_TRUE(log.WaitFor(kFirst, 1));

    // The unbound ones wait in the packet until it ends.
    input.dispatcher.Disconnect();
    input.dispatcher.PacketEnd();
    std::scoped_lock lock(input.mutex);
    ASSERT_EQ(input.packets.size(), 1u);
    EXPECT_EQ(input.packets[0],
              (std::vector<MIDIMessage>{
                  {0x90, 60, 0}, {0x80, 60, 64}, {0x91, 60, 100}, {0xA0, 60, 100}}));
}

TEST(MidiMessageDispatcher, LearnRequestsAreAnsweredInOrderAndTheLearningMessageIsNotRun) {
    ConnectedDispatcher input;
    NotificationLog log({kFirst, kSecond, kFence});
    BindPosting(input.dispatcher, {0xB2, 7}, kFirst);
    BindPosting(input.dispatcher, {0xC0, 1}, kFence);

    std::mutex mutex;
    std::vector<std::pair<int, MidiBindingKey>> learned;
    input.dispatcher.LearnMidiBindingNoAssign([&](MidiBindingKey key) {
        std::scoped_lock lock(mutex);
        learned.emplace_back(1, key);
    });
    input.dispatcher.LearnMidiBinding([] { notify::callbackDispatcher.Notify(kSecond, nullptr); },
                                      [&](MidiBindingKey key) {
                                          std::scoped_lock lock(mutex);
                                          learned.emplace_back(2, key);
                                      });
    EXPECT_TRUE(input.dispatcher.IsLearning());

    input.Send(0x90, 10, 0);   // not learnable
    input.Send(0xB2, 7, 5);    // answers the first request; its binding is not run
    input.Send(0x95, 40, 90);  // answers the second and is bound to it
    input.Send(0xC0, 1);       // fence
    ASSERT_TRUE(log.WaitFor(kFence, 1));
    EXPECT_FALSE(input.dispatcher.IsLearning());
    EXPECT_EQ(log.Count(kFirst), 0u);
    EXPECT_EQ(log.Count(kSecond), 0u);
    {
        std::scoped_lock lock(mutex);
        EXPECT_EQ(learned,
                  (std::vector<std::pair<int, MidiBindingKey>>{{1, {0xB2, 7}}, {2, {0x95, 40}}}));
    }
    input.Send(0xB2, 7, 5);
    input.Send(0x95, 40, 90);
    ASSERT_TRUE(log.WaitFor(kSecond, 1));
    ASSERT_TRUE(log.WaitFor(kFirst, 1));

    std::ostringstream map;
    input.dispatcher.DisplayCallbackMap(map);
    const std::string text = map.str();
    EXPECT_TRUE(text.starts_with("\tStatus: 149 Data: 40 Callback: 0x")) << text;
    EXPECT_NE(text.find("\n\tStatus: 178 Data: 7 Callback: "), std::string::npos) << text;
    EXPECT_NE(text.find("\n\tStatus: 192 Data: 1 Callback: "), std::string::npos) << text;
    input.dispatcher.RemoveMidiBinding({0x95, 40});
    input.dispatcher.RemoveMidiBinding({0x95, 40});
    input.dispatcher.RemoveMidiBinding({0xB2, 7});
    input.dispatcher.RemoveMidiBinding({0xC0, 1});
    std::ostringstream empty;
    input.dispatcher.DisplayCallbackMap(empty);
    EXPECT_EQ(empty.str(), "");
}

TEST(MidiMessageDispatcher, AnUnboundStreamIsForwardedInFullPacketsOnTheInputThread) {
    ConnectedDispatcher input;
    NotificationLog log({kFence});
    BindPosting(input.dispatcher, {0xC0, 1}, kFence);
    const std::size_t total = 3 * MidiMessageDispatcher::kPacketCapacity + 5;
    for (std::size_t i = 0; i < total; ++i) {
        input.Send(0xF8, 0);
    }
    input.Send(0xC0, 1);
    ASSERT_TRUE(log.WaitFor(kFence, 1));
    input.dispatcher.Disconnect();
    {
        std::scoped_lock lock(input.mutex);
        ASSERT_EQ(input.packets.size(), 3u);
        for (const auto& packet : input.packets) {
            EXPECT_EQ(packet.size(), MidiMessageDispatcher::kPacketCapacity);
        }
        EXPECT_NE(input.packetThreads[0], std::this_thread::get_id());
    }
    input.dispatcher.PacketEnd();
    std::scoped_lock lock(input.mutex);
    ASSERT_EQ(input.packets.size(), 4u);
    EXPECT_EQ(input.packets[3].size(), 5u);
    EXPECT_EQ(input.packets[3][0], (MIDIMessage{0xF8, 0, 0}));
}

TEST(MidiMessageDispatcher, ConnectionStateAndItsWarnings) {
    MidiMessageDispatcher dispatcher;
    CapturedStderr errors;
    EXPECT_FALSE(dispatcher.GetIsConnected());
    EXPECT_EQ(dispatcher.GetPortIndex(), 0);
    dispatcher.Start();
    const std::string warnings =
        "MidiMessageDispatcher::GetPortIndex requested  without connection\n"
        "MidiMessageDispatcher::Start called before ConnectWithSourceIndex\n";
    EXPECT_EQ(errors.Text(), warnings);

    VirtualMidiInput first("A");
    VirtualMidiInput second("B");
    dispatcher.ConnectWithSourceIndex(1);
    EXPECT_THROW(dispatcher.ConnectWithSourceIndex(2), MidiPortError);
    EXPECT_TRUE(dispatcher.GetIsConnected());  // the failed open kept the old input
    EXPECT_TRUE(second.IsOpen());
    dispatcher.ConnectWithSourceIndex(1);  // the same device: kept open, not opened twice
    EXPECT_TRUE(second.IsOpen());
    dispatcher.ConnectWithSourceIndex(0);  // replaces and closes the old input
    EXPECT_TRUE(first.IsOpen());
    EXPECT_FALSE(second.IsOpen());
    dispatcher.Disconnect();
    EXPECT_FALSE(first.IsOpen());
    EXPECT_FALSE(dispatcher.GetIsConnected());
    EXPECT_EQ(dispatcher.GetPortIndex(), 0);
    dispatcher.ConnectWithSourceIndex(1);
    dispatcher.Disconnect();
    EXPECT_EQ(dispatcher.GetPortIndex(), 1);
    EXPECT_EQ(errors.Text(), warnings);  // nothing after the first connection

    // Empty callables are the caller's error, raised where they are called.
    dispatcher.SetForwardingFunction(nullptr);
    EXPECT_THROW(dispatcher.PacketEnd(), std::bad_function_call);
}

// Bindings change on this thread while the input thread looks them up; the thread sanitizer
// reports a lookup that is not ordered with the change it reads.
TEST(MidiMessageDispatcher, BindingsChangeWhileInputRunsAndFromInsideAnAction) {
    ConnectedDispatcher input;
    NotificationLog log({kFirst, kFence});
    std::atomic<bool> stop = false;
    std::thread sender([&] {
        while (!stop) {
            input.device.SendShort(0x90, 60, 100);
            std::this_thread::yield();
        }
    });
    for (int round = 0; round < 2000; ++round) {
        BindPosting(input.dispatcher, {0x90, 60}, kFirst);
        input.dispatcher.RemoveMidiBinding({0x90, 60});
    }
    BindPosting(input.dispatcher, {0x90, 60}, kFirst);
    const std::size_t before = log.Count(kFirst);
    ASSERT_TRUE(log.WaitFor(kFirst, before + 1));
    stop = true;
    sender.join();

    // An action that unbinds itself and binds another key runs on from the map it was found
    // in: what it captured must outlive the change (the address sanitizer reports it if not).
    MidiMessageDispatcher& dispatcher = input.dispatcher;
    dispatcher.SetMidiBinding({0xB0, 1}, [&dispatcher, name = std::string(kFence)] {
        dispatcher.RemoveMidiBinding({0xB0, 1});
        BindPosting(dispatcher, {0xB0, 2}, kFence);
        notify::callbackDispatcher.Notify(name, nullptr);
    });
    input.Send(0xB0, 1, 127);
    ASSERT_TRUE(log.WaitFor(kFence, 1));
    input.Send(0xB0, 1, 127);  // unbound now: forwarded
    input.Send(0xB0, 2, 127);
    ASSERT_TRUE(log.WaitFor(kFence, 2));
}
