// MIDI output handles of the POSIX MIDI service: plain sends, long messages and streams.
//
// Each open handle is an OutputHandle with one service thread. The service thread plays the
// stream buffers in queue order at their delta times, sends queued long messages, and makes
// every MOM_DONE / MOM_POSITIONCB callback, in the order the events happened, with no lock held.
// Callers of the midiOut*/midiStream* functions only change the queues under the handle's mutex;
// the calls that must return buffers (stop, reset, close) queue the callbacks for the service
// thread and wait until it has made them.
//
// A device can go away under an open handle (a virtual device destroyed, a JACK destination
// gone): its Send then answers MIDIERR_NODEVICE. The first time a stream event meets that answer
// the handle is lost: the rest of that packet is not played, it and every queued packet come
// back with MOM_DONE as a stop would hand them back, and from then on midiStreamOut and
// midiOutLongMsg refuse with MIDIERR_NODEVICE, so the sender learns of the loss from the next
// call it makes. Stop, restart, unprepare and close keep working, so the owner can tidy up.
//
// Stream time: each event is due its delta time after the event before it, on deadlines computed
// from the previous deadline (never from when an event actually went out, so lateness does not
// add up). A packet's first delta counts from when the packet was queued, or from the previous
// packet's last deadline when that is later: a sender that queues one packet per period and
// writes each event's offset inside it gets every event at its offset from the packet's start,
// and packets queued ahead of time simply follow one another. Time the stream spends paused
// does not count; a stopped stream's time starts again at the restart.
//
// Locks: the handle table mutex (only to find, add or remove a handle; never held while a
// handle's mutex is taken), then a handle's mutex. A port's own mutex is taken inside Send with
// no handle mutex held.
#ifdef __linux__
#include <sys/prctl.h>
#endif

#include <algorithm>
#include <array>
#include <bitset>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "kernel.h"
#include "midi_service.h"

namespace velt_platform::detail {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr DWORD kDefaultTimeDivision = 96;  // ticks per quarter note
constexpr DWORD kDefaultTempo = 500000;     // microseconds per quarter note
constexpr DWORD kShortEventBytes = 12;      // delta, stream id, event
constexpr BYTE kControlChange = 0xB0;
constexpr BYTE kAllNotesOff = 123;

// The header must reach dwOffset to be prepared; streams need the whole header.
constexpr UINT kMinimumPrepareSize = offsetof(MIDIHDR, dwOffset);

void MarkDone(LPMIDIHDR header) {
    header->dwFlags = (header->dwFlags & ~MHDR_INQUEUE) | MHDR_DONE;
}

// Notes turned on through a handle and not yet off, so that stop and reset can release them.
class SoundingNotes {
  public:
    void Follow(std::span<const BYTE> message) {
        if (message.size() < 3) {
            return;
        }
        const BYTE kind = message[0] & 0xF0;
        const BYTE channel = message[0] & 0x0F;
        const BYTE key = message[1] & 0x7F;
        if (kind == 0x90 && message[2] != 0) {
            on_[channel].set(key);
        } else if (kind == 0x80 || kind == 0x90) {
            on_[channel].reset(key);
        }
    }

    // Note-off messages (velocity 0x40) for every sounding note, which are then forgotten.
    std::vector<Bytes> TakeNoteOffs() {
        std::vector<Bytes> offs;
        for (BYTE channel = 0; channel < 16; ++channel) {
            for (BYTE key = 0; key < 128; ++key) {
                if (on_[channel].test(key)) {
                    offs.push_back({static_cast<BYTE>(0x80 | channel), key, 0x40});
                }
            }
            on_[channel].reset();
        }
        return offs;
    }

