// The buffer the output creates on this platform: one DataBuffer (stream packet) per port, and a
// quarantine for packets the stream service did not hand back in time.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "midi/midi_buffer.h"
#include "midi/win32/data_buffer.h"

/// Every message sent on the second and later ports goes out on channel index 15, whatever
/// channel its event carries (those ports drive single-channel devices); port 0 keeps the
/// events' own channels.
///
/// Threads and locks: as MidiBuffer; every operation below holds the buffer mutex, except
/// GetDataBuffer. A port index at or beyond the port count throws std::out_of_range.
///
/// Packet lifecycle: filled (AddEventToBuffer, each event with its tick offset from the period's
/// first tick) -> timed (WriteDeltaTimes, exact timing only) -> handed to the stream service ->
/// handed back (MOM_DONE) -> emptied for the next fill (ResetPortEventCounts). With exact timing
/// the sender does not wait for the service, so a packet may still be playing when its buffer
/// comes round to be filled again: emptying it waits for the service to hand it back, up to
/// packetReturnSeconds, and a packet not back by then is quarantined (a lost completion) and the
/// fill goes on in a fresh one.
class MidiBufferWin32 : public MidiBuffer {
  public:
    MidiBufferWin32(unsigned char portCount, unsigned short dataBufferCapacity,
                    const std::string& name);

    bool AddEventToBuffer(unsigned char port, const velt_midi::VoiceEvent& event) override;
    /// Does nothing: the packets are complete as events are added.
    void DoneAddingEventsToBuffer() override {}
    bool GetBufferIsFull(unsigned char port) override;
    void* GetPacketDataAtPortIndex(unsigned char port) override;
    unsigned short GetPortEventCount(unsigned char port) override;
    /// How long a packet may stay with the stream service before it counts as lost.
    static constexpr int packetReturnSeconds = 3;

    /// Empties every port's packet (the base count map is not used here), first waiting for
    /// packets still with the service (see the class comment). Blocks up to packetReturnSeconds
    /// per port.
    void ResetPortEventCounts() override;
    /// Exact timing: writes every port's delta times (DataBuffer::WriteDeltaTimes) for a period
    /// of `periodTicks` ticks lasting `periodSeconds`.
    void WriteDeltaTimes(double periodSeconds, unsigned int periodTicks);
    /// Stamps the tick on the buffer and on port 0's packet only.
    void SetTickIndex(unsigned int tickIndex) override;

    std::shared_ptr<DataBuffer> GetDataBuffer(unsigned char port);
    /// Appends a callback event (MEVT_F_CALLBACK | MEVT_NOP) to port 0's packet: the stream
    /// service reports the position when it reaches it.
    void AddPositionCallback();
    /// Prepares every port's packet with the handle; a packet still in use (with a device that
    /// never handed it back) is quarantined instead and a fresh one prepared in its place.
    void PrepareHeaders(HMIDIOUT handle);
    void UnprepareHeaders(HMIDIOUT handle);
    /// Withdraws the port's packet (kept alive, still prepared and in use, so the service may
    /// complete it later) and puts a fresh prepared packet in its place.
    void QuarantineDataBuffer(unsigned char port, HMIDIOUT handle);
    /// As QuarantineDataBuffer, the fresh packet taking over the withdrawn one's events, for a
    /// packet that is to be sent again.
    void QuarantineDataBufferKeepingEvents(unsigned char port, HMIDIOUT handle);
    /// Unprepares and drops every quarantined packet the service has handed back; those still in
    /// use stay for a later clean-up.
    void CleanUpQuarantinedDataBuffers(HMIDIOUT handle);
    bool GetHasQuarantinedDataBuffers();
    std::size_t GetQuarantinedDataBufferCount();
    void RetainDataBufferLock(unsigned char port);

  private:
    std::shared_ptr<DataBuffer> MakeDataBuffer_(unsigned char port);

    std::vector<std::shared_ptr<DataBuffer>> dataBuffers_;
    std::vector<std::shared_ptr<DataBuffer>> quarantinedDataBuffers_;
    std::set<unsigned char> retainedPorts_;
    unsigned short dataBufferCapacity_;
};
