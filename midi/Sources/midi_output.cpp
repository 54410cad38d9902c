#include "midi/midi_output.h"

#include <stdexcept>

#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "midi/Sources/logged_exceptions.h"
#include "midi/velt_midi_error.h"

namespace {
// Source positions quoted in this module's log lines.
constexpr const char* outputSource = "midi/Sources/midi_output";
constexpr int asyncStoppedThreadLine = 624;
constexpr int timeCodeCallbackLine = 644;

void LogInvalidVoiceEvent(const char* operation) {
    kit::CoutBuffer() << "InvalidVoiceEvent " << operation << kit::endl;
}
}  // namespace

// ---------------------------------------------------------------------------------------------
// MidiThreadManager

void MidiThreadManager::Release() {
    std::scoped_lock lock(releaseMutex_);
    parked_ = false;
    releaseCondition_.notify_all();
}

void MidiThreadManager::ReportParked() {
    std::scoped_lock lock(parkMutex_);
    parked_ = true;
    parkedCondition_.notify_one();
}

void MidiThreadManager::WaitForRelease(std::unique_lock<std::mutex>& releaseLock) {
    releaseCondition_.wait(releaseLock);
}

void MidiThreadManager::WaitUntilParked(std::unique_lock<std::mutex>& parkLock) {
    parkedCondition_.wait(parkLock, [this] { return parked_.load(); });
}

// ---------------------------------------------------------------------------------------------
// MidiOutput

MidiOutput::MidiOutput(FillCallback fill, DownbeatCallback downbeat, StoppedCallback stopped,
                       ClockIsActiveCallback clockIsActive, CaesuraCheckCallback caesuraCheck,
                       MidiClock& clock, std::recursive_mutex* clientMutex)
    : fillCallback_(std::move(fill)),
      downbeatCallback_(std::move(downbeat)),
      stoppedCallback_(std::move(stopped)),
      clockIsActiveCallback_(std::move(clockIsActive)),
      caesuraCheckCallback_(std::move(caesuraCheck)),
      timeCodeCallback_([](double, double, double) {}),
      clock_(clock),
      clientMutex_(clientMutex) {}

MidiOutput::~MidiOutput() {
    if (queueThread_ || asyncStoppedThread_.joinable()) {
        ExitThreads();
    }
}

std::shared_ptr<MidiBuffer> MidiOutput::CreateBuffer(unsigned char portCount,
                                                     unsigned short capacity,
                                                     const std::string& name) {
    return std::shared_ptr<MidiBuffer>(CreateMidiBuffer(portCount, capacity, name));
}

void MidiOutput::Initialize(unsigned char portCount) {
    for (int i = 0; i < bufferCount; ++i) {
        auto buffer = CreateBuffer(portCount, bufferCapacity, kit::format("Main Buffer %d", i));
        mainBuffers_.push_back(buffer);
        GetPorts().RegisterMidiBuffer(buffer);
    }
    // The panic buffers are filled once here and never reset: every later AllNotesOff() or
    // AllCCsOff() sends the same prepared content.
    allNotesOffBuffer_ = CreateBuffer(portCount, bufferCapacity, "allNotesOffBuffer");
    GetPorts().RegisterMidiBuffer(allNotesOffBuffer_);
    AddAllNotesOff(*allNotesOffBuffer_);
    allCCsOffBuffer_ = CreateBuffer(portCount, bufferCapacity, "allCCsOffBuffer");
    GetPorts().RegisterMidiBuffer(allCCsOffBuffer_);
    AddAllCCsOff(*allCCsOffBuffer_);
    oneShotBuffer_ = CreateBuffer(portCount, bufferCapacity, "oneShotBuffer");
    GetPorts().RegisterMidiBuffer(oneShotBuffer_);

    queueThread_ = std::make_shared<MidiQueueThread>(*this, threadManager_);
    asyncStoppedThread_ = std::thread([this] {
        RunLoggingExceptions(outputSource, asyncStoppedThreadLine,
                             [this] { AsyncStoppedThread_(); });
    });
}

bool MidiOutput::ArmPlayback() {
    std::scoped_lock lock(outputMutex_);
    if (playbackArmed_) {
        return true;
    }
    if (primeBuffersInProgress_ || buffersNeedPriming_) {
        return false;
    }
    playbackArmed_ = true;
    threadManager_.Release();
    return true;
}