  private:
    std::array<std::bitset<128>, 16> on_{};
};

// Work for the service thread besides playing: callbacks to make and notes to release, in order.
struct Notice {
    enum class Kind { Callback, NotesOff, NotesOffAndAllNotesOff };
    Kind kind = Kind::Callback;
    UINT message = 0;
    LPMIDIHDR header = nullptr;
};

struct QueuedPacket {
    LPMIDIHDR header = nullptr;
    PacketTicket ticket;
    DWORD offset = 0;                  // next event to play
    SteadyClock::time_point queuedAt;  // its first delta counts from here at the earliest
    bool started = false;
    std::optional<SteadyClock::time_point> completionDue;
};

class OutputHandle {
  public:
    OutputHandle(std::shared_ptr<OutputPort> port, bool isStream, CallbackTarget callback)
        : port_(std::move(port)), isStream_(isStream), callback_(callback) {}

    OutputHandle(const OutputHandle&) = delete;
    OutputHandle& operator=(const OutputHandle&) = delete;

    // A handle still open when the handle table goes (process exit) lets go of its device, whose
    // threads may outlive this object otherwise.
    ~OutputHandle() {
        bool open = false;
        {
            std::scoped_lock lock(mutex_);
            open = !closed_;
            closed_ = true;
        }
        StopThread_();
        if (open) {
            port_->Close();
        }
    }

    void Start() {
        service_ =
            std::thread([this] { RunReportingFailure("MIDI output service", [this] { Run_(); }); });
    }

    bool IsStream() const { return isStream_; }
    const std::shared_ptr<OutputPort>& Port() const { return port_; }
    void Notify(UINT message) const { callback_.Invoke(this, message, 0, 0); }

    MMRESULT ShortMsg(DWORD packed) {
        Bytes message;
        {
            std::scoped_lock lock(mutex_);
            if (closed_) {
                return MMSYSERR_INVALHANDLE;
            }
            message = UnpackShortMessage(packed, plainRunningStatus_);
            if (message.empty()) {
                return MMSYSERR_INVALPARAM;
            }
            sounding_.Follow(message);
        }
        return port_->Send(message, std::nullopt);
    }

    MMRESULT LongMsg(LPMIDIHDR header) {
        std::scoped_lock lock(mutex_);
        if (closed_) {
            return MMSYSERR_INVALHANDLE;
        }
        if (lost_) {
            return MIDIERR_NODEVICE;
        }
        if ((header->dwFlags & MHDR_PREPARED) == 0) {
            return MIDIERR_UNPREPARED;
        }
        if ((header->dwFlags & MHDR_INQUEUE) != 0) {
            return MIDIERR_STILLPLAYING;
        }
        header->dwFlags = (header->dwFlags & ~MHDR_DONE) | MHDR_INQUEUE;
        long_.push_back(header);
        wake_.notify_all();
        return MMSYSERR_NOERROR;
    }

    MMRESULT StreamOut(LPMIDIHDR header) {
        std::scoped_lock lock(mutex_);
        if (closed_ || !isStream_) {
            return MMSYSERR_INVALHANDLE;
        }
        if ((header->dwFlags & MHDR_PREPARED) == 0) {
            return MIDIERR_UNPREPARED;
        }
        if ((header->dwFlags & MHDR_INQUEUE) != 0) {
            return MIDIERR_STILLPLAYING;
        }
        if (lost_) {
            return MIDIERR_NODEVICE;
        }
        if (header->dwBytesRecorded > header->dwBufferLength) {
            return MMSYSERR_INVALPARAM;
        }
        header->dwFlags = (header->dwFlags & ~MHDR_DONE) | MHDR_INQUEUE | MHDR_ISSTRM;
        stream_.push_back(
            QueuedPacket{header, port_->QueuePacket(), 0, SteadyClock::now(), false, std::nullopt});
        wake_.notify_all();
        return MMSYSERR_NOERROR;
    }

    MMRESULT Prepare(LPMIDIHDR header) {
        std::scoped_lock lock(mutex_);
        if (closed_) {
            return MMSYSERR_INVALHANDLE;
        }
        header->dwFlags |= MHDR_PREPARED;
        return MMSYSERR_NOERROR;
    }

