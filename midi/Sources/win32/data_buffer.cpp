#include "midi/win32/data_buffer.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "interfaces/kit.h"
#include "midi/velt_midi_error.h"
#include "midi/win32/midi_device_info.h"

namespace {
// Source positions quoted in failure texts.
constexpr const char* dataBufferSource = "midi/Sources/win32/data_buffer";
constexpr int prepareHeaderLine = 225;
constexpr int unprepareHeaderLine = 242;

void ThrowIfFailed(MMRESULT result, int line, const char* action) {
    if (result != MMSYSERR_NOERROR) {
        throw MidiImplementationError(
            kit::format("%s line %d: %s caused error %d, %s.", dataBufferSource, line, action,
                        static_cast<int>(result), GetMidiErrorAsString(result).c_str()));
    }
}

void WriteDword(std::uint8_t* at, DWORD value) {
    // Little-endian on every platform the stream service exists on.
    at[0] = static_cast<std::uint8_t>(value);
    at[1] = static_cast<std::uint8_t>(value >> 8);
    at[2] = static_cast<std::uint8_t>(value >> 16);
    at[3] = static_cast<std::uint8_t>(value >> 24);
}

DWORD ReadDword(const std::uint8_t* at) {
    return static_cast<DWORD>(at[0]) | (static_cast<DWORD>(at[1]) << 8) |
           (static_cast<DWORD>(at[2]) << 16) | (static_cast<DWORD>(at[3]) << 24);
}
}  // namespace

DataBuffer::DataBuffer(std::uint16_t capacityBytes, std::uint8_t portIndex, const std::string& name)
    : capacityBytes_(capacityBytes),
      maxEvents_(static_cast<std::uint16_t>(capacityBytes / eventSize)),
      storage_((static_cast<std::size_t>(capacityBytes / eventSize) + 1) * eventSize),
      tickOffsets_(static_cast<std::size_t>(capacityBytes / eventSize) + 1, 0),
      portIndex_(portIndex),
      name_(name),
      inUseMutex_(std::make_unique<std::mutex>()),
      doneCondition_(std::make_unique<std::condition_variable>()) {
    ResetHeader_();
}

void DataBuffer::ResetHeader_() {
    header_ = MIDIHDR{};
    header_.lpData = reinterpret_cast<LPSTR>(storage_.data());
    header_.dwBufferLength = 0;
    header_.dwBytesRecorded = 0;
    header_.dwUser = reinterpret_cast<DWORD_PTR>(this);  // the completion callback finds us here
    header_.dwFlags = MHDR_ISSTRM;
}

DataBuffer::DataBuffer(DataBuffer&& other) noexcept {
    *this = std::move(other);
}

DataBuffer& DataBuffer::operator=(DataBuffer&& other) noexcept {
    if (this == &other) {
        return *this;
    }
    capacityBytes_ = other.capacityBytes_;
    maxEvents_ = other.maxEvents_;
    storage_ = std::move(other.storage_);
    other.storage_.clear();
    tickOffsets_ = std::move(other.tickOffsets_);
    other.tickOffsets_.clear();
    eventCount_ = other.eventCount_;
    timed_ = other.timed_;
    useChannel15_ = other.useChannel15_;
    header_ = other.header_;
    header_.lpData = reinterpret_cast<LPSTR>(storage_.data());
    header_.dwUser = reinterpret_cast<DWORD_PTR>(this);
    other.header_.lpData = nullptr;
    headerIsPrepared_ = other.headerIsPrepared_;
    preparedHandle_ = other.preparedHandle_;
    tickIndex_ = other.tickIndex_;
    portIndex_ = other.portIndex_;
    name_ = std::move(other.name_);
    inUse_ = other.inUse_;
    inUseMutex_ = std::move(other.inUseMutex_);
    doneCondition_ = std::move(other.doneCondition_);
    return *this;
}

void DataBuffer::AddVoiceEvent(const velt_midi::VoiceEvent& event, std::uint32_t offsetTicks) {
    if (!event.IsValidVoiceEvent()) {
        kit::CoutBuffer() << "Attempting to add invalid voice event:"
                          << "\n  status = " << static_cast<int>(event.status & 0xF0)
                          << "\n  data1 = " << static_cast<int>(event.data1)
                          << "\n  data2 = " << static_cast<int>(event.data2) << kit::endl;
    }
    std::uint8_t status =
        useChannel15_ ? static_cast<std::uint8_t>(event.status | 0x0F) : event.status;
    DWORD word =
        (static_cast<DWORD>(event.data2) << 16) | (static_cast<DWORD>(event.data1) << 8) | status;
    AddCallbackEvent(word, offsetTicks);
}

void DataBuffer::AddCallbackEvent(DWORD eventWord, std::uint32_t offsetTicks) {
    std::uint8_t* slot = storage_.data() + static_cast<std::size_t>(eventCount_) * eventSize;
    WriteDword(slot, 0);      // delta time
    WriteDword(slot + 4, 0);  // stream id
    WriteDword(slot + 8, eventWord);
    tickOffsets_[eventCount_] = offsetTicks;
    ++eventCount_;
}

