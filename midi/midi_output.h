// The output pipeline: a ring of four buffers between the event streams and the devices, the
// thread that keeps it filled, arming and disarming, and the stopped notification.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "interfaces/song_data.h"
#include "midi/midi_buffer.h"
#include "midi/midi_clock.h"
#include "midi/midi_ports.h"

class MidiOutput;

/// The gate the queue thread parks at while playback is not armed.
///
/// Threads: the queue thread (reports parked, waits for release), the client's thread through
/// MidiOutput (opens the gate on arm, waits for the park on disarm). Locks: the release mutex and
/// the park mutex, each only around its own condition; `parked` is atomic because it is written
/// under one and read under the other.
class MidiThreadManager {
  public:
    MidiThreadManager() = default;
    MidiThreadManager(const MidiThreadManager&) = delete;
    MidiThreadManager& operator=(const MidiThreadManager&) = delete;

    /// Opens the gate: under the release mutex, parked = false and every waiter is woken.
    void Release();
    /// Under the park mutex, parked = true and one waiter of the parked condition is woken.
    void ReportParked();
    /// Waits once on the release condition; the caller holds `releaseLock` on GetReleaseMutex().
    void WaitForRelease(std::unique_lock<std::mutex>& releaseLock);
    /// Waits on the parked condition until the queue thread has reported parked; the caller
    /// holds `parkLock` on GetParkMutex().
    void WaitUntilParked(std::unique_lock<std::mutex>& parkLock);
    bool GetIsParked() const { return parked_.load(); }

    std::mutex& GetReleaseMutex() { return releaseMutex_; }
    std::mutex& GetParkMutex() { return parkMutex_; }

  private:
    std::atomic<bool> parked_{true};
    std::mutex releaseMutex_;
    std::condition_variable releaseCondition_;
    std::mutex parkMutex_;
    std::condition_variable parkedCondition_;
};

/// The filling thread ("midi_queue_run"): whenever the current fill buffer needs data and
/// playback is armed, it resets the buffer, hands it to the client's fill callback and advances
/// the fill index. It is the only thread that advances the fill index during playback. A fill
/// that throws is logged and its buffer counts as filled as far as it got, so playback goes on.
///
/// Its waits (for release, for data) are single waits, not loops over a predicate: any wake-up
/// sends it back through the exit and armed checks, which is how Join and DisarmPlayback shake it
/// loose by signalling alone.
class MidiQueueThread {
  public:
    /// Starts the thread at once; it parks until playback is armed.
    MidiQueueThread(MidiOutput& output, MidiThreadManager& manager);
    MidiQueueThread(const MidiQueueThread&) = delete;
    MidiQueueThread& operator=(const MidiQueueThread&) = delete;
    /// Joins the thread if Join was not called.
    ~MidiQueueThread();

    void Run();
    bool ShouldRun() const { return !exitRequested_.load(); }
    /// Requests the end; does not wake the thread (Join does).
    void Exit();
    /// Requests the end, wakes the thread wherever it waits, and joins it. A second call does
    /// nothing. From the thread itself it raises std::system_error.
    void Join();

  private:
    void ThreadEntry_();

    MidiOutput& output_;
    MidiThreadManager& manager_;
    std::atomic<bool> exitRequested_{false};
    std::atomic<bool> joined_{false};
    std::thread thread_;
};

/// The platform-neutral output: owns the ring of four main buffers ("Main Buffer 0".."3") and
/// three special buffers (all notes off, all controllers off, one-shot), arms, disarms and primes
/// playback, and reports "stopped" to the client from a thread of its own so that the client is
/// never called back while the output's locks are held.
///
/// Threads that enter: the client's thread (arm, disarm, prime, seek, inject, set-track
/// operations), the queue thread (fill), the clock's thread (the send step of the platform
/// subclass) and the async-stopped thread (stopped callback).
/// Lock order: the client mutex (taken first by the send step), then the output mutex together
/// with a buffer's mutex (always acquired as a pair, deadlock-free). DisarmPlayback takes the
/// thread manager's park mutex together with the output mutex.
///
/// Buffer cycle: empty (has-data false) -> filled by the fill callback, which ends by calling
/// SetHasData(true) on the buffer -> sent by the send step, which calls SetHasData(false) and so
/// wakes the filler -> filled again. The filler runs at most four periods ahead.
class MidiOutput {
  public:
    /// Fills one buffer with the next period's events and marks it filled (SetHasData(true)).
    /// Runs on the queue thread, or on the client's thread inside PrimeBuffers, always with the
    /// buffer's mutex held: a callback that takes locks of its own takes them after it.
    using FillCallback = std::function<void(MidiBuffer&)>;
    /// Told the tick of a sent period that starts a tick (after the display delay).
    using DownbeatCallback = std::function<void(unsigned int)>;
    /// Told that playback stopped; always on the async-stopped thread. An exception it throws is
    /// logged, and the next stop is reported as usual.
    using StoppedCallback = std::function<void()>;
    /// Called at the start of every clock period the send step handles.
    using ClockIsActiveCallback = std::function<void()>;
    /// Asked after each sent buffer whether playback must stop at its tick (true = stop).
    using CaesuraCheckCallback = std::function<bool(unsigned int)>;
    using TimeCodeCallback = std::function<void(double, double, double)>;