    MMRESULT Unprepare(LPMIDIHDR header) {
        std::scoped_lock lock(mutex_);
        if (closed_) {
            return MMSYSERR_INVALHANDLE;
        }
        if ((header->dwFlags & MHDR_INQUEUE) != 0) {
            return MIDIERR_STILLPLAYING;
        }
        header->dwFlags &= ~MHDR_PREPARED;
        return MMSYSERR_NOERROR;
    }

    MMRESULT Restart() {
        std::scoped_lock lock(mutex_);
        if (closed_ || !isStream_) {
            return MMSYSERR_INVALHANDLE;
        }
        const auto now = SteadyClock::now();
        if (state_ == State::Stopped) {
            lastEventDue_ = now;
        } else if (state_ == State::Paused) {
            lastEventDue_ += now - pausedAt_;
            for (QueuedPacket& packet : stream_) {
                packet.queuedAt =
                    packet.queuedAt < pausedAt_ ? packet.queuedAt + (now - pausedAt_) : now;
            }
        }
        state_ = State::Running;
        wake_.notify_all();
        return MMSYSERR_NOERROR;
    }

    MMRESULT Pause() {
        std::scoped_lock lock(mutex_);
        if (closed_ || !isStream_) {
            return MMSYSERR_INVALHANDLE;
        }
        if (state_ == State::Running) {
            state_ = State::Paused;
            pausedAt_ = SteadyClock::now();
        }
        return MMSYSERR_NOERROR;
    }

    // midiStreamStop (allNotesOff false) and midiOutReset (true).
    MMRESULT Stop(bool allNotesOff) {
        std::unique_lock lock(mutex_);
        if (closed_ || (!isStream_ && !allNotesOff)) {
            return MMSYSERR_INVALHANDLE;
        }
        ReturnEverything_(
            lock, allNotesOff ? Notice::Kind::NotesOffAndAllNotesOff : Notice::Kind::NotesOff);
        return MMSYSERR_NOERROR;
    }

    MMRESULT Property(LPBYTE data, DWORD property) {
        const bool get = (property & MIDIPROP_GET) != 0;
        const bool set = (property & MIDIPROP_SET) != 0;
        const DWORD which = property & ~(MIDIPROP_GET | MIDIPROP_SET);
        if (data == nullptr || get == set) {
            return MMSYSERR_INVALPARAM;
        }
        if (which != MIDIPROP_TIMEDIV && which != MIDIPROP_TEMPO) {
            return MMSYSERR_INVALFLAG;
        }
        // Both property records are { DWORD cbStruct; DWORD value; }.
        DWORD size = 0;
        std::memcpy(&size, data, sizeof size);
        if (size != sizeof(MIDIPROPTEMPO)) {
            return MMSYSERR_INVALPARAM;
        }
        std::scoped_lock lock(mutex_);
        if (closed_ || !isStream_) {
            return MMSYSERR_INVALHANDLE;
        }
        DWORD& field = which == MIDIPROP_TIMEDIV ? timeDivision_ : tempo_;
        if (get) {
            std::memcpy(data + sizeof(DWORD), &field, sizeof field);
            return MMSYSERR_NOERROR;
        }
        DWORD value = 0;
        std::memcpy(&value, data + sizeof(DWORD), sizeof value);
        if (which == MIDIPROP_TIMEDIV && (state_ != State::Stopped || value == 0)) {
            return MMSYSERR_INVALPARAM;
        }
        if (which == MIDIPROP_TEMPO && value == 0) {
            return MMSYSERR_INVALPARAM;
        }
        field = value;
        return MMSYSERR_NOERROR;
    }

