#include "midi/midi_buffer.h"

#include <chrono>

#include "interfaces/notify.h"
#include "midi/Sources/channel_messages.h"

using namespace channel_message;

namespace {
constexpr unsigned char kChannelCount = 16;
constexpr auto kReadyForOutputTimeout = std::chrono::seconds(1);

// Both panics address port 0 and ignore a full buffer on purpose: the messages are a best effort
// sent when playback stops or jumps, and each call is complete in itself.
void AddChannelModeMessages(MidiBuffer& buffer, bool withAllNotesOff) {
    for (unsigned char channel = 0; channel < kChannelCount; ++channel) {
        if (withAllNotesOff) {
            buffer.AddEventToBuffer(
                0, velt_midi::VoiceEvent(0, kControlChange, channel, kAllNotesOff, 0));
        }
        buffer.AddEventToBuffer(
            0, velt_midi::VoiceEvent(0, kControlChange, channel, kResetAllControllers, 0));
    }
    buffer.DoneAddingEventsToBuffer();
}
}  // namespace

MidiBuffer::MidiBuffer(unsigned char portCount, const std::string& name)
    : portCount_(portCount), name_(name) {}

MidiBuffer::~MidiBuffer() = default;

unsigned short MidiBuffer::GetPortEventCount(unsigned char port) {
    std::scoped_lock lock(bufferMutex_);
    return portEventCounts_[port];
}

void MidiBuffer::CountPortEvent(unsigned char port) {
    std::scoped_lock lock(bufferMutex_);
    ++portEventCounts_[port];
}

void MidiBuffer::ResetPortEventCounts() {
    std::scoped_lock lock(bufferMutex_);
    portEventCounts_.clear();
}

// Deliberately kept: the all-controllers-off request (cleared only when read), the on-deck
// plug-in ids, both time-code positions and the clocks per click. No waiter is woken.
void MidiBuffer::Reset() {
    std::scoped_lock lock(hasDataMutex_, bufferMutex_);
    hasData_ = false;
    tickIndex_ = 0;
    isLastBuffer_ = false;
    isFirstBuffer_ = false;
    shouldSendAllNotesOff_ = false;
    clockNumber_ = 0;
    ResetPortEventCounts();
    programChanges_.clear();
    hasPluginIds_ = false;
}

void MidiBuffer::SetTickIndex(unsigned int tickIndex) {
    std::scoped_lock lock(bufferMutex_);
    tickIndex_ = tickIndex;
}

unsigned int MidiBuffer::GetTickIndex() {
    std::scoped_lock lock(bufferMutex_);
    return tickIndex_;
}

void MidiBuffer::FilterProgramChange(unsigned char port, const velt_midi::VoiceEvent& event) {
    if (KindOf(event.status) != kProgramChange) {
        return;
    }
    std::scoped_lock lock(bufferMutex_);
    const auto key = static_cast<unsigned short>((port << 8) | (event.status & 0x0F));
    programChanges_[key] = event.data1;
}

void MidiBuffer::SendProgramChanges() {
    ProgramChangeMap programChanges = GetProgramChanges();
    NotifyProgramChanges(programChanges);
}

MidiBuffer::ProgramChangeMap MidiBuffer::GetProgramChanges() {
    std::scoped_lock lock(bufferMutex_);
    return programChanges_;
}

void MidiBuffer::NotifyProgramChanges(ProgramChangeMap& programChanges) {
    if (!programChanges.empty()) {
        notify::callbackDispatcher.Notify(notify::names::currentProgramIds, &programChanges);
    }
}

unsigned char MidiBuffer::GetPortCount() {
    std::scoped_lock lock(bufferMutex_);
    return portCount_;
}

std::string MidiBuffer::GetName() {
    std::scoped_lock lock(bufferMutex_);
    return name_;
}

int MidiBuffer::GetClockNumber() {
    std::scoped_lock lock(bufferMutex_);
    return clockNumber_;
}

void MidiBuffer::SetClockNumber(int clockNumber) {
    std::scoped_lock lock(bufferMutex_);
    clockNumber_ = clockNumber;
}

double MidiBuffer::GetClockTimeSeconds(double bpm) const {
    return 1.0 / (clocksPerClick_ * bpm / 60.0);
}

void MidiBuffer::SetIsFirstBuffer() {
    std::scoped_lock lock(bufferMutex_);
    isFirstBuffer_ = true;
}

bool MidiBuffer::GetIsFirstBuffer() {
    std::scoped_lock lock(bufferMutex_);
    return isFirstBuffer_;
}

bool MidiBuffer::GetIsLastBuffer() {
    std::scoped_lock lock(bufferMutex_);
    return isLastBuffer_;
}

void MidiBuffer::SetIsLastBuffer(bool last) {
    {
        std::scoped_lock lock(bufferMutex_);
        isLastBuffer_ = last;
    }
    if (last) {
        SetHasData(true);
    }
}

void MidiBuffer::SetShouldSendAllNotesOff() {
    std::scoped_lock lock(bufferMutex_);
    if (!isFirstBuffer_) {
        shouldSendAllNotesOff_ = true;
    }
}

void MidiBuffer::SetShouldSendAllCCsOff() {
    std::scoped_lock lock(bufferMutex_);
    if (!isFirstBuffer_) {
        shouldSendAllCCsOff_ = true;
    }
}

bool MidiBuffer::GetShouldSendAllNotesOff() {
    std::scoped_lock lock(bufferMutex_);
    return std::exchange(shouldSendAllNotesOff_, false);
}

bool MidiBuffer::GetShouldSendAllCCsOff() {
    std::scoped_lock lock(bufferMutex_);
    return std::exchange(shouldSendAllCCsOff_, false);
}

void MidiBuffer::SetPluginIds(PluginIds&& ids) {
    std::scoped_lock lock(bufferMutex_);
    hasPluginIds_ = true;
    onDeckPluginIds_ = std::move(ids);
}

void MidiBuffer::SetHasData(bool hasData) {
    std::scoped_lock lock(hasDataMutex_);
    hasData_ = hasData;
    hasDataCondition_.notify_one();
}

bool MidiBuffer::WaitUntilNeedsData() {
    std::unique_lock lock(hasDataMutex_);
    if (hasData_) {
        hasDataCondition_.wait(lock);
    }
    return true;
}

bool MidiBuffer::WaitUntilReadyForOutput() {
    std::unique_lock lock(hasDataMutex_);
    const auto deadline = std::chrono::steady_clock::now() + kReadyForOutputTimeout;
    return hasDataCondition_.wait_until(lock, deadline, [this] { return hasData_; });
}

void AddAllNotesOff(MidiBuffer& buffer) {
    AddChannelModeMessages(buffer, true);
}

void AddAllCCsOff(MidiBuffer& buffer) {
    AddChannelModeMessages(buffer, false);
}
