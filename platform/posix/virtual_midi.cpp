// Virtual MIDI devices, the built-in default output and the device lists of the POSIX MIDI
// service.
//
// Locks: the registry mutex guards only the lists of virtual devices and is never held while a
// device's own mutex is taken. A device's mutex guards its recording, its fault settings and its
// open state; the MIDI service takes it inside Send/Open/Close/QueuePacket (never while calling
// back into the application), and a virtual input holds it while handing a message to the open
// handle (which then takes the handle's mutex).
#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <set>
#include <string_view>

#include "../virtual_midi.h"
#include "midi_service.h"

namespace velt_platform::detail {

class VirtualOutputState final : public OutputPort {
  public:
    VirtualOutputState(std::string name, WORD technology)
        : name_(std::move(name)), technology_(technology) {}

    std::string Name() const override { return name_; }
    const std::string& NameRef() const { return name_; }
    WORD Technology() const override { return technology_; }

    MMRESULT Open() override {
        std::scoped_lock lock(mutex_);
        if (openFailure_ != MMSYSERR_NOERROR) {
            return openFailure_;
        }
        if (open_) {
            return MMSYSERR_ALLOCATED;
        }
        open_ = true;
        openedAtNs_ = NowNs();
        return MMSYSERR_NOERROR;
    }

    void Close() override {
        std::filesystem::path file;
        std::vector<RecordedMessage> session;
        std::int64_t start = 0;
        {
            std::scoped_lock lock(mutex_);
            open_ = false;
            if (midiFile_.empty()) {
                return;
            }
            file = midiFile_;
            start = openedAtNs_;
            std::copy_if(messages_.begin(), messages_.end(), std::back_inserter(session),
                         [start](const RecordedMessage& m) { return m.timestampNs >= start; });
        }
        try {
            WriteStandardMidiFile(file, session, start);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "%s: %s\n", name_.c_str(), e.what());
        }
    }

    MMRESULT Send(std::span<const BYTE> message, std::optional<std::uint64_t> packet) override {
        std::scoped_lock lock(mutex_);
        if (detached_) {
            return MIDIERR_NODEVICE;
        }
        messages_.push_back(
            RecordedMessage{Bytes(message.begin(), message.end()), NowNs(), packet});
        arrived_.notify_all();
        return MMSYSERR_NOERROR;
    }

    PacketTicket QueuePacket() override {
        std::scoped_lock lock(mutex_);
        PacketTicket ticket{nextPacket_++, false, completionDelay_};
        if (loseNext_ > 0) {
            --loseNext_;
            ticket.loseCompletion = true;
        }
        if (losePackets_.erase(ticket.index) > 0) {
            ticket.loseCompletion = true;
        }
        return ticket;
    }

    // The owning VirtualMidiOutput is gone: keep serving open handles but record nothing more.
    void Detach() {
        std::scoped_lock lock(mutex_);
        detached_ = true;
    }

    std::vector<RecordedMessage> Messages() const {
        std::scoped_lock lock(mutex_);
        return messages_;
    }

    void ClearMessages() {
        std::scoped_lock lock(mutex_);
        messages_.clear();
    }

    bool WaitForMessages(std::size_t count, std::chrono::milliseconds limit) const {
        std::unique_lock lock(mutex_);
        return arrived_.wait_for(lock, limit, [&] { return messages_.size() >= count; });
    }

    std::uint64_t PacketCount() const {
        std::scoped_lock lock(mutex_);
        return nextPacket_;
    }

    bool IsOpen() const {
        std::scoped_lock lock(mutex_);
        return open_;
    }

    void FailOpen(MMRESULT result) {
        std::scoped_lock lock(mutex_);
        openFailure_ = result;
    }

    void LoseNextCompletions(unsigned count) {
        std::scoped_lock lock(mutex_);
        loseNext_ = count;
    }

    void LoseCompletionOfPacket(std::uint64_t index) {
        std::scoped_lock lock(mutex_);
        losePackets_.insert(index);
    }

    void SetCompletionDelay(std::chrono::nanoseconds delay) {
        std::scoped_lock lock(mutex_);
        completionDelay_ = delay;
    }

    void SetMidiFile(std::filesystem::path path) {
        std::scoped_lock lock(mutex_);
        midiFile_ = std::move(path);
    }

  private:
    const std::string name_;
    const WORD technology_;

