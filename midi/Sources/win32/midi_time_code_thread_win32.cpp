#include "midi/win32/midi_time_code_thread_win32.h"

#include <array>
#include <cmath>

#include "interfaces/kit.h"
#include "midi/Sources/logged_exceptions.h"
#include "midi/win32/midi_device_info.h"

namespace {
constexpr const char* kSourceName = "midi/Sources/win32/midi_time_code_thread_win32";
constexpr std::chrono::nanoseconds kSpin{200'000};
// Sleeping on the condition variable ends this long before a deadline; the rest is the
// platform's precise wait (not interruptible, so kept short).
constexpr std::chrono::nanoseconds kCoarseMargin{2'000'000};
// A full frame the service has not handed back by then is taken back with a reset.
constexpr std::chrono::seconds kLongMessageLimit{1};

}  // namespace

void MidiTimeCodeThreadWin32::NoteSendResult_(const char* action, MMRESULT result) {
    if (result == MMSYSERR_NOERROR) {
        sendFailing_ = false;
    } else if (!sendFailing_) {  // once per run of failures: a lost port fails every message
        sendFailing_ = true;
        kit::CoutBuffer() << "WARNING: MidiTimeCodeThreadWin32 " << action
                          << " failed: " << GetMidiErrorAsString(result) << kit::endl;
    }
}

MidiTimeCodeThreadWin32::Timing MidiTimeCodeThreadWin32::PreciseTiming() {
    return Timing{[] { return static_cast<std::int64_t>(VeltPreciseTimeNow()); },
                  [](std::int64_t deadline) { VeltPreciseWaitUntil(deadline, kSpin.count()); },
                  kCoarseMargin, true};
}

MidiTimeCodeThreadWin32::MidiTimeCodeThreadWin32() : MidiTimeCodeThreadWin32(PreciseTiming()) {}

MidiTimeCodeThreadWin32::MidiTimeCodeThreadWin32(Timing timing) : timing_(std::move(timing)) {
    Start();  // last: the worker runs Run(), which needs every field above
}

MidiTimeCodeThreadWin32::~MidiTimeCodeThreadWin32() {
    Stop();
    std::lock_guard lock(GetMutex_());
    ClosePort_();
}

double MidiTimeCodeThreadWin32::GetCurrentTime() {
    return static_cast<double>(timing_.now()) * 1e-9;
}

void MidiTimeCodeThreadWin32::StopTimer() {
    {
        std::lock_guard lock(GetMutex_());
        ++generation_;
    }
    GetCondition_().notify_all();
}

void MidiTimeCodeThreadWin32::Run() {
    kit::threadNames.SetNameOfCurrentThread("mtc_generator");
    if (timing_.timeCritical &&
        !SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL)) {
        kit::CoutBuffer() << "WARNING: MidiTimeCodeThreadWin32 runs at normal priority, "
                          << "SetThreadPriority error " << GetLastError() << kit::endl;
    }
    std::unique_lock lock(GetMutex_());
    std::uint64_t stretch = generation_ - 1;  // none yet
    std::int64_t first = 0;
    double intervalNs = 0.0;
    std::uint64_t sent = 0;  // future messages of this stretch sent so far
    while (GetIsRunning_()) {
        if (!GetIsSendingFutureMessages_()) {
            GetCondition_().wait(lock);
            continue;
        }
        if (stretch != generation_) {
            stretch = generation_;
            first = std::llround(GetEndTime_() * 1e9);
            intervalNs = GetQuarterFrameInterval_() * 1e9;
            sent = 0;
        }
        const std::int64_t deadline = first + std::llround(static_cast<double>(sent) * intervalNs);
        if (!WaitForDeadline_(lock, deadline, stretch)) {
            continue;
        }
        RunLoggingExceptions(kSourceName, __LINE__, [this] { QuarterFrameMessageTimerCallback(); });
        ++sent;
    }
}

bool MidiTimeCodeThreadWin32::WaitForDeadline_(std::unique_lock<std::recursive_mutex>& lock,
                                               std::int64_t deadline, std::uint64_t generation) {
    const auto stopped = [&] { return !GetIsRunning_() || generation_ != generation; };
    while (!stopped()) {
        const std::chrono::nanoseconds remaining{deadline - timing_.now()};
        if (remaining <= timing_.coarseMargin) {
            lock.unlock();
            timing_.waitUntil(deadline);
            lock.lock();
            return !stopped() && GetIsSendingFutureMessages_();
        }
        GetCondition_().wait_for(lock, remaining - timing_.coarseMargin);
    }
    return false;
}

