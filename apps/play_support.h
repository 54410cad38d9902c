// What the player program's two modes share: the main thread's wake-ups (statuses, log lines and
// stop signals handed over from other threads), the stop signals themselves, and the choice of an
// output device or a track from what the performer typed.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "apps/show_session.h"

namespace velt_play {

/// Hands what happens on other threads to the main thread, which alone draws, prints and calls
/// the session's verbs. Producers post and write one byte to a pipe (set an event, on Windows);
/// the main thread waits on it (and on standard input, in the interactive mode) and takes what
/// was posted.
///
/// Threads: any thread posts (the session's display and async-stopped threads through the status
/// listener, engine threads through the log sink, the signal thread); only the main thread waits
/// and takes. Locks: the queue mutex, around the queues only; the pipe is non-blocking, so a
/// producer never waits for the main thread.
class MainEvents {
  public:
    MainEvents();
    ~MainEvents();
    MainEvents(const MainEvents&) = delete;
    MainEvents& operator=(const MainEvents&) = delete;

    void PostStatus(const SessionStatus& status);
    void PostLogLine(std::string line);
    void PostSignal(int signalNumber);
    /// Only wakes the main thread (a producer with a queue of its own has posted to it).
    void PostWake();

    /// Blocks until something is posted, `inputFd` (when not -1) is readable, or the timeout
    /// passes. Returns whether `inputFd` is readable. On Windows `inputFd` 0 is the console's
    /// input, readable once a key with a character was pressed.
    bool Wait(int inputFd, std::chrono::milliseconds timeout);
    /// Every status posted since the last call, oldest first.
    std::deque<SessionStatus> TakeStatuses();
    std::vector<std::string> TakeLogLines();
    /// The first stop signal received, or 0.
    int StopSignal() const { return signal_.load(); }

  private:
    void Wake_();

#ifdef _WIN32
    void* wakeEvent_ = nullptr;  // auto-reset event
#else
    int readFd_ = -1;
    int writeFd_ = -1;
#endif
    std::mutex mutex_;
    std::deque<SessionStatus> statuses_;
    std::vector<std::string> logLines_;
    std::atomic<int> signal_{0};
};

/// SIGINT, SIGTERM and SIGHUP stop the program cleanly: construct this first in main, before any
/// thread exists. The signals are then blocked in every thread (each inherits the mask of the
/// thread that starts it), and one thread of this object takes them with sigwait and hands them
/// on; nothing runs in a signal handler. SIGPIPE is ignored: a closed output must not end the
/// program before it has silenced the device.
/// On Windows the console's Ctrl-C and Ctrl-Break arrive as SIGINT, closing the console window,
/// logging off or shutting down as SIGTERM, each on a thread the system starts for it.
class StopSignals {
  public:
    explicit StopSignals(std::function<void(int)> onSignal);
    /// Ends the signal thread (with a signal of its own) and joins it.
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

  private:
#ifndef _WIN32
    std::thread thread_;
#endif
};

/// The exit status for a stop by `signalNumber`: 128 + the number (130 for SIGINT, 143 for
/// SIGTERM).
inline int ExitStatusForSignal(int signalNumber) {
    return 128 + signalNumber;
}

/// The product names of the MIDI output devices, by device number.
std::vector<std::string> OutputDeviceNames();
/// The device that `spec` names: a device number, an exact name, or a part of exactly one name
/// (any case). Throws std::out_of_range, naming what was asked for, when there is none or more
/// than one.
std::string ResolveDevice(const std::string& spec);
/// The track that `spec` names: a track id, or the name (any case) or part of the name of exactly
/// one track. Throws std::out_of_range listing the tracks when there is none or several.
unsigned short ResolveTrack(const std::map<unsigned short, std::string>& tracks,
                            const std::string& spec);

/// The whole number `text` spells (a sign allowed, nothing else around it). Throws
/// std::invalid_argument naming `what` otherwise.
int ParseWholeNumber(const std::string& text, const std::string& what);
/// The finite decimal number `text` spells. Throws std::invalid_argument naming `what` otherwise.
double ParseDecimal(const std::string& text, const std::string& what);

/// "+3", "0", "-2".
std::string SignedText(int value);

}  // namespace velt_play
