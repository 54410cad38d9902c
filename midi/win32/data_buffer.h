// One output port's packet for one period: stream events plus the MIDIHDR that describes them to
// the multimedia stream service, and the in-use handshake with the service's completion callback.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "interfaces/song_data.h"
#include "platform/mmsystem.h"

/// Stream event wire format (the short MIDIEVENT form, 12 bytes, little-endian):
///
///   offset 0  DWORD dwDeltaTime   0 as events are added: the packet plays at once and timing
///                                 comes from sending one packet per clock period. Exact timing
///                                 rewrites it (WriteDeltaTimes) just before sending: microseconds
///                                 after the previous event, the first counted from the packet's
///                                 start, so each event plays at its own place inside the period
///   offset 4  DWORD dwStreamID    always 0
///   offset 8  DWORD dwEvent       short message: (data2 << 16) | (data1 << 8) | status, event
///                                 type 0 (MEVT_SHORTMSG) in the top byte
///
/// MIDIHDR lifecycle: prepared with the device's handle (PrepareHeader) -> queued (SetInUse, then
/// midiStreamOut) -> done (the service's MOM_DONE callback calls SignalMidiStreamOutDone) ->
/// queued again next period ... -> unprepared (UnprepareHeader) when the device is disconnected.
/// A packet the service does not hand back in time is quarantined by its owner and stays in use
/// until it is returned; it is unprepared only after that.
///
/// A header is unprepared only by the handle that prepared it. When the output moves to a new
/// device it connects the new one first (each header is handed over: unprepared by the old handle,
/// prepared by the new) and disconnects the old one afterwards; that disconnect then leaves alone
/// the headers that already belong to the new device.
///
/// Threads: the sender (the clock thread's send step) and the stream service's callback thread.
/// Locks: the in-use mutex, around `inUse` only; the done condition pairs with it.
class DataBuffer {
  public:
    static constexpr std::size_t eventSize = 12;
    /// The event word of a callback event: MEVT_F_CALLBACK | MEVT_NOP.
    static constexpr DWORD callbackEventWord =
        MEVT_F_CALLBACK | (static_cast<DWORD>(MEVT_NOP) << 24);
    static_assert(callbackEventWord == 0x42000000u);

    /// `capacityBytes` of event storage (maxEvents = capacityBytes / 12); the storage holds one
    /// event more than that, because the fullness rule accepts one event past maxEvents.
    DataBuffer(std::uint16_t capacityBytes, std::uint8_t portIndex, const std::string& name);
    DataBuffer(const DataBuffer&) = delete;
    DataBuffer& operator=(const DataBuffer&) = delete;
    /// Moves the storage, mutex and condition; the header is re-pointed at the storage and at the
    /// new object; the source is left without storage.
    DataBuffer(DataBuffer&& other) noexcept;
    DataBuffer& operator=(DataBuffer&& other) noexcept;
    ~DataBuffer() = default;

    /// Appends the voice message (logging, but still adding, an invalid one). No fullness check:
    /// the caller checks GetBufferIsFull first. `offsetTicks`: how many song ticks after the
    /// period's first tick the event is due; kept beside the event for WriteDeltaTimes.
    void AddVoiceEvent(const velt_midi::VoiceEvent& event, std::uint32_t offsetTicks = 0);
    /// Appends an event with the given event word.
    void AddCallbackEvent(DWORD eventWord, std::uint32_t offsetTicks = 0);
    /// The tick offset the event at `index` was added with.
    std::uint32_t GetTickOffset(std::uint16_t index) const { return tickOffsets_.at(index); }
    /// Exact timing, once the period's length is known (when it is sent): puts the events in
    /// order of their tick offsets (events of one offset keep the order they were added in) and
    /// writes each one's delta time in microseconds, rounded from its offset so that rounding
    /// never accumulates. Offsets at or past `periodTicks` (when non-zero) count as the period's
    /// last tick: nothing of this packet may play in the next period.
    void WriteDeltaTimes(double microsecondsPerTick, std::uint32_t periodTicks);
    /// Takes the events (and their offsets) of `other`, for a packet that replaces it.
    void CopyEventsFrom(const DataBuffer& other);
    /// True only once more than maxEvents events are stored.
    bool GetBufferIsFull() const { return eventCount_ > maxEvents_; }
    std::uint16_t GetEventCount() const { return eventCount_; }
    /// Forgets the events (the storage is not cleared) and their timing.
    void ResetEventCount() {
        eventCount_ = 0;
        timed_ = false;
    }
    /// Whether WriteDeltaTimes has timed the events since they were added: the packet then plays
    /// over most of a period.
    bool GetIsTimed() const { return timed_; }
    /// Forces every later voice message onto channel index 15.
    void SetUseChannel15() { useChannel15_ = true; }
    std::uint16_t GetMaxEvents() const { return maxEvents_; }

    /// A copy of the event at byte offset 12 × index of the storage (dwParms zero).
    MIDIEVENT GetMidiMessageAtMessageIndex(std::uint16_t index) const;
    std::uint8_t* GetRawData() { return storage_.data(); }
    MIDIHDR* GetMidiHeader() { return &header_; }
    std::uint32_t GetTickIndex() const { return tickIndex_; }
    void SetTickIndex(std::uint32_t tickIndex) { tickIndex_ = tickIndex; }
    /// "<name> data buffer <port>".
    std::string GetBufferName() const;

    /// Sets the header's lengths to 12 × event count and prepares it with the handle, first
    /// unpreparing it from another handle it was prepared with; a failure throws
    /// MidiImplementationError naming midi/Sources/win32/data_buffer line 225 (242 for the
    /// unprepare).
    void PrepareHeader(HMIDIOUT handle);
    /// Sets the header's buffer length and bytes recorded to 12 × event count, just before the
    /// packet is queued: the service plays dwBytesRecorded bytes.
    void SetHeaderLengthsToEventCount();
    /// Unprepares the header; a failure throws MidiImplementationError (line 242). Does nothing
    /// when the header is prepared with another handle: it belongs to that device now.
    void UnprepareHeader(HMIDIOUT handle);
    bool GetHeaderIsPrepared() const { return headerIsPrepared_; }
    HMIDIOUT GetPreparedOutputHandle() const { return preparedHandle_; }

    /// Marks the packet handed to the service; throws MidiImplementationError "<name> in use"
    /// when it already is.
    void SetInUse();
    bool GetInUse();
    /// The service handed the packet back: clears in-use and wakes the sender. Called on the
    /// service's callback thread.
    void SignalMidiStreamOutDone();
    /// Waits until the packet is no longer in use or `seconds` have passed (steady clock).
    /// Returns whether it is free. Blocks.
    bool WaitForMidiStreamOutDone(int seconds);
    /// The log line of a packet the service did not hand back in time.
    void LogQuarantine() const;

  private:
    void ResetHeader_();

    std::uint16_t capacityBytes_;
    std::uint16_t maxEvents_;
    std::vector<std::uint8_t> storage_;
    std::vector<std::uint32_t> tickOffsets_;  // one per storage slot
    std::uint16_t eventCount_ = 0;
    bool timed_ = false;
    bool useChannel15_ = false;
    MIDIHDR header_{};
    bool headerIsPrepared_ = false;
    HMIDIOUT preparedHandle_ = nullptr;
    std::uint32_t tickIndex_ = 0;
    std::uint8_t portIndex_;
    std::string name_;
    bool inUse_ = false;
    std::unique_ptr<std::mutex> inUseMutex_;
    std::unique_ptr<std::condition_variable> doneCondition_;
};