void MidiOutput::DisarmPlayback() {
    clock_.DisarmPlayback();
    {
        std::unique_lock parkLock(threadManager_.GetParkMutex(), std::defer_lock);
        std::unique_lock outputLock(outputMutex_, std::defer_lock);
        std::lock(parkLock, outputLock);
        playbackArmed_ = false;
        if (!threadManager_.GetIsParked() && queueThread_) {
            // Wake the queue thread if it waits for its buffer to need data; it then sees that
            // playback is disarmed and parks.
            mainBuffers_[fillBufferIndex_]->SetHasData(false);
            outputLock.unlock();
            threadManager_.WaitUntilParked(parkLock);
            parkLock.unlock();
            std::lock(parkLock, outputLock);
        }
        buffersNeedPriming_ = true;
    }
    notify::callbackDispatcher.Notify(notify::names::disarmedPlayback, nullptr);
}

void MidiOutput::PrepareForExit() {
    clock_.DisarmPlayback();
    std::scoped_lock lock(outputMutex_);
    playbackArmed_ = false;
}

void MidiOutput::QueueWaitForPlayback(const MidiQueueThread& caller) {
    std::unique_lock outputLock(outputMutex_, std::defer_lock);
    std::unique_lock releaseLock(threadManager_.GetReleaseMutex(), std::defer_lock);
    std::lock(outputLock, releaseLock);
    if (playbackArmed_) {
        return;
    }
    threadManager_.ReportParked();
    outputLock.unlock();
    // Checked under the release mutex: Join sets the exit request before it opens the gate
    // under this mutex, so either the request is seen here or the opening wakes the wait.
    if (!caller.ShouldRun()) {
        return;
    }
    threadManager_.WaitForRelease(releaseLock);
}

void MidiOutput::ExitThreads() {
    {
        std::scoped_lock lock(outputMutex_);
        if (threadsExited_) {
            return;
        }
        threadsExited_ = true;
        playbackArmed_ = false;
    }
    {
        std::scoped_lock lock(asyncStoppedMutex_);
        exitAsyncStopped_ = true;
    }
    notify::callbackDispatcher.RemoveCallbacksForTarget(this);
    if (!mainBuffers_.empty()) {
        // Releases a send step waiting for data.
        auto playBuffer = GetPlayBuffer();
        std::scoped_lock lock(playBuffer->GetMutex());
        playBuffer->SetHasData(true);
    }
    if (queueThread_) {
        queueThread_->Exit();
        queueThread_->Join();
    }
    asyncStoppedCondition_.notify_all();
    if (asyncStoppedThread_.joinable()) {
        asyncStoppedThread_.join();
    }
}

void MidiOutput::PrimeBuffers(std::unique_lock<std::recursive_mutex>& lock) {
    if (playbackArmed_) {
        kit::CoutBuffer() << "PrimeBuffers called with playback_ enabled." << kit::endl;
        kit::PrintStackTrace(20);
        throw std::logic_error("PrimeBuffers() must only be called when playback is stopped.");
    }
    primeBuffersInProgress_ = true;
    fillBufferIndex_ = 0;
    playBufferIndex_ = 0;

    lock.unlock();  // std::system_error when the caller's lock does not hold the output mutex
    {
        std::scoped_lock buffers(mainBuffers_[0]->GetMutex(), mainBuffers_[1]->GetMutex(),
                                 mainBuffers_[2]->GetMutex(), mainBuffers_[3]->GetMutex());
        for (int pass = 0; pass < bufferCount; ++pass) {
            auto buffer = GetFillBuffer();
            buffer->Reset();
            if (pass == 0) {
                buffer->SetIsFirstBuffer();
            }
            fillCallback_(*buffer);
            IncrementFillBufferIndex();
        }
    }
    lock.lock();
    primeBuffersInProgress_ = false;
    buffersNeedPriming_ = false;
}

std::shared_ptr<MidiBuffer> MidiOutput::GetFillBuffer() {
    std::scoped_lock lock(outputMutex_);
    return mainBuffers_.at(static_cast<std::size_t>(fillBufferIndex_));
}

std::shared_ptr<MidiBuffer> MidiOutput::GetPlayBuffer() {
    std::scoped_lock lock(outputMutex_);
    return mainBuffers_.at(static_cast<std::size_t>(playBufferIndex_));
}

int MidiOutput::GetFillBufferIndex() {
    std::scoped_lock lock(outputMutex_);
    return fillBufferIndex_;
}

int MidiOutput::GetPlayBufferIndex() {
    std::scoped_lock lock(outputMutex_);
    return playBufferIndex_;
}

