#include "midi/win32/midi_buffer_win32.h"

#include <algorithm>

#include "interfaces/kit.h"

MidiBufferWin32::MidiBufferWin32(unsigned char portCount, unsigned short dataBufferCapacity,
                                 const std::string& name)
    : MidiBuffer(portCount, name), dataBufferCapacity_(dataBufferCapacity) {
    for (unsigned char port = 0; port < portCount; ++port) {
        dataBuffers_.push_back(MakeDataBuffer_(port));
    }
}

std::shared_ptr<DataBuffer> MidiBufferWin32::MakeDataBuffer_(unsigned char port) {
    auto dataBuffer = std::make_shared<DataBuffer>(dataBufferCapacity_, port, GetName());
    if (port != 0) {
        dataBuffer->SetUseChannel15();
    }
    return dataBuffer;
}

bool MidiBufferWin32::AddEventToBuffer(unsigned char port, const velt_midi::VoiceEvent& event) {
    std::scoped_lock lock(GetMutex());
    if (GetBufferIsFull(port)) {
        return false;
    }
    FilterProgramChange(port, event);
    // Events of a period lie at or after its first tick; one written from earlier (a chase after
    // a seek, a panic) is due at the period's start.
    const unsigned int periodStart = GetTickIndex();
    dataBuffers_.at(port)->AddVoiceEvent(event,
                                         event.time > periodStart ? event.time - periodStart : 0);
    return true;
}

bool MidiBufferWin32::GetBufferIsFull(unsigned char port) {
    std::scoped_lock lock(GetMutex());
    return dataBuffers_.at(port)->GetBufferIsFull();
}

void* MidiBufferWin32::GetPacketDataAtPortIndex(unsigned char port) {
    std::scoped_lock lock(GetMutex());
    return dataBuffers_.at(port)->GetRawData();
}

unsigned short MidiBufferWin32::GetPortEventCount(unsigned char port) {
    std::scoped_lock lock(GetMutex());
    return dataBuffers_.at(port)->GetEventCount();
}

void MidiBufferWin32::ResetPortEventCounts() {
    std::scoped_lock lock(GetMutex());
    for (unsigned char port = 0; port < dataBuffers_.size(); ++port) {
        // The service reads a packet until it hands it back: it is not written before then.
        if (!dataBuffers_[port]->WaitForMidiStreamOutDone(packetReturnSeconds)) {
            dataBuffers_[port]->LogQuarantine();
            QuarantineDataBuffer(port, dataBuffers_[port]->GetPreparedOutputHandle());
        }
        dataBuffers_[port]->ResetEventCount();
    }
}

void MidiBufferWin32::WriteDeltaTimes(double periodSeconds, unsigned int periodTicks) {
    std::scoped_lock lock(GetMutex());
    const double microsecondsPerTick =
        periodTicks > 0 ? periodSeconds * 1e6 / static_cast<double>(periodTicks) : 0.0;
    for (auto& dataBuffer : dataBuffers_) {
        dataBuffer->WriteDeltaTimes(microsecondsPerTick, periodTicks);
    }
}

void MidiBufferWin32::SetTickIndex(unsigned int tickIndex) {
    std::scoped_lock lock(GetMutex());
    MidiBuffer::SetTickIndex(tickIndex);
    dataBuffers_.at(0)->SetTickIndex(tickIndex);
}

std::shared_ptr<DataBuffer> MidiBufferWin32::GetDataBuffer(unsigned char port) {
    return dataBuffers_.at(port);
}

void MidiBufferWin32::AddPositionCallback() {
    std::scoped_lock lock(GetMutex());
    dataBuffers_.at(0)->AddCallbackEvent(DataBuffer::callbackEventWord);
}

void MidiBufferWin32::PrepareHeaders(HMIDIOUT handle) {
    std::scoped_lock lock(GetMutex());
    for (unsigned char port = 0; port < dataBuffers_.size(); ++port) {
        if (dataBuffers_[port]->GetInUse()) {
            // Still with a device that never handed it back: it cannot be prepared again while
            // the service may read it, so it waits in quarantine and a fresh one is prepared.
            QuarantineDataBuffer(port, handle);
        } else {
            dataBuffers_[port]->PrepareHeader(handle);
        }
    }
}

void MidiBufferWin32::UnprepareHeaders(HMIDIOUT handle) {
    std::scoped_lock lock(GetMutex());
    for (auto& dataBuffer : dataBuffers_) {
        dataBuffer->UnprepareHeader(handle);
    }
}

void MidiBufferWin32::QuarantineDataBuffer(unsigned char port, HMIDIOUT handle) {
    std::scoped_lock lock(GetMutex());
    auto& slot = dataBuffers_.at(port);
    quarantinedDataBuffers_.push_back(slot);
    auto fresh = MakeDataBuffer_(port);
    if (handle != nullptr) {
        fresh->PrepareHeader(handle);
    }
    slot = std::move(fresh);
}

void MidiBufferWin32::QuarantineDataBufferKeepingEvents(unsigned char port, HMIDIOUT handle) {
    std::scoped_lock lock(GetMutex());
    const std::shared_ptr<DataBuffer> withdrawn = dataBuffers_.at(port);
    QuarantineDataBuffer(port, handle);
    dataBuffers_[port]->CopyEventsFrom(*withdrawn);
}

void MidiBufferWin32::CleanUpQuarantinedDataBuffers(HMIDIOUT handle) {
    std::scoped_lock lock(GetMutex());
    for (auto it = quarantinedDataBuffers_.begin(); it != quarantinedDataBuffers_.end();) {
        if ((*it)->GetInUse()) {
            ++it;
            continue;
        }
        (*it)->UnprepareHeader(handle);
        it = quarantinedDataBuffers_.erase(it);
    }
}

bool MidiBufferWin32::GetHasQuarantinedDataBuffers() {
    std::scoped_lock lock(GetMutex());
    return !quarantinedDataBuffers_.empty();
}

std::size_t MidiBufferWin32::GetQuarantinedDataBufferCount() {
    std::scoped_lock lock(GetMutex());
    return quarantinedDataBuffers_.size();
}

void MidiBufferWin32::RetainDataBufferLock(unsigned char port) {
    std::scoped_lock lock(GetMutex());
    retainedPorts_.insert(port);
}

std::unique_ptr<MidiBuffer> CreateMidiBuffer(unsigned char portCount,
                                             unsigned short dataBufferCapacity,
                                             const std::string& name) {
    return std::make_unique<MidiBufferWin32>(portCount, dataBufferCapacity, name);
}
