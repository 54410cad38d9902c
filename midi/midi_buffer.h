// MidiBuffer: the MIDI events of one output period for every output port, with the position the
// period stands for and a few one-shot requests; plus the two panic fillers AddAllNotesOff and
// AddAllCCsOff.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "interfaces/song_data.h"

/// The platform-neutral abstract buffer. How events are stored per port is the derived class's
/// business; this base keeps the period's position, the one-shot flags, the program changes seen
/// and the has-data hand-off between the filling thread and the sending thread.
///
/// Threads: the event streams write on the queue thread's fill callback or on a thread that
/// seeks; the output reads and sends on the clock thread; the filler waits in WaitUntilNeedsData,
/// the sender in WaitUntilReadyForOutput.
/// Locks: the buffer mutex (recursive) guards everything except `hasData_`; callers may hold it
/// across several calls through GetMutex(). The has-data mutex guards `hasData_` only, so that a
/// thread waiting for data never blocks event writers. Only Reset takes both, as a pair. No host
/// callback runs under either lock.
class MidiBuffer {
  public:
    /// Program number per key; key = channel (0..15) in the low byte, port in the high byte.
    using ProgramChangeMap = std::map<unsigned short, unsigned char>;
    using PluginIds = std::pair<std::uint32_t, std::vector<std::uint32_t>>;

    MidiBuffer(unsigned char portCount, const std::string& name);
    MidiBuffer(const MidiBuffer&) = delete;
    MidiBuffer& operator=(const MidiBuffer&) = delete;
    virtual ~MidiBuffer();

    /// Stores the event for `port`. Returns false when that port's storage is full: the event is
    /// then dropped and the caller decides whether to go on. Implementations call
    /// FilterProgramChange before storing.
    virtual bool AddEventToBuffer(unsigned char port, const velt_midi::VoiceEvent& event) = 0;
    /// Called by a writer once it has finished the period's events.
    virtual void DoneAddingEventsToBuffer() = 0;
    virtual bool GetBufferIsFull(unsigned char port) = 0;
    /// The platform packet of one port.
    virtual void* GetPacketDataAtPortIndex(unsigned char port) = 0;
    /// The base count for the port; a port never counted reads 0 (an entry is created).
    virtual unsigned short GetPortEventCount(unsigned char port);
    /// Returns the buffer to its empty state between plays; see the definition for what is kept.
    virtual void Reset();
    virtual void ResetPortEventCounts();
    virtual void SetTickIndex(unsigned int tickIndex);

    /// Notifies the host of the program changes recorded since the last Reset
    /// (notify::names::currentProgramIds, payload: pointer to a ProgramChangeMap valid during the
    /// call). Nothing is posted when there are none. The notification runs on the calling thread
    /// without the buffer lock held; a caller that holds the buffer's or the output's lock takes
    /// the map with GetProgramChanges instead and posts it once it has let go of them.
    void SendProgramChanges();
    /// The program changes recorded since the last Reset (a copy).
    ProgramChangeMap GetProgramChanges();
    /// Posts `programChanges` as SendProgramChanges does; nothing when the map is empty.
    static void NotifyProgramChanges(ProgramChangeMap& programChanges);

    std::recursive_mutex& GetMutex() { return bufferMutex_; }
    unsigned char GetPortCount();
    std::string GetName();
    unsigned int GetTickIndex();
    int GetClockNumber();
    void SetClockNumber(int clockNumber);

    /// Not locked: written and read by the filling thread only.
    void SetClocksPerClick(int clocksPerClick) { clocksPerClick_ = clocksPerClick; }
    /// Seconds per MIDI clock at `bpm` clicks per minute: 1 / (clocksPerClick * bpm / 60). Not
    /// locked.
    double GetClockTimeSeconds(double bpm) const;
    /// Time-code positions in seconds; not locked (filling thread only).
    double GetTimeCodeSeconds() const { return timeCodeSeconds_; }
    void SetTimeCodeSeconds(double seconds) { timeCodeSeconds_ = seconds; }
    double GetNextTimeCodeSeconds() const { return nextTimeCodeSeconds_; }
    void SetNextTimeCodeSeconds(double seconds) { nextTimeCodeSeconds_ = seconds; }

