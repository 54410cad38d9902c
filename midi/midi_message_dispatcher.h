// Between one MIDI input and the rest of the system: each short message the input delivers is
// either captured by a pending learn request, or runs the action bound to its key, or is
// collected into the packet handed to the forwarding function.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <span>
#include <utility>
#include <vector>

#include "midi/midi_ports.h"
#include "midi/velt_midi_error.h"

class MscMessage;

/// What a learnable message is bound by: the whole status byte (kind and channel), then the
/// first data byte. std::pair's ordering is the one bindings are kept in: first byte, then
/// second byte.
using MidiBindingKey = std::pair<unsigned char, unsigned char>;

/// Threads: ProcessMessage runs on the input's delivery thread (one thread at a time: the packet
/// and the lookup window below belong to it); every other operation on the caller's (user
/// interface or engine) thread.
///
/// Locks: one plain mutex guarding the learn queues and every change of the bindings. It is
/// never held while an action, a learned callback or the forwarding function runs, so those may
/// call back in. The input thread looks bindings up without it and without waiting: the bindings
/// are an immutable map that each change replaces as a whole, publishing the new one through an
/// atomic pointer, so a lookup sees either the old map or the new one, never one half-changed.
///
/// Map lifecycle: the current map is owned by `currentBindings_`. The input thread makes
/// `lookupEpoch_` odd while it reads a map and runs the action found in it, even again after. A
/// change retires the map it replaced: freed at once when the epoch it reads is even (no lookup
/// under way, and a later one finds the new map), otherwise kept in `retiredBindings_` with that
/// epoch and freed by the first later change that reads another epoch (that lookup has ended).
/// A change never waits for the input thread, so an action may change bindings itself.
///
/// The packet of unbound messages is bounded: when it holds kPacketCapacity messages the input
/// thread forwards it and starts a new one. The Windows input never brackets its messages with
/// PacketStart/PacketEnd, so without this bound an input of unbound messages (clock, note offs)
/// would grow it for as long as the device runs. The packet itself belongs to the delivery
/// thread: whoever calls PacketStart or PacketEnd must not do so while input is running.
class MidiMessageDispatcher {
  public:
    using Action = std::function<void()>;
    using LearnedCallback = std::function<void(MidiBindingKey)>;
    using ForwardingFunction = std::function<void(std::span<const MIDIMessage>)>;
    using SystemExclusiveFunction = std::function<void(std::span<const std::uint8_t>)>;

    static constexpr std::size_t kPacketCapacity = 64;

    MidiMessageDispatcher();
    ~MidiMessageDispatcher();
    MidiMessageDispatcher(const MidiMessageDispatcher&) = delete;
    MidiMessageDispatcher& operator=(const MidiMessageDispatcher&) = delete;

    /// Opens input device `sourceIndex` (not started) and makes it the owned input; the old one
    /// is closed after the new one is in place. A failed open (MidiPortError) keeps the old one.
    /// Connecting the device already owned keeps its input as it is.
    void ConnectWithSourceIndex(unsigned char sourceIndex);
    /// Starts the owned input; without one writes a warning to the standard error stream.
    void Start();
    /// Closes the owned input, remembering its port index for GetPortIndex.
    void Disconnect();
    bool GetIsConnected() const;
    /// The owned input's port index; after Disconnect the last one; before any connection a
    /// warning on the standard error stream and 0.
    unsigned char GetPortIndex() const;

    void SetMidiBinding(MidiBindingKey key, Action action);
    void RemoveMidiBinding(MidiBindingKey key);
    /// Queues a learn request: the next learnable message binds `action` to its key and then
    /// calls `onLearned` with the key. Requests are answered first come, first served.
    void LearnMidiBinding(Action action, LearnedCallback onLearned);
    /// As LearnMidiBinding, reporting the key without binding anything.
    void LearnMidiBindingNoAssign(LearnedCallback onLearned);
    bool IsLearning() const;

    void SetForwardingFunction(ForwardingFunction forward);
    void PacketStart();
    void ProcessMessage(const MIDIMessage& message);
    /// Hands the packet to the forwarding function (an empty one throws std::bad_function_call)
    /// and clears it.
    void PacketEnd();
    /// Signals MIDI activity only; show-control messages are acted on by the host.
    void ProcessMscMessage(const MscMessage& message);
    /// The host's receiver of whole System Exclusive messages (show control among them); called
    /// on the input thread without the lock. Set it before connecting.
    void SetSystemExclusiveFunction(SystemExclusiveFunction receive);
    /// From the input: signals activity and hands the message to the host's receiver, if any.
    void ProcessSystemExclusive(std::span<const std::uint8_t> message);
    /// Tells the user interface that MIDI arrived.
    void MidiNotification();

    /// One line per binding, in key order: "\tStatus: <s> Data: <d> Callback: <address>\n".
    void DisplayCallbackMap(std::ostream& out) const;

  private:
    using BindingMap = std::map<MidiBindingKey, Action>;

    // Copies the current bindings, lets `change` edit the copy and publishes it. Under mutex_.
    template <typename Change>
    void ChangeBindings_(Change&& change);

    mutable std::mutex mutex_;
    // Written under mutex_; read without it on the input thread's fast path.
    std::atomic<bool> learning_{false};
    std::unique_ptr<MidiInputInterface> input_;
    std::deque<LearnedCallback> learnedCallbacks_;  // parallel to pendingActions_
    std::deque<Action> pendingActions_;             // an empty action: learn without binding
    struct RetiredBindings {
        std::unique_ptr<const BindingMap> map;
        std::uint64_t epoch = 0;
    };
    std::unique_ptr<const BindingMap> currentBindings_;  // under mutex_
    std::vector<RetiredBindings> retiredBindings_;       // under mutex_
    std::atomic<const BindingMap*> bindings_{nullptr};   // currentBindings_, for the input thread
    std::atomic<std::uint64_t> lookupEpoch_{0};          // odd while the input thread looks up
    ForwardingFunction forward_;            // under mutex_; copied out before it is called
    SystemExclusiveFunction receiveSysEx_;  // set before input runs, read by the input thread
    std::vector<MIDIMessage> packet_;
    unsigned char lastPortIndex_ = 0;
    bool wasConnected_ = false;
};
