// Host notification services of the core library `velt_core`: typed messages to the user
// interface (GuiDispatcher) and named notifications with an untyped payload (CallbackDispatcher),
// the show directory, and the logging of exceptions that reach the top of an engine thread.
//
// All of these are process-wide objects that exist before any engine object is constructed and
// after the last one is destroyed, and are safe to call from any thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace notify {

// ---------------------------------------------------------------------------------------------
// Typed messages to the user interface

/// The receiving side of GuiDispatcher, implemented by a host (or a test). Calls arrive on
/// whatever engine thread posted them; an implementation must be thread-safe and must not throw.
class GuiSink {
  public:
    virtual ~GuiSink() = default;
    virtual void SendGuiDelayMessage(int milliseconds) = 0;
    virtual void SendMidiClockDebugMessage(const std::string& text) = 0;
    virtual void SendMtcActiveStateNotification(bool active) = 0;
    virtual void SendMtcOutputPortNotification(int portIndex) = 0;
    virtual void SendMtcFrameRateNotification(const std::string& frameRate) = 0;
    virtual void SendMidiNotification() = 0;
    virtual void SendSourceConnected(int sourceIndex) = 0;
    virtual void SendMidiCommandCanceled(int commandId) = 0;
    /// value = command id × 65536 + status × 256 + data byte.
    virtual void SendLearnedMIDICommand(int value) = 0;
};

/// Forwards every call to the installed sink; with no sink installed a call is dropped.
/// Fire-and-forget: nothing returns a value or throws into the engine (a throwing sink is caught
/// and the exception logged).
class GuiDispatcher {
  public:
    /// Installs the sink (shared so that it outlives calls in flight); null removes it.
    void SetSink(std::shared_ptr<GuiSink> sink);
    std::shared_ptr<GuiSink> GetSink() const;

    void SendGuiDelayMessage(int milliseconds);
    void SendMidiClockDebugMessage(const std::string& text);
    void SendMtcActiveStateNotification(bool active);
    void SendMtcOutputPortNotification(int portIndex);
    void SendMtcFrameRateNotification(const std::string& frameRate);
    void SendMidiNotification();
    void SendSourceConnected(int sourceIndex);
    void SendMidiCommandCanceled(int commandId);
    void SendLearnedMIDICommand(int value);

  private:
    mutable std::mutex mutex_;
    std::shared_ptr<GuiSink> sink_;
};

/// One recorded GuiDispatcher call: the operation's name and its argument as text ("" for none).
struct GuiMessage {
    std::string operation;
    std::string argument;
    bool operator==(const GuiMessage&) const = default;
};

/// A sink that records every call in order, for tests. Thread-safe.
class RecordingGuiSink : public GuiSink {
  public:
    void SendGuiDelayMessage(int milliseconds) override;
    void SendMidiClockDebugMessage(const std::string& text) override;
    void SendMtcActiveStateNotification(bool active) override;
    void SendMtcOutputPortNotification(int portIndex) override;
    void SendMtcFrameRateNotification(const std::string& frameRate) override;
    void SendMidiNotification() override;
    void SendSourceConnected(int sourceIndex) override;
    void SendMidiCommandCanceled(int commandId) override;
    void SendLearnedMIDICommand(int value) override;

    std::vector<GuiMessage> GetMessages() const;
    void Clear();

  private:
    void Record_(std::string operation, std::string argument);
    mutable std::mutex mutex_;
    std::vector<GuiMessage> messages_;
};

// ---------------------------------------------------------------------------------------------
// Named notifications

/// Delivers named notifications to the callbacks a host registered for them.
///
/// Threads: any. Locks: its own mutex, held only while the registrations are read or changed,
/// never while a callback runs, so that a callback may register, remove or notify again.
///
/// Removal is a barrier: once RemoveCallback or RemoveCallbacksForTarget returns, the removed
/// callbacks are not running on any other thread and will not be called again, so the target may
/// be destroyed. To give that promise the removal waits for calls of those callbacks that are
/// running on other threads (a call running on the removing thread itself, i.e. a callback that
/// removes itself, is not waited for). Hence: do not remove callbacks while holding a lock that
/// one of them takes, and a callback must not remove another target's callbacks while that
/// target's callbacks may be removing this one's.
class CallbackDispatcher {
  public:
    using Callback = std::function<void(void* payload)>;

    /// Registers `callback` for notifications named `name`, on behalf of `target` (the object to
    /// remove it with later). Returns an id unique for this dispatcher.
    std::uint64_t AddCallback(const std::string& name, void* target, Callback callback);
    /// Removes one registration by id; unknown ids are ignored. May block (see the class).
    void RemoveCallback(std::uint64_t id);
    /// Removes every callback registered with the given target. May block (see the class).
    void RemoveCallbacksForTarget(void* target);
    /// Delivers the notification to every callback registered for `name` when the call began, in
    /// registration order, synchronously on the calling thread; a callback removed meanwhile is
    /// skipped. The payload is valid only during the call. A callback that throws is logged and
    /// does not stop delivery to the others.
    void Notify(const std::string& name, void* payload);
    /// The number of callbacks registered for `name`.
    std::size_t GetCallbackCount(const std::string& name) const;

  private:
    // One registration. `active` lists the threads now running its callback (a thread twice when
    // it re-enters); `removed` is set under the mutex when it is taken out, after which no new
    // call of it starts.
    struct Registration {
        std::uint64_t id;
        std::string name;
        void* target;
        Callback callback;
        bool removed = false;
        std::vector<std::thread::id> active;
    };
    void Remove_(const std::function<bool(const Registration&)>& matches);

    mutable std::mutex mutex_;
    std::condition_variable callbackDone_;
    std::uint64_t nextId_ = 1;
    std::vector<std::shared_ptr<Registration>> registrations_;
};

extern GuiDispatcher guiDispatcher;
extern CallbackDispatcher callbackDispatcher;

/// Notification names posted by the engine. Their values belong to the host's vocabulary; the
/// engine passes these constants, never literals.
namespace names {
extern const std::string disarmedPlayback;
/// The connected MIDI output device went away; payload: const std::string* with its name.
extern const std::string midiOutputDeviceLost;
extern const std::string currentProgramIds;
extern const std::string midiSourceConnected;
extern const std::string midiCommandLearned;
extern const std::string midiCommandPlay;
extern const std::string midiCommandPause;
extern const std::string midiCommandStop;
extern const std::string midiCommandNextSong;
extern const std::string midiCommandPreviousSong;
extern const std::string midiCommandNextMarker;
extern const std::string midiCommandPreviousMarker;
extern const std::string midiCommandContinue;
extern const std::string midiCommandContinuousMode;
extern const std::string midiCommandConductBeat;
extern const std::string midiCommandNextPatch;
extern const std::string midiCommandPreviousPatch;
}  // namespace names

}  // namespace notify

// ---------------------------------------------------------------------------------------------
// Show directory

/// Where the loaded show lives; settings files of a show are placed in it. Thread-safe.
class Directories {
  public:
    /// The directory of the loaded show ("" before the host sets one). Static because the engine
    /// calls it as Directories::GetShowDirectory().
    static std::string GetShowDirectory();
    static void SetShowDirectory(const std::string& directory);
};

extern Directories directories;

/// Writes an exception that reached the top of an engine thread to the log, as one line:
/// "EXCEPTION: <text> (<source> line <line>)", followed by " in thread <name>" when the thread
/// has a name.
void VeltLogException(const std::string& text, const std::string& source, int line);