    mutable std::mutex mutex_;
    mutable std::condition_variable arrived_;
    std::vector<RecordedMessage> messages_;
    bool open_ = false;
    bool detached_ = false;
    std::int64_t openedAtNs_ = 0;
    std::uint64_t nextPacket_ = 0;
    MMRESULT openFailure_ = MMSYSERR_NOERROR;
    unsigned loseNext_ = 0;
    std::set<std::uint64_t> losePackets_;
    std::chrono::nanoseconds completionDelay_{0};
    std::filesystem::path midiFile_;
};

class VirtualInputState final : public InputPort {
  public:
    explicit VirtualInputState(std::string name) : name_(std::move(name)) {}

    std::string Name() const override { return name_; }
    const std::string& NameRef() const { return name_; }

    MMRESULT Open(InputSink& sink) override {
        std::scoped_lock lock(mutex_);
        if (sink_ != nullptr) {
            return MMSYSERR_ALLOCATED;
        }
        sink_ = &sink;
        return MMSYSERR_NOERROR;
    }

    void Close() override {
        std::scoped_lock lock(mutex_);
        sink_ = nullptr;
    }

    bool IsOpen() const {
        std::scoped_lock lock(mutex_);
        return sink_ != nullptr;
    }

    bool Inject(Bytes message) {
        std::scoped_lock lock(mutex_);
        return sink_ != nullptr && sink_->Receive(std::move(message), NowNs());
    }

  private:
    const std::string name_;
    mutable std::mutex mutex_;
    InputSink* sink_ = nullptr;
};

namespace {

constexpr const char* kDefaultOutputName = "Built-in Default Output";
constexpr const char* kDefaultOutputFileVariable = "VELT_DEFAULT_OUTPUT_SMF";
constexpr const char* kSystemPortsVariable = "VELT_MIDI_SYSTEM_PORTS";

bool SystemPortsShown() {
    const char* shown = std::getenv(kSystemPortsVariable);
    return shown == nullptr || std::string_view(shown) != "0";
}

class Registry {
  public:
    Registry()
        : defaultOutput_(std::make_shared<VirtualOutputState>(kDefaultOutputName, MOD_SWSYNTH)) {
        if (const char* path = std::getenv(kDefaultOutputFileVariable); path != nullptr) {
            defaultOutput_->SetMidiFile(path);
        }
    }

    template <typename State>
    void Add(std::shared_ptr<State> device) {
        std::scoped_lock lock(mutex_);
        ListOf_<State>().push_back(std::move(device));
    }

    template <typename State>
    void Remove(const std::shared_ptr<State>& device) {
        std::scoped_lock lock(mutex_);
        auto& list = ListOf_<State>();
        list.erase(std::remove(list.begin(), list.end(), device), list.end());
    }

    std::vector<std::shared_ptr<OutputPort>> Outputs() const {
        std::vector<std::shared_ptr<OutputPort>> ports;
        {
            std::scoped_lock lock(mutex_);
            ports.assign(outputs_.begin(), outputs_.end());
        }
        if (systemPorts_) {
            AppendSystemOutputs(ports);
        }
        if (ports.empty()) {
            ports.push_back(defaultOutput_);
        }
        return ports;
    }

    std::vector<std::shared_ptr<InputPort>> Inputs() const {
        std::vector<std::shared_ptr<InputPort>> ports;
        {
            std::scoped_lock lock(mutex_);
            ports.assign(inputs_.begin(), inputs_.end());
        }
        if (systemPorts_) {
            AppendSystemInputs(ports);
        }
        return ports;
    }

    const std::shared_ptr<VirtualOutputState>& DefaultOutput() const { return defaultOutput_; }

  private:
    template <typename State>
    std::vector<std::shared_ptr<State>>& ListOf_() {
        if constexpr (std::is_same_v<State, VirtualOutputState>) {
            return outputs_;
        } else {
            return inputs_;
        }
    }

    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<VirtualOutputState>> outputs_;
    std::vector<std::shared_ptr<VirtualInputState>> inputs_;
    const std::shared_ptr<VirtualOutputState> defaultOutput_;
    const bool systemPorts_ = SystemPortsShown();
};

Registry& TheRegistry() {
    static Registry registry;
    return registry;
}

template <typename Port>
std::optional<UINT> PositionIn(const std::vector<std::shared_ptr<Port>>& ports, const Port* port) {
    for (std::size_t i = 0; i < ports.size(); ++i) {
        if (ports[i].get() == port) {
            return static_cast<UINT>(i);
        }
    }
    return std::nullopt;
}

}  // namespace