    static constexpr int bufferCount = 4;
    /// Capacity, in events per port, of every buffer the output creates.
    static constexpr unsigned short bufferCapacity = 65535;

    MidiOutput(FillCallback fill, DownbeatCallback downbeat, StoppedCallback stopped,
               ClockIsActiveCallback clockIsActive, CaesuraCheckCallback caesuraCheck,
               MidiClock& clock, std::recursive_mutex* clientMutex);
    MidiOutput(const MidiOutput&) = delete;
    MidiOutput& operator=(const MidiOutput&) = delete;
    /// Ends the threads if ExitThreads was not called (a subclass whose GetPorts is gone by then
    /// must call ExitThreads in its own destructor).
    virtual ~MidiOutput();

    virtual void CreateSynthOutput() = 0;
    virtual void CreateAudioUnitOutput(const velt_midi::VoiceData& voiceTracks) = 0;
    virtual void CreateKeysOutput() = 0;
    /// Disarms the clock, parks the queue thread, requires priming again and posts
    /// notify::names::disarmedPlayback. Must not be called from the queue thread.
    virtual void DisarmPlayback();
    virtual void ResetMidiOutput() {}
    virtual void DecreaseGuiDelay() {}
    virtual void IncreaseGuiDelay() {}
    virtual std::vector<std::string> GetTrackManuAndSubType() { return {}; }
    /// Always throws kit::NotImplementedError("Global Reverb Not Supported").
    virtual void SetGlobalReverb(float level);
    virtual MidiOutputPorts& GetPorts() = 0;

    /// Builds the four main buffers and the three special buffers (registering each with the
    /// ports, filling the two panic buffers once), then starts the queue thread and the
    /// async-stopped thread. Call once, from the client's thread.
    void Initialize(unsigned char portCount);
    /// Arms the output: true if already armed, or if the ring is primed (then the queue thread is
    /// released); false while priming is in progress or needed.
    bool ArmPlayback();
    /// Disarms the clock, then clears the armed flag.
    void PrepareForExit();
    /// Ends the queue and async-stopped threads and removes this output's host callbacks. Blocks
    /// until both threads have ended; a second call does nothing.
    void ExitThreads();
    /// Fills all four main buffers through the fill callback, the first marked first, and leaves
    /// both indices at 0. `lock` must hold the output mutex (else std::system_error); it is
    /// released while the buffers are filled. Throws std::logic_error while armed.
    void PrimeBuffers(std::unique_lock<std::recursive_mutex>& lock);

    std::shared_ptr<MidiBuffer> GetFillBuffer();
    std::shared_ptr<MidiBuffer> GetPlayBuffer();
    int GetFillBufferIndex();
    int GetPlayBufferIndex();
    bool GetPrimeBuffersInProgress();
    unsigned int GetTickIndex();
    bool PlaybackIsActive();
    void IncrementFillBufferIndex();
    void IncrementPlayBufferIndex();
    void Seek(unsigned int tickIndex);
    void SetBpmAtTickIndex(double bpm, unsigned int tickIndex);
    /// The tempo at which the given tick was sent, if it was.
    bool GetBpmAtTickIndex(unsigned int tickIndex, double* bpm);
    std::recursive_mutex& GetMutex() { return outputMutex_; }