bool MidiOutput::GetPrimeBuffersInProgress() {
    std::scoped_lock lock(outputMutex_);
    return primeBuffersInProgress_;
}

unsigned int MidiOutput::GetTickIndex() {
    std::scoped_lock lock(outputMutex_);
    return tickIndex_;
}

bool MidiOutput::PlaybackIsActive() {
    std::scoped_lock lock(outputMutex_);
    return playbackArmed_;
}

void MidiOutput::IncrementFillBufferIndex() {
    std::scoped_lock lock(outputMutex_);
    fillBufferIndex_ = (fillBufferIndex_ + 1) % bufferCount;
}

void MidiOutput::IncrementPlayBufferIndex() {
    std::scoped_lock lock(outputMutex_);
    playBufferIndex_ = (playBufferIndex_ + 1) % bufferCount;
}

void MidiOutput::Seek(unsigned int tickIndex) {
    std::scoped_lock lock(outputMutex_);
    tickIndex_ = tickIndex;
}

void MidiOutput::SetBpmAtTickIndex(double bpm, unsigned int tickIndex) {
    std::scoped_lock lock(outputMutex_);
    bpmByTick_[tickIndex] = bpm;
    tickIndex_ = tickIndex;
}

bool MidiOutput::GetBpmAtTickIndex(unsigned int tickIndex, double* bpm) {
    std::scoped_lock lock(outputMutex_);
    auto it = bpmByTick_.find(tickIndex);
    if (it == bpmByTick_.end()) {
        return false;
    }
    if (bpm != nullptr) {
        *bpm = it->second;
    }
    return true;
}

void MidiOutput::DoFillMidiBufferCallback(MidiBuffer& buffer, bool first) {
    buffer.Reset();
    if (first) {
        buffer.SetIsFirstBuffer();
    }
    fillCallback_(buffer);
}

void MidiOutput::DoDownbeatCallback(unsigned int tickIndex) {
    downbeatCallback_(tickIndex);
}

void MidiOutput::DoStoppedCallback() {
    stoppedCallback_();
}

void MidiOutput::DoClockIsActiveCallback() {
    clockIsActiveCallback_();
}

bool MidiOutput::DoCheckCaesuraCallback(unsigned int tickIndex) {
    return caesuraCheckCallback_(tickIndex);
}

void MidiOutput::DoTimeCodeCallback(double a, double b, double c) {
    TimeCodeCallback callback;
    {
        std::scoped_lock lock(outputMutex_);
        callback = timeCodeCallback_;
    }
    RunLoggingExceptions(outputSource, timeCodeCallbackLine, [&] { callback(a, b, c); });
}

void MidiOutput::SetTimeCodeCallback(TimeCodeCallback callback) {
    std::scoped_lock lock(outputMutex_);
    timeCodeCallback_ = std::move(callback);
}

void MidiOutput::SignalAsyncStoppedCallback() {
    {
        std::scoped_lock lock(asyncStoppedMutex_);
        ++pendingStops_;
    }
    asyncStoppedCondition_.notify_one();
}

void MidiOutput::AsyncStoppedThread_() {
    kit::threadNames.SetNameOfCurrentThread("MidiOutput::AsyncStoppedThread");
    std::unique_lock lock(asyncStoppedMutex_);
    while (true) {
        asyncStoppedCondition_.wait(lock,
                                    [this] { return exitAsyncStopped_ || pendingStops_ > 0; });
        if (exitAsyncStopped_) {
            return;
        }
        --pendingStops_;
        // The client may call back into the output (to prime again, say) from here, so no lock of
        // ours is held while it runs. A client that fails on one stop is still told of the next.
        lock.unlock();
        RunLoggingExceptions(outputSource, asyncStoppedThreadLine, [this] { DoStoppedCallback(); });
        lock.lock();
    }
}

void MidiOutput::SendSpecialBuffer_(const std::shared_ptr<MidiBuffer>& buffer,
                                    const char* operation) {
    std::scoped_lock lock(outputMutex_, buffer->GetMutex());
    try {
        GetPorts().SendMidiBuffer(*buffer);
    } catch (const InvalidVoiceEvent&) {
        LogInvalidVoiceEvent(operation);
    }
}

void MidiOutput::AllNotesOff() {
    SendSpecialBuffer_(allNotesOffBuffer_, "MidiOutput::AllNotesOff");
}

void MidiOutput::AllCCsOff() {
    SendSpecialBuffer_(allCCsOffBuffer_, "MidiOutput::AllCCsOff");
}