    /// Marks the buffer as the first of a play; only Reset clears it.
    void SetIsFirstBuffer();
    bool GetIsFirstBuffer();
    bool GetIsLastBuffer();
    /// A last buffer is always released for sending, even when nothing was added to it: `true`
    /// also sets has-data (and wakes a waiter). `false` leaves has-data alone.
    void SetIsLastBuffer(bool last);

    /// One-shot requests, ignored on a first buffer: a play that starts has nothing to silence.
    void SetShouldSendAllNotesOff();
    void SetShouldSendAllCCsOff();
    /// Return the request and clear it in the same locked step: each is read once.
    bool GetShouldSendAllNotesOff();
    bool GetShouldSendAllCCsOff();

    void SetPluginIds(PluginIds&& ids);
    /// Not locked (filling thread only).
    bool GetHasPluginIds() const { return hasPluginIds_; }
    /// Not locked (filling thread only).
    const PluginIds& GetOnDeckPluginIds() const { return onDeckPluginIds_; }

    /// Stores the flag under the has-data mutex and signals one waiter, whatever the new value.
    void SetHasData(bool hasData);
    /// Filler side: if the buffer holds data, waits once on the condition (any wake-up lets the
    /// filler go on: it is deliberately not a loop over the flag). Always returns true. Blocks.
    bool WaitUntilNeedsData();
    /// Sender side: waits until the buffer has data or one second (steady clock, from the start
    /// of the wait) has passed. Returns whether it has data. Blocks up to one second.
    bool WaitUntilReadyForOutput();

  protected:
    /// Records program changes[channel, port] = program for a program-change event; a later one
    /// for the same key replaces the earlier. Derived AddEventToBuffer calls it before storing.
    void FilterProgramChange(unsigned char port, const velt_midi::VoiceEvent& event);
    /// Adds one to the base count of `port` (for derived classes that keep the base count).
    void CountPortEvent(unsigned char port);

  private:
    std::recursive_mutex bufferMutex_;
    std::mutex hasDataMutex_;
    std::condition_variable hasDataCondition_;
    bool hasData_ = false;
    const unsigned char portCount_;
    unsigned int tickIndex_ = 0;
    bool isLastBuffer_ = false;
    bool isFirstBuffer_ = false;
    int clockNumber_ = 0;
    std::map<unsigned char, unsigned short> portEventCounts_;
    const std::string name_;
    bool hasPluginIds_ = false;
    PluginIds onDeckPluginIds_;
    ProgramChangeMap programChanges_;
    bool shouldSendAllNotesOff_ = false;
    bool shouldSendAllCCsOff_ = false;
    double timeCodeSeconds_ = 0.0;
    double nextTimeCodeSeconds_ = 0.0;
    int clocksPerClick_ = 0;
};

/// Creates the platform's buffer (on this backend a MidiBufferWin32: one stream packet of
/// `dataBufferCapacity` bytes per port). The caller owns it.
std::unique_ptr<MidiBuffer> CreateMidiBuffer(unsigned char portCount,
                                             unsigned short dataBufferCapacity,
                                             const std::string& name);

/// Panic: for channels 0..15 in order, adds to port 0 control change 123 (all notes off) then
/// 121 (reset all controllers), value 0, time 0; 32 events, then DoneAddingEventsToBuffer once.
/// A full buffer does not stop it, and only port 0 is addressed.
void AddAllNotesOff(MidiBuffer& buffer);
/// As AddAllNotesOff with control change 121 only: 16 events on port 0.
void AddAllCCsOff(MidiBuffer& buffer);
