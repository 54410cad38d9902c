// The MIDI Time Code generator: told, period by period, which stretch of time code to cover in
// how many seconds of real time, it emits that stretch's quarter frames evenly spread over the
// real time, and a full-frame message first whenever the time code jumps.
//
// The base holds the logic; a derived class supplies the timer, its clock and the output port
// (MidiTimeCodeThreadWin32 on the platform's MIDI output).
//
// Positions. runningTimeCode is the position just after the last quarter frame sent: sending a
// message advances it by one quarter frame. messageTimeCode is the time whose eight pieces are
// being sent (pieceIndex is the next one); it advances by two frames after piece 7, as one cycle
// of eight pieces spans two frames. A stretch ends when runningTimeCode reaches endTimeCode.
// "Behind" and the length of a stretch are measured the shorter way round the day, so the time
// code runs on from 23:59:59 to 00:00:00 without a jump.
//
// Spacing. A stretch of n quarter frames sends its first message at once and the other n - 1
// every duration / n seconds after it (the divisor k is n): the last message falls one spacing
// before the end of the stretch, which is the instant the next stretch's first message goes out.
// Contiguous stretches so give one even stream at the rate of the time code, with no pair of
// messages at the seam. (k = n - 1 would put the stretch's last message at its end, on top of
// the next stretch's first.)
//
// Threads: the derived timer's worker thread calls QuarterFrameMessageTimerCallback; a control
// thread (the controller's caller, the playback side) calls SetMidiTimeCodeInterval,
// SendMidiTimeCode* and SetFrameRate; the owner calls Start and Stop. Locks: one recursive mutex
// guards every field and is held while messages are sent (the derived class's send operations
// run under it and must not call back into the owner). It is recursive because
// CancelFutureQuarterFrameMessages is reached both from outside and from the timer callback.
// The derived class's timer waits on the condition variable with that mutex.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "midi/midi_time_code.h"

class MidiTimeCodeThread {
  public:
    /// 30 fps, time codes at zero, no worker thread.
    MidiTimeCodeThread();
    /// The derived class must have called Stop(): a worker still joinable here ends the process.
    virtual ~MidiTimeCodeThread();
    MidiTimeCodeThread(const MidiTimeCodeThread&) = delete;
    MidiTimeCodeThread& operator=(const MidiTimeCodeThread&) = delete;

    /// Chooses the output port (a device index of the platform's MIDI outputs).
    virtual void SetOutputPortIndex(unsigned int portIndex) = 0;

    /// Stores the rate and puts the three time codes at 0 s of the new rate; the next stretch
    /// starts with a full frame wherever it starts.
    void SetFrameRate(FrameRate rate);
    FrameRate GetFrameRate();

    /// Sends the full frame of `seconds` at the current rate (locates a receiver while
    /// stopped); the generator's own positions do not change.
    void SendMidiTimeCodeWithSeconds(double seconds);

    /// One period: time code from `startSeconds` to `endSeconds` is to be covered in
    /// `durationSeconds` of real time. Cancels what is left of the previous stretch; if the
    /// start lies in what that stretch still owed, sends those quarter frames at once (a
    /// receiver sees no gap); sends a full frame if the start still differs from where the
    /// generator stands (a jump: forward past the previous stretch's end or backward, or the
    /// first stretch after construction or a change of rate), then the stretch's first quarter
    /// frame at once and the rest on the timer (see Spacing).
    void SetMidiTimeCodeInterval(double startSeconds, double endSeconds, double durationSeconds);

  protected:
    /// Stops the timer: no callback for the stretch that was being sent. Called by Stop and by
    /// CancelFutureQuarterFrameMessages (with the mutex held in the latter).
    virtual void StopTimer() = 0;
    /// Writes quarter frames, in order. Called with the mutex held.
    virtual void SendQuarterFrameMessages(const std::vector<QuarterFrameMessage>& messages) = 0;
    /// Writes one full-frame message. Called with the mutex held.
    virtual void SendFullFrameMessage(const FullFrameMessage& message) = 0;
    /// The worker thread's body: the timer loop. Runs until GetIsRunning_() turns false.
    virtual void Run() = 0;
    /// Now on the derived class's clock, in seconds.
    virtual double GetCurrentTime() = 0;

    /// Starts the worker thread; an exception escaping Run is logged and ends only the thread.
    void Start();
    /// Clears the running flag, wakes and stops the timer, joins the worker. Not from the worker.
    void Stop();

    void SendMidiTimeCode(const MidiTimeCode& timeCode);
    /// The remaining messages of the stretch, one every `interval` seconds from now.
    void SendFutureQuarterFrameMessages(double interval);
    void CancelFutureQuarterFrameMessages();
    /// One timer tick: sends the next quarter frame of the stretch, and ends the stretch when it
    /// has reached its end.
    void QuarterFrameMessageTimerCallback();

    // For the derived timer, with the mutex held.
    std::recursive_mutex& GetMutex_() { return mutex_; }
    std::condition_variable_any& GetCondition_() { return condition_; }
    bool GetIsRunning_() const { return isRunning_; }
    bool GetIsSendingFutureMessages_() const { return isSendingFutureMessages_; }
    /// When the next message of the stretch is due, on GetCurrentTime's clock.
    double GetEndTime_() const { return endTime_; }
    double GetQuarterFrameInterval_() const { return quarterFrameInterval_; }

  private:
    QuarterFrameMessage GetNextQuarterFrameMessage();
    void IncrementQuarterFrameMessageIndex();

    std::recursive_mutex mutex_;
    std::condition_variable_any condition_;  // start, stop and new work
    FrameRate frameRate_ = FrameRate::Fps30;
    MidiTimeCode messageTimeCode_;
    MidiTimeCode runningTimeCode_;
    MidiTimeCode endTimeCode_;
    unsigned int pieceIndex_ = 0;
    double endTime_ = 0.0;
    double quarterFrameInterval_ = 0.0;
    bool isRunning_ = false;
    bool isSendingFutureMessages_ = false;
    bool isLocated_ = false;  // a full frame has told the receiver where runningTimeCode_ is
    std::thread worker_;
};