    // Ends the handle: stream handles return their buffers first; plain handles refuse while
    // long messages are queued. Afterwards no callback of this handle runs any more.
    MMRESULT Close() {
        {
            std::unique_lock lock(mutex_);
            if (closed_) {
                return MMSYSERR_INVALHANDLE;
            }
            if (std::this_thread::get_id() == service_.get_id()) {
                return MMSYSERR_HANDLEBUSY;
            }
            if (!isStream_ && (!long_.empty() || longInFlight_)) {
                return MIDIERR_STILLPLAYING;
            }
            closed_ = true;  // from here on no new buffer can be queued
            if (isStream_) {
                ReturnEverything_(lock, Notice::Kind::NotesOff);
            }
        }
        StopThread_();
        port_->Close();
        Notify(MOM_CLOSE);
        return MMSYSERR_NOERROR;
    }

  private:
    enum class State { Stopped, Paused, Running };

    void StopThread_() {
        {
            std::scoped_lock lock(mutex_);
            quit_ = true;
            wake_.notify_all();
        }
        if (service_.joinable()) {
            service_.join();
        }
    }

    void PushNotice_(Notice notice) {
        notices_.push_back(notice);
        ++noticesQueued_;
        wake_.notify_all();
    }

    // Stops the stream and hands back every queued buffer through the service thread, then
    // waits until it has made those callbacks (not when called on the service thread itself,
    // where they follow once the current callback returns).
    void ReturnEverything_(std::unique_lock<std::mutex>& lock, Notice::Kind release) {
        const bool onServiceThread = std::this_thread::get_id() == service_.get_id();
        if (!onServiceThread) {
            // A long message being sent right now is handed back by the service thread first.
            delivered_.wait(lock, [this] { return !longInFlight_; });
        }
        state_ = State::Stopped;
        streamRunningStatus_ = 0;
        PushNotice_(Notice{release});
        HandBackStream_();
        for (LPMIDIHDR header : long_) {
            MarkDone(header);
            PushNotice_(Notice{Notice::Kind::Callback, MOM_DONE, header});
        }
        long_.clear();
        if (!onServiceThread) {
            const std::uint64_t target = noticesQueued_;
            delivered_.wait(lock, [this, target] { return noticesDelivered_ >= target; });
        }
    }

    // Queues MOM_DONE for every stream packet, in queue order (not for those whose device loses
    // completions), and empties the stream queue.
    void HandBackStream_() {
        for (const QueuedPacket& packet : stream_) {
            if (!packet.ticket.loseCompletion) {
                MarkDone(packet.header);
                PushNotice_(Notice{Notice::Kind::Callback, MOM_DONE, packet.header});
            }
        }
        stream_.clear();
    }

    void Deliver_(const Notice& notice) {
        if (notice.kind == Notice::Kind::Callback) {
            callback_.Invoke(this, notice.message, reinterpret_cast<DWORD_PTR>(notice.header), 0);
            return;
        }
        std::vector<Bytes> offs;
        {
            std::scoped_lock lock(mutex_);
            offs = sounding_.TakeNoteOffs();
        }
        if (notice.kind == Notice::Kind::NotesOffAndAllNotesOff) {
            for (BYTE channel = 0; channel < 16; ++channel) {
                offs.push_back({static_cast<BYTE>(kControlChange | channel), kAllNotesOff, 0});
            }
        }
        for (const Bytes& off : offs) {
            SendFromService_(off, std::nullopt);
        }
    }

    // A device that throws loses that message (MMSYSERR_ERROR); the service goes on with the
    // rest, so that the buffers it holds still come back to their owner.
    MMRESULT SendFromService_(const Bytes& message, std::optional<std::uint64_t> packet) {
        MMRESULT result = MMSYSERR_ERROR;
        RunReportingFailure("MIDI output device", [&] { result = port_->Send(message, packet); });
        return result;
    }

