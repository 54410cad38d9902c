#include "midi/midi_message_dispatcher.h"

#include <iostream>

#include "interfaces/notify.h"
#include "midi/msc_message.h"
#include "midi/win32/midi_input_win32.h"

MidiMessageDispatcher::MidiMessageDispatcher()
    : currentBindings_(std::make_unique<const BindingMap>()),
      bindings_(currentBindings_.get()),
      forward_([](std::span<const MIDIMessage>) {}) {
    packet_.reserve(kPacketCapacity);
}

// The input goes first: closing it waits for a callback in flight, which may still be using the
// bindings and the packet.
MidiMessageDispatcher::~MidiMessageDispatcher() {
    input_.reset();
}

void MidiMessageDispatcher::ConnectWithSourceIndex(unsigned char sourceIndex) {
    {
        // The device is open already: a second open of it would be refused while the first is
        // held, so the input in place stays.
        std::scoped_lock lock(mutex_);
        if (input_ && input_->GetPortIndex() == sourceIndex) {
            return;
        }
    }
    auto replacement = std::make_unique<MidiInputWin32<MidiMessageDispatcher>>(sourceIndex, this);
    std::unique_ptr<MidiInputInterface> previous;
    {
        std::scoped_lock lock(mutex_);
        previous = std::exchange(input_, std::move(replacement));
    }
    // Closed outside the lock: closing waits for the old device's callback, which may be
    // learning and so taking the lock.
    previous.reset();
}

void MidiMessageDispatcher::Start() {
    std::scoped_lock lock(mutex_);  // starting does not wait for the input's callback
    if (!input_) {
        std::cerr << "MidiMessageDispatcher::Start called before "
                  << "ConnectWithSourceIndex" << std::endl;
        return;
    }
    input_->Start();
}

void MidiMessageDispatcher::Disconnect() {
    std::unique_ptr<MidiInputInterface> previous;
    {
        std::scoped_lock lock(mutex_);
        lastPortIndex_ = input_ ? input_->GetPortIndex() : 0;
        wasConnected_ = static_cast<bool>(input_);
        previous = std::move(input_);
    }
    previous.reset();
}

bool MidiMessageDispatcher::GetIsConnected() const {
    std::scoped_lock lock(mutex_);
    return static_cast<bool>(input_);
}

unsigned char MidiMessageDispatcher::GetPortIndex() const {
    std::scoped_lock lock(mutex_);
    if (input_) {
        return input_->GetPortIndex();
    }
    if (!wasConnected_) {
        std::cerr << "MidiMessageDispatcher::GetPortIndex requested "
                  << " without connection" << std::endl;
        return 0;
    }
    return lastPortIndex_;
}

template <typename Change>
void MidiMessageDispatcher::ChangeBindings_(Change&& change) {
    auto next = std::make_unique<BindingMap>(*currentBindings_);
    change(*next);
    std::unique_ptr<const BindingMap> replaced = std::exchange(currentBindings_, std::move(next));
    bindings_.store(currentBindings_.get());
    // Read after the store: an even epoch means no lookup can still hold a replaced map.
    const std::uint64_t epoch = lookupEpoch_.load();
    std::erase_if(retiredBindings_,
                  [epoch](const RetiredBindings& retired) { return retired.epoch != epoch; });
    if (epoch % 2 == 1) {
        retiredBindings_.push_back({std::move(replaced), epoch});
    }
}

void MidiMessageDispatcher::SetMidiBinding(MidiBindingKey key, Action action) {
    std::scoped_lock lock(mutex_);
    ChangeBindings_([&](BindingMap& map) { map[key] = std::move(action); });
}

void MidiMessageDispatcher::RemoveMidiBinding(MidiBindingKey key) {
    std::scoped_lock lock(mutex_);
    ChangeBindings_([&](BindingMap& map) { map.erase(key); });
}

