// A MidiBuffer for tests: every port keeps the events added to it, in order, up to a capacity,
// so that the full-buffer paths of the writers can be exercised.
#pragma once

#include <cstddef>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "midi/midi_buffer.h"
#include "midi/velt_midi_error.h"

class RecordingMidiBuffer : public MidiBuffer {
  public:
    using EventList = std::vector<velt_midi::VoiceEvent>;

    RecordingMidiBuffer(unsigned char portCount, std::size_t capacityPerPort,
                        const std::string& name = "Recording Buffer")
        : MidiBuffer(portCount, name), capacity_(capacityPerPort), ports_(portCount) {}

    /// Stores the event unless the port holds `capacity` events already. With
    /// RejectInvalidEvents(true) an event that is not a valid voice message raises
    /// InvalidVoiceEvent, as a device buffer does.
    bool AddEventToBuffer(unsigned char port, const velt_midi::VoiceEvent& event) override {
        std::scoped_lock lock(GetMutex());
        ++attemptCount_;
        if (port >= ports_.size()) {
            throw std::out_of_range("no such port");
        }
        if (rejectInvalid_ && !event.IsValidVoiceEvent()) {
            throw InvalidVoiceEvent("invalid voice event");
        }
        if (ports_[port].size() >= capacity_) {
            return false;
        }
        FilterProgramChange(port, event);
        ports_[port].push_back(event);
        CountPortEvent(port);
        return true;
    }
    void DoneAddingEventsToBuffer() override {
        std::scoped_lock lock(GetMutex());
        ++doneCount_;
    }
    bool GetBufferIsFull(unsigned char port) override {
        std::scoped_lock lock(GetMutex());
        return ports_.at(port).size() >= capacity_;
    }
    void* GetPacketDataAtPortIndex(unsigned char port) override { return &ports_.at(port); }
    /// The base count is cleared and so is every port's list: the buffer is empty again.
    void ResetPortEventCounts() override {
        std::scoped_lock lock(GetMutex());
        MidiBuffer::ResetPortEventCounts();
        for (auto& events : ports_) {
            events.clear();
        }
    }

    const EventList& Events(unsigned char port) const { return ports_.at(port); }
    /// The events of every port, and empties the buffer (as sending it would).
    std::vector<EventList> TakeEvents() {
        std::scoped_lock lock(GetMutex());
        std::vector<EventList> taken(ports_.size());
        taken.swap(ports_);
        MidiBuffer::ResetPortEventCounts();
        return taken;
    }
    int GetDoneCount() const { return doneCount_; }
    /// Every AddEventToBuffer call, stored or not.
    int GetAttemptCount() const { return attemptCount_; }
    void RejectInvalidEvents(bool reject) { rejectInvalid_ = reject; }

  private:
    std::size_t capacity_;
    std::vector<EventList> ports_;
    int doneCount_ = 0;
    int attemptCount_ = 0;
    bool rejectInvalid_ = false;
};