    void Run_() {
        SetCurrentThreadName("mm_midi_out");
        // Stream events are played at their deadlines, as a clock's ticks are: the thread asks
        // for the clock's priority (where the system refuses, it stays at normal priority and
        // wakes later under load) and, on Linux, drops the timer slack the kernel adds to each
        // wake-up of a thread at normal priority (50 us by default).
        SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL);
#ifdef __linux__
        prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
#endif
        std::unique_lock lock(mutex_);
        for (;;) {
            if (!notices_.empty()) {
                const Notice notice = notices_.front();
                notices_.pop_front();
                lock.unlock();
                Deliver_(notice);
                lock.lock();
                ++noticesDelivered_;
                delivered_.notify_all();
                continue;
            }
            if (quit_) {
                return;
            }
            if (!long_.empty()) {
                SendLong_(lock);
                continue;
            }
            if (state_ == State::Running && !stream_.empty()) {
                if (const auto due = PlayStep_(lock)) {
                    wake_.wait_until(lock, *due);
                }
                continue;
            }
            wake_.wait(lock);
        }
    }

    void SendLong_(std::unique_lock<std::mutex>& lock) {
        const LPMIDIHDR header = long_.front();
        long_.pop_front();
        const Bytes message(header->lpData, header->lpData + header->dwBufferLength);
        longInFlight_ = true;
        lock.unlock();
        SendFromService_(message, std::nullopt);
        lock.lock();
        longInFlight_ = false;
        MarkDone(header);
        PushNotice_(Notice{Notice::Kind::Callback, MOM_DONE, header});
        delivered_.notify_all();
    }

    SteadyClock::duration TicksToDuration_(DWORD ticks) const {
        double nanosecondsPerTick = 0;
        if ((timeDivision_ & 0x8000) != 0) {
            // SMPTE division: high byte = -frames per second (-29 means 29.97), low byte = ticks
            // per frame.
            const int frames = -static_cast<signed char>((timeDivision_ >> 8) & 0xFF);
            const double fps = frames == 29 ? 29.97 : frames;
            const double ticksPerFrame = std::max<DWORD>(1, timeDivision_ & 0xFF);
            nanosecondsPerTick = 1e9 / (fps * ticksPerFrame);
        } else {
            nanosecondsPerTick = static_cast<double>(tempo_) * 1000.0 / timeDivision_;
        }
        return std::chrono::duration_cast<SteadyClock::duration>(
            std::chrono::duration<double, std::nano>(ticks * nanosecondsPerTick));
    }