void DataBuffer::WriteDeltaTimes(double microsecondsPerTick, std::uint32_t periodTicks) {
    const std::uint32_t lastTick =
        periodTicks > 0 ? periodTicks - 1 : std::numeric_limits<std::uint32_t>::max();
    // The writers add a period's events track by track, so offsets may go back and forth; the
    // stream plays its events in storage order, so they are put in time order first.
    std::vector<std::uint16_t> order(eventCount_);
    for (std::uint16_t i = 0; i < eventCount_; ++i) {
        order[i] = i;
    }
    std::stable_sort(order.begin(), order.end(), [this](std::uint16_t a, std::uint16_t b) {
        return tickOffsets_[a] < tickOffsets_[b];
    });
    const std::vector<std::uint8_t> events(storage_.begin(),
                                           storage_.begin() + eventCount_ * eventSize);
    const std::vector<std::uint32_t> offsets(tickOffsets_.begin(),
                                             tickOffsets_.begin() + eventCount_);
    DWORD previous = 0;
    for (std::uint16_t i = 0; i < eventCount_; ++i) {
        const std::uint32_t offset = std::min(offsets[order[i]], lastTick);
        // Each event's time is rounded from its own offset: the deltas add up to it exactly.
        const auto at = static_cast<DWORD>(std::lround(offset * microsecondsPerTick));
        std::uint8_t* slot = storage_.data() + static_cast<std::size_t>(i) * eventSize;
        std::memcpy(slot, events.data() + static_cast<std::size_t>(order[i]) * eventSize,
                    eventSize);
        WriteDword(slot, at - previous);
        tickOffsets_[i] = offset;
        previous = at;
    }
    timed_ = true;
}

void DataBuffer::CopyEventsFrom(const DataBuffer& other) {
    const std::uint16_t count =
        std::min(other.eventCount_, static_cast<std::uint16_t>(maxEvents_ + 1));
    std::copy_n(other.storage_.begin(), count * eventSize, storage_.begin());
    std::copy_n(other.tickOffsets_.begin(), count, tickOffsets_.begin());
    eventCount_ = count;
    timed_ = other.timed_;
}

MIDIEVENT DataBuffer::GetMidiMessageAtMessageIndex(std::uint16_t index) const {
    const std::uint8_t* slot = storage_.data() + static_cast<std::size_t>(index) * eventSize;
    MIDIEVENT event{};
    event.dwDeltaTime = ReadDword(slot);
    event.dwStreamID = ReadDword(slot + 4);
    event.dwEvent = ReadDword(slot + 8);
    return event;
}

std::string DataBuffer::GetBufferName() const {
    return kit::format("%s data buffer %d", name_.c_str(), static_cast<int>(portIndex_));
}

void DataBuffer::PrepareHeader(HMIDIOUT handle) {
    if (headerIsPrepared_ && preparedHandle_ != handle) {
        UnprepareHeader(preparedHandle_);
    }
    SetHeaderLengthsToEventCount();
    ThrowIfFailed(midiOutPrepareHeader(handle, &header_, sizeof(MIDIHDR)), prepareHeaderLine,
                  "calling midiOutPrepareHeader");
    headerIsPrepared_ = true;
    preparedHandle_ = handle;
}

void DataBuffer::SetHeaderLengthsToEventCount() {
    header_.dwBufferLength = static_cast<DWORD>(eventSize * eventCount_);
    header_.dwBytesRecorded = header_.dwBufferLength;
}

void DataBuffer::UnprepareHeader(HMIDIOUT handle) {
    if (headerIsPrepared_ && preparedHandle_ != handle) {
        return;
    }
    ThrowIfFailed(midiOutUnprepareHeader(handle, &header_, sizeof(MIDIHDR)), unprepareHeaderLine,
                  "calling midiOutUnprepareHeader");
    headerIsPrepared_ = false;
    preparedHandle_ = nullptr;
}

void DataBuffer::SetInUse() {
    std::scoped_lock lock(*inUseMutex_);
    if (inUse_) {
        throw MidiImplementationError(kit::format("%s in use", GetBufferName().c_str()));
    }
    inUse_ = true;
}

bool DataBuffer::GetInUse() {
    std::scoped_lock lock(*inUseMutex_);
    return inUse_;
}

void DataBuffer::SignalMidiStreamOutDone() {
    std::scoped_lock lock(*inUseMutex_);
    inUse_ = false;
    doneCondition_->notify_all();
}

bool DataBuffer::WaitForMidiStreamOutDone(int seconds) {
    std::unique_lock lock(*inUseMutex_);
    return doneCondition_->wait_for(lock, std::chrono::seconds(seconds),
                                    [this] { return !inUse_; });
}

void DataBuffer::LogQuarantine() const {
    kit::CoutBuffer() << "midiStreamOutDone_ timed out "
                      << "without receiving a mom done message. "
                      << "Buffer " << GetBufferName() << " will be quarantined." << kit::endl;
}