void MidiTimeCodeThreadWin32::SetOutputPortIndex(unsigned int portIndex) {
    std::lock_guard lock(GetMutex_());
    if (port_ != nullptr && portIndex_ == portIndex) {
        return;
    }
    ClosePort_();
    const MMRESULT result =
        midiOutOpen(&port_, portIndex, reinterpret_cast<DWORD_PTR>(&ServiceCallback_),
                    reinterpret_cast<DWORD_PTR>(this), CALLBACK_FUNCTION);
    if (result != MMSYSERR_NOERROR) {
        port_ = nullptr;
        throw MidiPortError(kit::format("%s line %d: %s caused error %d, %s.", kSourceName,
                                        __LINE__, "calling midiOutOpen", static_cast<int>(result),
                                        GetMidiErrorAsString(result).c_str()));
    }
    portIndex_ = portIndex;
}

std::optional<unsigned int> MidiTimeCodeThreadWin32::GetOutputPortIndex() {
    std::lock_guard lock(GetMutex_());
    return portIndex_;
}

bool MidiTimeCodeThreadWin32::WaitUntilStretchSent(std::chrono::milliseconds limit) {
    std::unique_lock lock(GetMutex_());
    return GetCondition_().wait_for(lock, limit, [this] { return !GetIsSendingFutureMessages_(); });
}

void MidiTimeCodeThreadWin32::ClosePort_() {
    if (port_ != nullptr) {
        // No reset: it would send notes off to a receiver that only takes time code, and no
        // full frame is ever left with the service (each send waits for its buffer).
        midiOutClose(port_);
        port_ = nullptr;
    }
    portIndex_.reset();
}

void MidiTimeCodeThreadWin32::SendQuarterFrameMessages(
    const std::vector<QuarterFrameMessage>& messages) {
    if (port_ == nullptr) {
        return;
    }
    for (const QuarterFrameMessage& message : messages) {
        const DWORD word = message.Get()[0] | (DWORD{message.Get()[1]} << 8);
        NoteSendResult_("midiOutShortMsg", midiOutShortMsg(port_, word));
    }
}

void MidiTimeCodeThreadWin32::SendFullFrameMessage(const FullFrameMessage& message) {
    if (port_ == nullptr) {
        return;
    }
    std::array<char, FullFrameMessage::kSize> bytes;
    std::copy(message.Get(), message.Get() + bytes.size(), bytes.begin());
    MIDIHDR header{};
    header.lpData = bytes.data();
    header.dwBufferLength = static_cast<DWORD>(bytes.size());
    header.dwBytesRecorded = header.dwBufferLength;
    MMRESULT result = midiOutPrepareHeader(port_, &header, sizeof header);
    NoteSendResult_("midiOutPrepareHeader", result);
    if (result != MMSYSERR_NOERROR) {
        return;
    }
    {
        std::lock_guard done(completionMutex_);
        longMessageDone_ = false;
    }
    result = midiOutLongMsg(port_, &header, sizeof header);
    NoteSendResult_("midiOutLongMsg", result);
    if (result == MMSYSERR_NOERROR) {
        std::unique_lock done(completionMutex_);
        if (!completion_.wait_for(done, kLongMessageLimit, [this] { return longMessageDone_; })) {
            done.unlock();
            kit::CoutBuffer() << "WARNING: MidiTimeCodeThreadWin32 full frame not returned; "
                                 "resetting the port"
                              << kit::endl;
            midiOutReset(port_);
        }
    }
    midiOutUnprepareHeader(port_, &header, sizeof header);
}

void CALLBACK MidiTimeCodeThreadWin32::ServiceCallback_(HMIDIOUT, UINT message, DWORD_PTR instance,
                                                        DWORD_PTR, DWORD_PTR) {
    if (message != MOM_DONE) {
        return;
    }
    auto* self = reinterpret_cast<MidiTimeCodeThreadWin32*>(instance);
    {
        std::lock_guard done(self->completionMutex_);
        self->longMessageDone_ = true;
    }
    self->completion_.notify_all();
}