    // Plays the next event of the front buffer, or hands the buffer back when it is finished.
    // Returns the time to wait for when the next step is not due yet.
    std::optional<SteadyClock::time_point> PlayStep_(std::unique_lock<std::mutex>& lock) {
        QueuedPacket& packet = stream_.front();
        const LPMIDIHDR header = packet.header;
        const DWORD end = header->dwBytesRecorded;
        const auto now = SteadyClock::now();
        if (packet.offset + kShortEventBytes > end) {
            if (!packet.completionDue) {
                packet.completionDue = now + packet.ticket.completionDelay;
            }
            if (now < *packet.completionDue) {
                return packet.completionDue;
            }
            const bool lose = packet.ticket.loseCompletion;
            stream_.pop_front();
            if (!lose) {
                MarkDone(header);
                PushNotice_(Notice{Notice::Kind::Callback, MOM_DONE, header});
            }
            return std::nullopt;
        }

        // Stream event, little-endian DWORDs: delta ticks, stream id, event (type in the top
        // byte, MEVT_F_LONG events followed by their parameter's length in bytes, padded to
        // DWORDs).
        const BYTE* at = reinterpret_cast<const BYTE*>(header->lpData) + packet.offset;
        DWORD delta = 0;
        DWORD event = 0;
        std::memcpy(&delta, at, sizeof delta);
        std::memcpy(&event, at + 2 * sizeof(DWORD), sizeof event);
        DWORD size = kShortEventBytes;
        if ((event & MEVT_F_LONG) != 0) {
            size += (MEVT_EVENTPARM(event) + 3) & ~3u;
        }
        if (packet.offset + size > end) {
            packet.offset = end;  // a cut-off last event is not played
            return std::nullopt;
        }
        if (!packet.started) {
            packet.started = true;
            lastEventDue_ = std::max(lastEventDue_, packet.queuedAt);
        }
        const auto due = lastEventDue_ + TicksToDuration_(delta);
        if (due > now) {
            return due;
        }
        lastEventDue_ = due;
        const DWORD eventOffset = packet.offset;
        packet.offset += size;

        Bytes message;
        const BYTE type = MEVT_EVENTTYPE(event) & ~static_cast<BYTE>(MEVT_F_CALLBACK >> 24);
        if (type == MEVT_SHORTMSG) {
            message = UnpackShortMessage(MEVT_EVENTPARM(event), streamRunningStatus_);
            sounding_.Follow(message);
        } else if (type == MEVT_TEMPO) {
            tempo_ = std::max<DWORD>(1, MEVT_EVENTPARM(event));
        } else if (type == MEVT_LONGMSG) {
            message.assign(at + kShortEventBytes, at + kShortEventBytes + MEVT_EVENTPARM(event));
        }
        if ((event & MEVT_F_CALLBACK) != 0) {
            header->dwOffset = eventOffset;
            PushNotice_(Notice{Notice::Kind::Callback, MOM_POSITIONCB, header});
        }
        if (!message.empty()) {
            const std::uint64_t index = packet.ticket.index;
            lock.unlock();
            const MMRESULT sent = SendFromService_(message, index);
            lock.lock();
            // A stop or close may have emptied the queue while the lock was released; then the
            // packets are already on their way back.
            if (sent == MIDIERR_NODEVICE && !lost_ && !stream_.empty()) {
                lost_ = true;
                HandBackStream_();
            }
        }
        return std::nullopt;
    }

    const std::shared_ptr<OutputPort> port_;
    const bool isStream_;
    const CallbackTarget callback_;

    std::mutex mutex_;
    std::condition_variable wake_;       // wakes the service thread
    std::condition_variable delivered_;  // wakes callers waiting for callbacks to be made
    std::thread service_;

    // Guarded by mutex_.
    bool closed_ = false;
    bool quit_ = false;
    bool longInFlight_ = false;
    bool lost_ = false;  // the device went away; see the file comment
    State state_ = State::Stopped;
    std::deque<QueuedPacket> stream_;
    std::deque<LPMIDIHDR> long_;
    std::deque<Notice> notices_;
    std::uint64_t noticesQueued_ = 0;
    std::uint64_t noticesDelivered_ = 0;
    SteadyClock::time_point lastEventDue_{};
    SteadyClock::time_point pausedAt_{};
    DWORD timeDivision_ = kDefaultTimeDivision;
    DWORD tempo_ = kDefaultTempo;
    BYTE plainRunningStatus_ = 0;
    BYTE streamRunningStatus_ = 0;
    SoundingNotes sounding_;
};

// Every open output handle, by the value handed out as HMIDIOUT / HMIDISTRM.
HandleTable<OutputHandle>& Handles() {
    static HandleTable<OutputHandle> table;
    return table;
}

MMRESULT OpenOutput(UINT deviceId, bool isStream, DWORD_PTR callback, DWORD_PTR instance,
                    DWORD flags, const void** opened) {
    CallbackTarget target;
    if (const MMRESULT result = MakeCallbackTarget(flags, 0, callback, instance, target);
        result != MMSYSERR_NOERROR) {
        return result;
    }
    const auto ports = ListOutputs();
    if (deviceId == MIDI_MAPPER) {
        deviceId = 0;
    }
    if (deviceId >= ports.size()) {
        return MMSYSERR_BADDEVICEID;
    }
    const auto& port = ports[deviceId];
    if (const MMRESULT result = port->Open(); result != MMSYSERR_NOERROR) {
        return result;
    }
    auto handle = std::make_shared<OutputHandle>(port, isStream, target);
    handle->Start();
    *opened = handle.get();
    Handles().Add(handle);
    handle->Notify(MOM_OPEN);
    return MMSYSERR_NOERROR;
}