void MidiOutput::InjectSingleEvent_(std::uint8_t status, std::uint16_t trackKey, std::uint8_t data1,
                                    std::uint8_t data2) {
    std::scoped_lock lock(outputMutex_, oneShotBuffer_->GetMutex());
    try {
        oneShotBuffer_->Reset();
        oneShotBuffer_->AddEventToBuffer(
            static_cast<unsigned char>(trackKey >> 4),
            velt_midi::VoiceEvent(0, static_cast<std::uint8_t>(status | (trackKey & 0x0F)),
                                  trackKey, data1, data2));
        oneShotBuffer_->DoneAddingEventsToBuffer();
        GetPorts().SendMidiBuffer(*oneShotBuffer_);
    } catch (const InvalidVoiceEvent&) {
        LogInvalidVoiceEvent("MidiOutput::InjectSingleEvent");
    }
}

void MidiOutput::SendAllNotesOff(unsigned short trackKey) {
    InjectSingleEvent_(0xB0, trackKey, 123, 0);
    InjectSingleEvent_(0xB0, trackKey, 121, 0);
}

void MidiOutput::SetTrackVolume(unsigned short trackKey, unsigned char volume) {
    InjectSingleEvent_(0xB0, trackKey, 7, volume);
}

void MidiOutput::SetTrackPan(unsigned short trackKey, unsigned char pan) {
    InjectSingleEvent_(0xB0, trackKey, 10, pan);
}

void MidiOutput::SetTrackProgramId(unsigned short trackKey, unsigned char program) {
    InjectSingleEvent_(0xC0, trackKey, program, 0);
}

void MidiOutput::SetAllTracksVolume(const std::map<unsigned short, unsigned char>& volumes) {
    SetAllTracksCc_(volumes, 7);
}

void MidiOutput::SetAllTracksPan(const std::map<unsigned short, unsigned char>& pans) {
    SetAllTracksCc_(pans, 10);
}

void MidiOutput::SetAllTracksCc_(const std::map<unsigned short, unsigned char>& values,
                                 std::uint8_t controller) {
    std::unique_lock bufferLock(oneShotBuffer_->GetMutex());
    oneShotBuffer_->Reset();
    for (const auto& [trackKey, value] : values) {
        oneShotBuffer_->AddEventToBuffer(
            static_cast<unsigned char>(trackKey >> 4),
            velt_midi::VoiceEvent(0, static_cast<std::uint8_t>(0xB0 | (trackKey & 0x0F)), trackKey,
                                  controller, value));
    }
    oneShotBuffer_->DoneAddingEventsToBuffer();
    // The buffer's mutex stays held (it is recursive) so no other one-shot send can reset the
    // buffer before it leaves; the pair acquisition keeps the output-with-buffer order safe.
    std::scoped_lock lock(outputMutex_, oneShotBuffer_->GetMutex());
    GetPorts().SendMidiBuffer(*oneShotBuffer_);
}

void MidiOutput::InjectEvents(const std::vector<velt_midi::VoiceEvent>& events) {
    std::scoped_lock lock(outputMutex_, oneShotBuffer_->GetMutex());
    try {
        oneShotBuffer_->Reset();
        for (const auto& event : events) {
            oneShotBuffer_->AddEventToBuffer(event.port, event);
        }
        oneShotBuffer_->DoneAddingEventsToBuffer();
        GetPorts().SendMidiBuffer(*oneShotBuffer_);
    } catch (const InvalidVoiceEvent&) {
        LogInvalidVoiceEvent("MidiOutput::InjectEvents");
    }
}

void MidiOutput::SetAllTracksProgramId(const std::map<unsigned short, unsigned char>& programs) {
    std::scoped_lock lock(outputMutex_, oneShotBuffer_->GetMutex());
    try {
        oneShotBuffer_->Reset();
        for (const auto& [trackKey, program] : programs) {
            oneShotBuffer_->AddEventToBuffer(
                static_cast<unsigned char>(trackKey >> 4),
                velt_midi::VoiceEvent(0, static_cast<std::uint8_t>(0xC0 | (trackKey & 0x0F)),
                                      trackKey, program, 0));
        }
        oneShotBuffer_->DoneAddingEventsToBuffer();
        GetPorts().SendMidiBuffer(*oneShotBuffer_);
    } catch (const InvalidVoiceEvent&) {
        LogInvalidVoiceEvent("MidiOutput::SetAllTracksProgramId");
    }
}

void MidiOutput::SetGlobalReverb(float) {
    throw kit::NotImplementedError("Global Reverb Not Supported");
}
