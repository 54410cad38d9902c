#include "midi/mtc_thread.h"

#include <algorithm>
#include <cstdint>

#include "midi/Sources/logged_exceptions.h"

namespace {
constexpr const char* kSourceName = "midi/Sources/mtc_thread";

// Quarter frames from `from` to `to` (negative when `to` is earlier), the shorter way round the
// day: time code goes on from 23:59:59 to 00:00:00.
std::int64_t QuartersBetween(const MidiTimeCode& from, const MidiTimeCode& to) {
    MidiTimeCode lastOfDay(0.0, from.GetFrameRate());
    --lastOfDay;
    lastOfDay.SetQuarterFrameIndex(3);
    const auto day = static_cast<std::int64_t>(
        lastOfDay.GetDifferenceAsQuarterFrameCount(MidiTimeCode(0.0, from.GetFrameRate())) + 1);
    std::int64_t d = static_cast<std::int64_t>(to.GetDifferenceAsQuarterFrameCount(from)) % day;
    if (d < 0) {
        d += day;
    }
    return d > day / 2 ? d - day : d;
}
}  // namespace

MidiTimeCodeThread::MidiTimeCodeThread() {
    SetFrameRate(FrameRate::Fps30);
}

MidiTimeCodeThread::~MidiTimeCodeThread() = default;

void MidiTimeCodeThread::Start() {
    std::lock_guard lock(mutex_);
    isRunning_ = true;
    worker_ =
        std::thread([this] { RunLoggingExceptions(kSourceName, __LINE__, [this] { Run(); }); });
}

void MidiTimeCodeThread::Stop() {
    {
        std::lock_guard lock(mutex_);
        isRunning_ = false;
    }
    condition_.notify_all();
    StopTimer();
    worker_.join();
}

void MidiTimeCodeThread::SetFrameRate(FrameRate rate) {
    std::lock_guard lock(mutex_);
    frameRate_ = rate;
    runningTimeCode_ = MidiTimeCode(0.0, rate);
    messageTimeCode_ = runningTimeCode_;
    endTimeCode_ = runningTimeCode_;
    isLocated_ = false;
}

FrameRate MidiTimeCodeThread::GetFrameRate() {
    std::lock_guard lock(mutex_);
    return frameRate_;
}

void MidiTimeCodeThread::SendMidiTimeCode(const MidiTimeCode& timeCode) {
    std::lock_guard lock(mutex_);
    SendFullFrameMessage(timeCode.GetFullFrameMessage());
}

void MidiTimeCodeThread::SendMidiTimeCodeWithSeconds(double seconds) {
    std::lock_guard lock(mutex_);
    SendMidiTimeCode(MidiTimeCode(seconds, frameRate_));
}

void MidiTimeCodeThread::SendFutureQuarterFrameMessages(double interval) {
    {
        std::lock_guard lock(mutex_);
        endTime_ = GetCurrentTime() + interval;
        quarterFrameInterval_ = interval;
        isSendingFutureMessages_ = true;
    }
    condition_.notify_all();
}

void MidiTimeCodeThread::CancelFutureQuarterFrameMessages() {
    std::lock_guard lock(mutex_);
    isSendingFutureMessages_ = false;
    StopTimer();
}

QuarterFrameMessage MidiTimeCodeThread::GetNextQuarterFrameMessage() {
    const QuarterFrameMessage message =
        messageTimeCode_.GetQuarterFrameMessage(static_cast<unsigned char>(pieceIndex_));
    IncrementQuarterFrameMessageIndex();
    runningTimeCode_.IncrementQuarterFrame();
    return message;
}

void MidiTimeCodeThread::IncrementQuarterFrameMessageIndex() {
    if (pieceIndex_ != 7) {
        ++pieceIndex_;
        return;
    }
    pieceIndex_ = 0;
    ++messageTimeCode_;
    ++messageTimeCode_;
}

void MidiTimeCodeThread::QuarterFrameMessageTimerCallback() {
    std::lock_guard lock(mutex_);
    if (isSendingFutureMessages_) {
        SendQuarterFrameMessages({GetNextQuarterFrameMessage()});
    }
    if (QuartersBetween(runningTimeCode_, endTimeCode_) <= 0) {  // reached the end
        CancelFutureQuarterFrameMessages();
    }
}

void MidiTimeCodeThread::SetMidiTimeCodeInterval(double startSeconds, double endSeconds,
                                                 double durationSeconds) {
    CancelFutureQuarterFrameMessages();
    std::unique_lock lock(mutex_);
    const MidiTimeCode target(startSeconds, frameRate_);

    // Behind the start because the previous stretch was cut short: send what it still owed, at
    // once. Beyond its end the start is a jump, located by a full frame below.
    std::vector<QuarterFrameMessage> catchUp;
    while (isLocated_ && QuartersBetween(runningTimeCode_, target) > 0 &&
           QuartersBetween(runningTimeCode_, endTimeCode_) > 0) {
        catchUp.push_back(GetNextQuarterFrameMessage());
    }
    if (!catchUp.empty()) {
        SendQuarterFrameMessages(catchUp);
    }

    if (target != runningTimeCode_ || !isLocated_) {  // a jump, or the first stretch
        runningTimeCode_ = target;
        runningTimeCode_.SetQuarterFrameIndex(0);
        messageTimeCode_ = target;
        messageTimeCode_.SetQuarterFrameIndex(0);
        pieceIndex_ = 0;
        isLocated_ = true;
        SendFullFrameMessage(target.GetFullFrameMessage());
    }

    endTimeCode_ = MidiTimeCode(endSeconds, frameRate_);
    const std::int64_t n =
        std::max<std::int64_t>(0, QuartersBetween(runningTimeCode_, endTimeCode_));
    if (n >= 1) {
        SendQuarterFrameMessages({GetNextQuarterFrameMessage()});
    }
    if (n > 1) {
        SendFutureQuarterFrameMessages(durationSeconds / static_cast<double>(n));
    }
}
