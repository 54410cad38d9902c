#include "interfaces/notify.h"

#include <algorithm>
#include <exception>

#include "interfaces/kit.h"

namespace notify {

GuiDispatcher guiDispatcher;
CallbackDispatcher callbackDispatcher;

namespace names {
const std::string disarmedPlayback = "disarmedPlayback";
const std::string midiOutputDeviceLost = "midiOutputDeviceLost";
const std::string currentProgramIds = "currentProgramIds";
const std::string midiSourceConnected = "midiSourceConnected";
const std::string midiCommandLearned = "midiCommandLearned";
const std::string midiCommandPlay = "midiCommandPlay";
const std::string midiCommandPause = "midiCommandPause";
const std::string midiCommandStop = "midiCommandStop";
const std::string midiCommandNextSong = "midiCommandNextSong";
const std::string midiCommandPreviousSong = "midiCommandPreviousSong";
const std::string midiCommandNextMarker = "midiCommandNextMarker";
const std::string midiCommandPreviousMarker = "midiCommandPreviousMarker";
const std::string midiCommandContinue = "midiCommandContinue";
const std::string midiCommandContinuousMode = "midiCommandContinuousMode";
const std::string midiCommandConductBeat = "midiCommandConductBeat";
const std::string midiCommandNextPatch = "midiCommandNextPatch";
const std::string midiCommandPreviousPatch = "midiCommandPreviousPatch";
}  // namespace names

namespace {
void LogSinkFailure(const char* operation, const std::exception* error) {
    kit::CoutBuffer() << "WARNING: GUI sink threw in " << operation << ": "
                      << (error ? error->what() : "Unknown exception.") << kit::endl;
}

// Calls one operation of the installed sink outside the dispatcher's lock, so that a slow or
// re-entrant sink never blocks other threads' dispatches.
template <typename Call>
void Forward(const GuiDispatcher& dispatcher, const char* operation, Call call) {
    std::shared_ptr<GuiSink> sink = dispatcher.GetSink();
    if (!sink) {
        return;
    }
    try {
        call(*sink);
    } catch (const std::exception& error) {
        LogSinkFailure(operation, &error);
    } catch (...) {
        LogSinkFailure(operation, nullptr);
    }
}
}  // namespace

void GuiDispatcher::SetSink(std::shared_ptr<GuiSink> sink) {
    std::scoped_lock lock(mutex_);
    sink_ = std::move(sink);
}

std::shared_ptr<GuiSink> GuiDispatcher::GetSink() const {
    std::scoped_lock lock(mutex_);
    return sink_;
}

void GuiDispatcher::SendGuiDelayMessage(int milliseconds) {
    Forward(*this, "SendGuiDelayMessage", [&](GuiSink& s) { s.SendGuiDelayMessage(milliseconds); });
}
void GuiDispatcher::SendMidiClockDebugMessage(const std::string& text) {
    Forward(*this, "SendMidiClockDebugMessage",
            [&](GuiSink& s) { s.SendMidiClockDebugMessage(text); });
}
void GuiDispatcher::SendMtcActiveStateNotification(bool active) {
    Forward(*this, "SendMtcActiveStateNotification",
            [&](GuiSink& s) { s.SendMtcActiveStateNotification(active); });
}
void GuiDispatcher::SendMtcOutputPortNotification(int portIndex) {
    Forward(*this, "SendMtcOutputPortNotification",
            [&](GuiSink& s) { s.SendMtcOutputPortNotification(portIndex); });
}
void GuiDispatcher::SendMtcFrameRateNotification(const std::string& frameRate) {
    Forward(*this, "SendMtcFrameRateNotification",
            [&](GuiSink& s) { s.SendMtcFrameRateNotification(frameRate); });
}
void GuiDispatcher::SendMidiNotification() {
    Forward(*this, "SendMidiNotification", [&](GuiSink& s) { s.SendMidiNotification(); });
}
void GuiDispatcher::SendSourceConnected(int sourceIndex) {
    Forward(*this, "SendSourceConnected", [&](GuiSink& s) { s.SendSourceConnected(sourceIndex); });
}
void GuiDispatcher::SendMidiCommandCanceled(int commandId) {
    Forward(*this, "SendMidiCommandCanceled",
            [&](GuiSink& s) { s.SendMidiCommandCanceled(commandId); });
}
void GuiDispatcher::SendLearnedMIDICommand(int value) {
    Forward(*this, "SendLearnedMIDICommand", [&](GuiSink& s) { s.SendLearnedMIDICommand(value); });
}

void RecordingGuiSink::Record_(std::string operation, std::string argument) {
    std::scoped_lock lock(mutex_);
    messages_.push_back({std::move(operation), std::move(argument)});
}
void RecordingGuiSink::SendGuiDelayMessage(int milliseconds) {
    Record_("SendGuiDelayMessage", std::to_string(milliseconds));
}
void RecordingGuiSink::SendMidiClockDebugMessage(const std::string& text) {
    Record_("SendMidiClockDebugMessage", text);
}
void RecordingGuiSink::SendMtcActiveStateNotification(bool active) {
    Record_("SendMtcActiveStateNotification", active ? "true" : "false");
}
void RecordingGuiSink::SendMtcOutputPortNotification(int portIndex) {
    Record_("SendMtcOutputPortNotification", std::to_string(portIndex));
}
void RecordingGuiSink::SendMtcFrameRateNotification(const std::string& frameRate) {
    Record_("SendMtcFrameRateNotification", frameRate);
}
void RecordingGuiSink::SendMidiNotification() {
    Record_("SendMidiNotification", "");
}
void RecordingGuiSink::SendSourceConnected(int sourceIndex) {
    Record_("SendSourceConnected", std::to_string(sourceIndex));
}
void RecordingGuiSink::SendMidiCommandCanceled(int commandId) {
    Record_("SendMidiCommandCanceled", std::to_string(commandId));
}
void RecordingGuiSink::SendLearnedMIDICommand(int value) {
    Record_("SendLearnedMIDICommand", std::to_string(value));
}
std::vector<GuiMessage> RecordingGuiSink::GetMessages() const {
    std::scoped_lock lock(mutex_);
    return messages_;
}
void RecordingGuiSink::Clear() {
    std::scoped_lock lock(mutex_);
    messages_.clear();
}

std::uint64_t CallbackDispatcher::AddCallback(const std::string& name, void* target,
                                              Callback callback) {
    std::scoped_lock lock(mutex_);
    std::uint64_t id = nextId_++;
    registrations_.push_back(std::make_shared<Registration>(
        Registration{id, name, target, std::move(callback), false, {}}));
    return id;
}

void CallbackDispatcher::RemoveCallback(std::uint64_t id) {
    Remove_([id](const Registration& r) { return r.id == id; });
}

void CallbackDispatcher::RemoveCallbacksForTarget(void* target) {
    Remove_([target](const Registration& r) { return r.target == target; });
}

void CallbackDispatcher::Remove_(const std::function<bool(const Registration&)>& matches) {
    std::unique_lock lock(mutex_);
    std::vector<std::shared_ptr<Registration>> removed;
    std::erase_if(registrations_, [&](const std::shared_ptr<Registration>& r) {
        if (!matches(*r)) {
            return false;
        }
        r->removed = true;
        removed.push_back(r);
        return true;
    });
    // Wait out the calls already running elsewhere; Notify starts no new ones once `removed` is
    // set. A call on this thread is the caller's own stack frame and must not be waited for.
    const std::thread::id self = std::this_thread::get_id();
    callbackDone_.wait(lock, [&] {
        return std::all_of(removed.begin(), removed.end(), [self](const auto& r) {
            return std::all_of(r->active.begin(), r->active.end(),
                               [self](std::thread::id id) { return id == self; });
        });
    });
}

void CallbackDispatcher::Notify(const std::string& name, void* payload) {
    // Take the registrations under the lock, call them without it: a callback may register,
    // remove or notify again without deadlocking, and a slow callback blocks only its own thread.
    std::vector<std::shared_ptr<Registration>> matching;
    {
        std::scoped_lock lock(mutex_);
        for (const auto& registration : registrations_) {
            if (registration->name == name) {
                matching.push_back(registration);
            }
        }
    }
    const std::thread::id self = std::this_thread::get_id();
    for (const auto& registration : matching) {
        {
            std::scoped_lock lock(mutex_);
            if (registration->removed) {
                continue;
            }
            registration->active.push_back(self);
        }
        try {
            registration->callback(payload);
        } catch (const std::exception& error) {
            kit::CoutBuffer() << "WARNING: callback for " << name << " threw: " << error.what()
                              << kit::endl;
        } catch (...) {
            kit::CoutBuffer() << "WARNING: callback for " << name << " threw: Unknown exception."
                              << kit::endl;
        }
        {
            std::scoped_lock lock(mutex_);
            auto& active = registration->active;
            active.erase(std::find(active.begin(), active.end(), self));
        }
        callbackDone_.notify_all();
    }
}

std::size_t CallbackDispatcher::GetCallbackCount(const std::string& name) const {
    std::scoped_lock lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(registrations_.begin(), registrations_.end(),
                      [&name](const std::shared_ptr<Registration>& r) { return r->name == name; }));
}

}  // namespace notify

Directories directories;

namespace {
std::mutex showDirectoryMutex;
std::string& ShowDirectory() {
    static std::string directory;
    return directory;
}
}  // namespace

std::string Directories::GetShowDirectory() {
    std::scoped_lock lock(showDirectoryMutex);
    return ShowDirectory();
}

void Directories::SetShowDirectory(const std::string& directory) {
    std::scoped_lock lock(showDirectoryMutex);
    ShowDirectory() = directory;
}

void VeltLogException(const std::string& text, const std::string& source, int line) {
    std::string threadName = kit::threadNames.GetNameOfCurrentThread();
    kit::CoutBuffer buffer;
    buffer << "EXCEPTION: " << text << " (" << source << " line " << line << ")";
    if (!threadName.empty()) {
        buffer << " in thread " << threadName;
    }
    buffer << kit::endl;
}