    void DoFillMidiBufferCallback(MidiBuffer& buffer, bool first);
    void DoDownbeatCallback(unsigned int tickIndex);
    void DoStoppedCallback();
    void DoClockIsActiveCallback();
    bool DoCheckCaesuraCallback(unsigned int tickIndex);
    /// Calls the time-code callback; never lets an exception out (it is logged).
    void DoTimeCodeCallback(double a, double b, double c);
    void SetTimeCodeCallback(TimeCodeCallback callback);
    /// Wakes the async-stopped thread, which then calls the stopped callback once.
    void SignalAsyncStoppedCallback();

    /// Sends the prepared all-notes-off (respectively reset-all-controllers) buffer.
    void AllNotesOff();
    void AllCCsOff();
    /// Controller 123 then controller 121, value 0, on the track's channel: two one-shot sends.
    void SendAllNotesOff(unsigned short trackKey);
    void SetTrackVolume(unsigned short trackKey, unsigned char volume);
    void SetTrackPan(unsigned short trackKey, unsigned char pan);
    void SetTrackProgramId(unsigned short trackKey, unsigned char program);
    /// One one-shot packet for the whole map: controller 7 (10) per track, ascending key order.
    void SetAllTracksVolume(const std::map<unsigned short, unsigned char>& volumes);
    void SetAllTracksPan(const std::map<unsigned short, unsigned char>& pans);
    void SetAllTracksProgramId(const std::map<unsigned short, unsigned char>& programs);
    /// The events, in order, as one one-shot packet per port (each event's track id picks its
    /// port and channel). For a host that releases notes itself, for instance when it stops.
    void InjectEvents(const std::vector<velt_midi::VoiceEvent>& events);
    /// Does nothing on this platform.
    void MidiRestart() {}

    /// Used by the queue thread: parks it while playback is not armed, returns at once otherwise
    /// (or when `caller` has been asked to exit).
    void QueueWaitForPlayback(const MidiQueueThread& caller);
    MidiClock& GetClock() { return clock_; }
    std::recursive_mutex* GetClientMutex() { return clientMutex_; }

  protected:
    /// Creates one buffer; CreateMidiBuffer unless a subclass (a test) supplies another kind.
    virtual std::shared_ptr<MidiBuffer> CreateBuffer(unsigned char portCount,
                                                     unsigned short capacity,
                                                     const std::string& name);

  private:
    void InjectSingleEvent_(std::uint8_t status, std::uint16_t trackKey, std::uint8_t data1,
                            std::uint8_t data2);
    void SetAllTracksCc_(const std::map<unsigned short, unsigned char>& values,
                         std::uint8_t controller);
    void SendSpecialBuffer_(const std::shared_ptr<MidiBuffer>& buffer, const char* operation);
    void AsyncStoppedThread_();

    std::recursive_mutex outputMutex_;
    FillCallback fillCallback_;
    DownbeatCallback downbeatCallback_;
    StoppedCallback stoppedCallback_;
    ClockIsActiveCallback clockIsActiveCallback_;
    CaesuraCheckCallback caesuraCheckCallback_;
    TimeCodeCallback timeCodeCallback_;
    MidiClock& clock_;
    std::recursive_mutex* clientMutex_;

    std::vector<std::shared_ptr<MidiBuffer>> mainBuffers_;
    std::shared_ptr<MidiBuffer> allNotesOffBuffer_;
    std::shared_ptr<MidiBuffer> allCCsOffBuffer_;
    std::shared_ptr<MidiBuffer> oneShotBuffer_;

    int playBufferIndex_ = 0;
    int fillBufferIndex_ = 0;
    bool playbackArmed_ = false;
    std::unordered_map<unsigned int, double> bpmByTick_;
    unsigned int tickIndex_ = 0;

    // The async-stopped thread waits for `pendingStops_` or `exitAsyncStopped_` under its own
    // mutex, so a signal given while it is busy in the stopped callback is not lost.
    bool exitAsyncStopped_ = false;
    int pendingStops_ = 0;
    std::mutex asyncStoppedMutex_;
    std::condition_variable asyncStoppedCondition_;
    std::thread asyncStoppedThread_;

    bool primeBuffersInProgress_ = false;
    bool buffersNeedPriming_ = true;
    bool threadsExited_ = false;
    MidiThreadManager threadManager_;
    std::shared_ptr<MidiQueueThread> queueThread_;
};