std::vector<std::shared_ptr<OutputPort>> ListOutputs() {
    return TheRegistry().Outputs();
}
std::vector<std::shared_ptr<InputPort>> ListInputs() {
    return TheRegistry().Inputs();
}

}  // namespace velt_platform::detail

namespace velt_platform {

using detail::TheRegistry;

MidiOutputRecorder::MidiOutputRecorder(std::shared_ptr<detail::VirtualOutputState> state)
    : state_(std::move(state)) {}

const std::string& MidiOutputRecorder::Name() const {
    return state_->NameRef();
}
std::vector<RecordedMessage> MidiOutputRecorder::Messages() const {
    return state_->Messages();
}
void MidiOutputRecorder::ClearMessages() {
    state_->ClearMessages();
}
bool MidiOutputRecorder::WaitForMessages(std::size_t count, std::chrono::milliseconds limit) const {
    return state_->WaitForMessages(count, limit);
}
std::uint64_t MidiOutputRecorder::PacketCount() const {
    return state_->PacketCount();
}
bool MidiOutputRecorder::IsOpen() const {
    return state_->IsOpen();
}
void MidiOutputRecorder::FailOpen(MMRESULT result) {
    state_->FailOpen(result);
}
void MidiOutputRecorder::LoseNextCompletions(unsigned count) {
    state_->LoseNextCompletions(count);
}
void MidiOutputRecorder::LoseCompletionOfPacket(std::uint64_t packetIndex) {
    state_->LoseCompletionOfPacket(packetIndex);
}
void MidiOutputRecorder::SetCompletionDelay(std::chrono::nanoseconds delay) {
    state_->SetCompletionDelay(delay);
}

VirtualMidiOutput::VirtualMidiOutput(std::string name)
    : MidiOutputRecorder(
          std::make_shared<detail::VirtualOutputState>(std::move(name), MOD_MIDIPORT)) {
    TheRegistry().Add(state_);
}

VirtualMidiOutput::~VirtualMidiOutput() {
    TheRegistry().Remove(state_);
    state_->Detach();
}

std::optional<UINT> VirtualMidiOutput::DeviceId() const {
    return detail::PositionIn<detail::OutputPort>(detail::ListOutputs(), state_.get());
}

VirtualMidiInput::VirtualMidiInput(std::string name)
    : state_(std::make_shared<detail::VirtualInputState>(std::move(name))) {
    TheRegistry().Add(state_);
}

VirtualMidiInput::~VirtualMidiInput() {
    TheRegistry().Remove(state_);
}

const std::string& VirtualMidiInput::Name() const {
    return state_->NameRef();
}

std::optional<UINT> VirtualMidiInput::DeviceId() const {
    return detail::PositionIn<detail::InputPort>(detail::ListInputs(), state_.get());
}

bool VirtualMidiInput::IsOpen() const {
    return state_->IsOpen();
}

bool VirtualMidiInput::SendShort(std::uint8_t status, std::uint8_t data1, std::uint8_t data2) {
    const int length = detail::ShortMessageLength(status);
    if (length == 0) {
        return false;
    }
    detail::Bytes message{status, data1, data2};
    message.resize(static_cast<std::size_t>(length));
    return state_->Inject(std::move(message));
}

bool VirtualMidiInput::SendSysEx(std::vector<std::uint8_t> message) {
    if (message.empty() || message.front() != 0xF0) {
        return false;
    }
    return state_->Inject(std::move(message));
}

namespace {
// Gives the default output's state the public recorder interface.
class DefaultRecorder final : public MidiOutputRecorder {
  public:
    explicit DefaultRecorder(std::shared_ptr<detail::VirtualOutputState> state)
        : MidiOutputRecorder(std::move(state)) {}
};
}  // namespace

MidiOutputRecorder& DefaultMidiOutput() {
    static DefaultRecorder recorder(TheRegistry().DefaultOutput());
    return recorder;
}

void SetDefaultOutputMidiFile(std::filesystem::path path) {
    TheRegistry().DefaultOutput()->SetMidiFile(std::move(path));
}

}  // namespace velt_platform