MMRESULT CloseOutput(const void* key) {
    const auto handle = Handles().Find(key);
    if (!handle) {
        return MMSYSERR_INVALHANDLE;
    }
    const MMRESULT result = handle->Close();
    if (result == MMSYSERR_NOERROR) {
        Handles().Remove(key);
    }
    return result;
}

}  // namespace

// The capabilities of the port behind an open handle, for midiOutGetDevCapsW given a handle.
std::shared_ptr<OutputPort> FindOpenOutputPort(UINT_PTR handle) {
    const auto found = Handles().Find(reinterpret_cast<const void*>(handle));
    return found ? found->Port() : nullptr;
}

}  // namespace velt_platform::detail

using velt_platform::detail::CloseOutput;
using velt_platform::detail::Handles;
using velt_platform::detail::kMinimumPrepareSize;

extern "C" {

UINT WINAPI midiOutGetNumDevs(void) {
    return static_cast<UINT>(velt_platform::detail::ListOutputs().size());
}

MMRESULT WINAPI midiOutGetDevCapsW(UINT_PTR uDeviceID, LPMIDIOUTCAPSW pmoc, UINT cbmoc) {
    if (pmoc == nullptr) {
        return MMSYSERR_INVALPARAM;
    }
    std::shared_ptr<velt_platform::detail::OutputPort> port =
        velt_platform::detail::FindOpenOutputPort(uDeviceID);
    if (!port) {
        const auto ports = velt_platform::detail::ListOutputs();
        const UINT_PTR id = uDeviceID == MIDI_MAPPER ? 0 : uDeviceID;
        if (id >= ports.size()) {
            return MMSYSERR_BADDEVICEID;
        }
        port = ports[id];
    }
    MIDIOUTCAPSW caps{};
    caps.wMid = MM_UNMAPPED;
    caps.wPid = MM_PID_UNMAPPED;
    caps.vDriverVersion = 0x0100;
    velt_platform::detail::CopyDeviceName(port->Name(), caps.szPname);
    caps.wTechnology = port->Technology();
    caps.wVoices = 0;
    caps.wNotes = 0;
    caps.wChannelMask = 0xFFFF;
    caps.dwSupport = MIDICAPS_STREAM;
    std::memcpy(pmoc, &caps, std::min<std::size_t>(cbmoc, sizeof caps));
    return MMSYSERR_NOERROR;
}

MMRESULT WINAPI midiOutGetErrorTextW(MMRESULT mmrError, LPWSTR pszText, UINT cchText) {
    return velt_platform::detail::CopyResultText(mmrError, pszText, cchText);
}

MMRESULT WINAPI midiOutOpen(LPHMIDIOUT phmo, UINT uDeviceID, DWORD_PTR dwCallback,
                            DWORD_PTR dwInstance, DWORD fdwOpen) {
    if (phmo == nullptr) {
        return MMSYSERR_INVALPARAM;
    }
    const void* opened = nullptr;
    const MMRESULT result = velt_platform::detail::OpenOutput(uDeviceID, false, dwCallback,
                                                              dwInstance, fdwOpen, &opened);
    *phmo = result == MMSYSERR_NOERROR ? static_cast<HMIDIOUT>(const_cast<void*>(opened)) : nullptr;
    return result;
}

MMRESULT WINAPI midiOutShortMsg(HMIDIOUT hmo, DWORD dwMsg) {
    const auto handle = Handles().Find(hmo);
    return handle ? handle->ShortMsg(dwMsg) : MMSYSERR_INVALHANDLE;
}

MMRESULT WINAPI midiOutLongMsg(HMIDIOUT hmo, LPMIDIHDR pmh, UINT cbmh) {
    const auto handle = Handles().Find(hmo);
    if (!handle) {
        return MMSYSERR_INVALHANDLE;
    }
    if (pmh == nullptr || cbmh < kMinimumPrepareSize) {
        return MMSYSERR_INVALPARAM;
    }
    return handle->LongMsg(pmh);
}

MMRESULT WINAPI midiOutReset(HMIDIOUT hmo) {
    const auto handle = Handles().Find(hmo);
    return handle ? handle->Stop(true) : MMSYSERR_INVALHANDLE;
}

MMRESULT WINAPI midiOutClose(HMIDIOUT hmo) {
    return CloseOutput(hmo);
}

MMRESULT WINAPI midiOutPrepareHeader(HMIDIOUT hmo, LPMIDIHDR pmh, UINT cbmh) {
    const auto handle = Handles().Find(hmo);
    if (!handle) {
        return MMSYSERR_INVALHANDLE;
    }
    if (pmh == nullptr || cbmh < kMinimumPrepareSize ||
        (pmh->lpData == nullptr && pmh->dwBufferLength != 0)) {
        return MMSYSERR_INVALPARAM;
    }
    return handle->Prepare(pmh);
}

MMRESULT WINAPI midiOutUnprepareHeader(HMIDIOUT hmo, LPMIDIHDR pmh, UINT cbmh) {
    const auto handle = Handles().Find(hmo);
    if (!handle) {
        return MMSYSERR_INVALHANDLE;
    }
    if (pmh == nullptr || cbmh < kMinimumPrepareSize) {
        return MMSYSERR_INVALPARAM;
    }
    return handle->Unprepare(pmh);
}

MMRESULT WINAPI midiStreamOpen(LPHMIDISTRM phms, LPUINT puDeviceID, DWORD cMidi,
                               DWORD_PTR dwCallback, DWORD_PTR dwInstance, DWORD fdwOpen) {
    if (phms == nullptr || puDeviceID == nullptr || cMidi != 1) {
        return MMSYSERR_INVALPARAM;
    }
    const void* opened = nullptr;
    const MMRESULT result = velt_platform::detail::OpenOutput(*puDeviceID, true, dwCallback,
                                                              dwInstance, fdwOpen, &opened);
    *phms =
        result == MMSYSERR_NOERROR ? static_cast<HMIDISTRM>(const_cast<void*>(opened)) : nullptr;
    return result;
}

MMRESULT WINAPI midiStreamClose(HMIDISTRM hms) {
    return CloseOutput(hms);
}

MMRESULT WINAPI midiStreamOut(HMIDISTRM hms, LPMIDIHDR pmh, UINT cbmh) {
    const auto handle = Handles().Find(hms);
    if (!handle) {
        return MMSYSERR_INVALHANDLE;
    }
    if (pmh == nullptr || cbmh < sizeof(MIDIHDR)) {
        return MMSYSERR_INVALPARAM;
    }
    return handle->StreamOut(pmh);
}

MMRESULT WINAPI midiStreamRestart(HMIDISTRM hms) {
    const auto handle = Handles().Find(hms);
    return handle ? handle->Restart() : MMSYSERR_INVALHANDLE;
}

MMRESULT WINAPI midiStreamPause(HMIDISTRM hms) {
    const auto handle = Handles().Find(hms);
    return handle ? handle->Pause() : MMSYSERR_INVALHANDLE;
}

MMRESULT WINAPI midiStreamStop(HMIDISTRM hms) {
    const auto handle = Handles().Find(hms);
    return handle ? handle->Stop(false) : MMSYSERR_INVALHANDLE;
}

MMRESULT WINAPI midiStreamProperty(HMIDISTRM hms, LPBYTE lppropdata, DWORD dwProperty) {
    const auto handle = Handles().Find(hms);
    return handle ? handle->Property(lppropdata, dwProperty) : MMSYSERR_INVALHANDLE;
}

}  // extern "C"