void MidiMessageDispatcher::LearnMidiBinding(Action action, LearnedCallback onLearned) {
    std::scoped_lock lock(mutex_);
    pendingActions_.push_back(std::move(action));
    learnedCallbacks_.push_back(std::move(onLearned));
    learning_ = true;
}

void MidiMessageDispatcher::LearnMidiBindingNoAssign(LearnedCallback onLearned) {
    LearnMidiBinding(Action(), std::move(onLearned));
}

bool MidiMessageDispatcher::IsLearning() const {
    std::scoped_lock lock(mutex_);
    return learning_;
}

void MidiMessageDispatcher::SetForwardingFunction(ForwardingFunction forward) {
    std::scoped_lock lock(mutex_);
    forward_ = std::move(forward);
}

void MidiMessageDispatcher::PacketStart() {
    packet_.clear();
}

void MidiMessageDispatcher::ProcessMessage(const MIDIMessage& message) {
    MidiNotification();
    const std::uint8_t kind = message.GetStatus();
    const bool learnable = allowedStatuses.contains(kind) && !(kind == 0x90 && message.data2 == 0);
    if (learnable) {
        const MidiBindingKey key{message.status, message.data1};
        if (learning_) {
            LearnedCallback onLearned;
            bool learned = false;
            {
                std::scoped_lock lock(mutex_);
                // Re-checked under the lock: a request seen above may have been answered since.
                if (!pendingActions_.empty()) {
                    if (Action& action = pendingActions_.front(); action) {
                        ChangeBindings_([&](BindingMap& map) { map[key] = std::move(action); });
                    }
                    pendingActions_.pop_front();
                    onLearned = std::move(learnedCallbacks_.front());
                    learnedCallbacks_.pop_front();
                    learning_ = !pendingActions_.empty();
                    learned = true;
                }
            }
            if (learned) {
                onLearned(key);  // an empty callback throws std::bad_function_call
                return;
            }
        }
        // The odd epoch keeps the map read here (and the action in it) alive while the action
        // runs, even if the action or another thread replaces the bindings meanwhile.
        struct LookupWindow {
            explicit LookupWindow(std::atomic<std::uint64_t>& epoch) : epoch_(epoch) { ++epoch_; }
            ~LookupWindow() { ++epoch_; }
            LookupWindow(const LookupWindow&) = delete;
            LookupWindow& operator=(const LookupWindow&) = delete;
            std::atomic<std::uint64_t>& epoch_;
        };
        const LookupWindow window(lookupEpoch_);
        const BindingMap& bindings = *bindings_.load();
        if (const auto found = bindings.find(key); found != bindings.end()) {
            found->second();
            return;
        }
    }
    packet_.push_back(message);
    if (packet_.size() >= kPacketCapacity) {
        PacketEnd();
    }
}

void MidiMessageDispatcher::PacketEnd() {
    ForwardingFunction forward;
    {
        std::scoped_lock lock(mutex_);
        forward = forward_;
    }
    forward(std::span<const MIDIMessage>(packet_));
    packet_.clear();
}

void MidiMessageDispatcher::ProcessMscMessage(const MscMessage&) {
    MidiNotification();
}

void MidiMessageDispatcher::SetSystemExclusiveFunction(SystemExclusiveFunction receive) {
    std::scoped_lock lock(mutex_);
    receiveSysEx_ = std::move(receive);
}

void MidiMessageDispatcher::ProcessSystemExclusive(std::span<const std::uint8_t> message) {
    MidiNotification();
    if (receiveSysEx_) {
        receiveSysEx_(message);
    }
}

void MidiMessageDispatcher::MidiNotification() {
    notify::guiDispatcher.SendMidiNotification();
}

void MidiMessageDispatcher::DisplayCallbackMap(std::ostream& out) const {
    std::scoped_lock lock(mutex_);  // the current map is freed only under it
    for (const auto& [key, action] : *currentBindings_) {
        out << "\tStatus: " << static_cast<int>(key.first)
            << " Data: " << static_cast<int>(key.second)
            << " Callback: " << static_cast<const void*>(&action) << "\n";
    }
}
