// MIDI input handles of the POSIX MIDI service.
//
// Each open handle is an InputHandle: the device hands it complete messages on whatever thread
// it produces them (Receive), the handle queues them, and its service thread ("mm_midi_in")
// makes the MIM_DATA / MIM_LONGDATA callbacks in arrival order with no lock held.
//
// Locks: the device's own mutex (held by the device while it calls Receive), then the handle's
// mutex. The handle never calls into the device while holding its own mutex.
#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include "midi_service.h"

namespace velt_platform::detail {
namespace {

constexpr UINT kMinimumHeaderSize = offsetof(MIDIHDR, dwOffset);
constexpr std::int64_t kNanosecondsPerMillisecond = 1000000;

class InputHandle final : public InputSink {
  public:
    InputHandle(std::shared_ptr<InputPort> port, CallbackTarget callback)
        : port_(std::move(port)), callback_(callback) {}

    InputHandle(const InputHandle&) = delete;
    InputHandle& operator=(const InputHandle&) = delete;

    // A handle still open when the handle table goes (process exit) first detaches from its
    // device, which may be calling Receive on another thread at that moment.
    ~InputHandle() {
        bool open = false;
        {
            std::scoped_lock lock(mutex_);
            open = !closed_ && service_.joinable();  // the thread starts once the device opened
            closed_ = true;
        }
        if (open) {
            port_->Close();
        }
        StopThread_();
    }

    void Start() {
        service_ =
            std::thread([this] { RunReportingFailure("MIDI input service", [this] { Run_(); }); });
    }
    const std::shared_ptr<InputPort>& Port() const { return port_; }
    void Notify(UINT message) const { callback_.Invoke(this, message, 0, 0); }

    bool Receive(Bytes message, std::int64_t timeNs) override {
        std::scoped_lock lock(mutex_);
        if (!started_ || closed_ || message.empty()) {
            return false;
        }
        items_.push_back(Item{Item::Kind::Message, std::move(message), timeNs});
        wake_.notify_all();
        return true;
    }

    MMRESULT StartInput() {
        std::scoped_lock lock(mutex_);
        if (closed_) {
            return MMSYSERR_INVALHANDLE;
        }
        if (!started_) {
            started_ = true;
            startNs_ = NowNs();
        }
        return MMSYSERR_NOERROR;
    }

    MMRESULT StopInput() {
        std::scoped_lock lock(mutex_);
        if (closed_) {
            return MMSYSERR_INVALHANDLE;
        }
        started_ = false;
        return MMSYSERR_NOERROR;
    }

    MMRESULT ResetInput() {
        std::unique_lock lock(mutex_);
        if (closed_) {
            return MMSYSERR_INVALHANDLE;
        }
        started_ = false;
        items_.clear();
        items_.push_back(Item{Item::Kind::ReturnBuffers, {}, 0});
        ++returnsRequested_;
        const std::uint64_t target = returnsRequested_;
        wake_.notify_all();
        if (std::this_thread::get_id() != service_.get_id()) {
            delivered_.wait(lock, [this, target] { return returnsDone_ >= target; });
        }
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

    MMRESULT AddBuffer(LPMIDIHDR header) {
        std::scoped_lock lock(mutex_);
        if (closed_) {
            return MMSYSERR_INVALHANDLE;
        }
        if ((header->dwFlags & MHDR_PREPARED) == 0) {
            return MIDIERR_UNPREPARED;
        }
        if ((header->dwFlags & MHDR_INQUEUE) != 0) {
            return MIDIERR_STILLPLAYING;
        }
        if (header->lpData == nullptr || header->dwBufferLength == 0) {
            return MMSYSERR_INVALPARAM;
        }
        header->dwBytesRecorded = 0;
        header->dwFlags = (header->dwFlags & ~MHDR_DONE) | MHDR_INQUEUE;
        buffers_.push_back(header);
        return MMSYSERR_NOERROR;
    }

    MMRESULT Close() {
        {
            std::scoped_lock lock(mutex_);
            if (closed_) {
                return MMSYSERR_INVALHANDLE;
            }
            if (!buffers_.empty()) {
                return MIDIERR_STILLPLAYING;
            }
            if (std::this_thread::get_id() == service_.get_id()) {
                return MMSYSERR_HANDLEBUSY;
            }
            closed_ = true;
            started_ = false;
            items_.clear();
        }
        port_->Close();  // after this the device never calls Receive again
        StopThread_();
        Notify(MIM_CLOSE);
        return MMSYSERR_NOERROR;
    }

  private:
    struct Item {
        enum class Kind { Message, ReturnBuffers };
        Kind kind = Kind::Message;
        Bytes bytes;
        std::int64_t timeNs = 0;
    };

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

    DWORD_PTR Milliseconds_(std::int64_t timeNs) const {
        return static_cast<DWORD_PTR>(static_cast<DWORD>(
            std::max<std::int64_t>(0, timeNs - startNs_) / kNanosecondsPerMillisecond));
    }

    void ReturnBuffer_(std::unique_lock<std::mutex>& lock, LPMIDIHDR header, DWORD_PTR time) {
        header->dwFlags = (header->dwFlags & ~MHDR_INQUEUE) | MHDR_DONE;
        lock.unlock();
        callback_.Invoke(this, MIM_LONGDATA, reinterpret_cast<DWORD_PTR>(header), time);
        lock.lock();
    }

    // A SysEx fills the queued buffers in order; each goes back when full or when the message
    // ends. What finds no buffer is dropped.
    void DeliverSysEx_(std::unique_lock<std::mutex>& lock, const Item& item) {
        std::size_t offset = 0;
        while (offset < item.bytes.size() && !buffers_.empty()) {
            const LPMIDIHDR header = buffers_.front();
            const std::size_t room = header->dwBufferLength - header->dwBytesRecorded;
            const std::size_t count = std::min(room, item.bytes.size() - offset);
            std::memcpy(header->lpData + header->dwBytesRecorded, item.bytes.data() + offset,
                        count);
            header->dwBytesRecorded += static_cast<DWORD>(count);
            offset += count;
            if (header->dwBytesRecorded == header->dwBufferLength || offset == item.bytes.size()) {
                buffers_.pop_front();
                ReturnBuffer_(lock, header, Milliseconds_(item.timeNs));
            }
        }
    }

    void Run_() {
        SetCurrentThreadName("mm_midi_in");
        std::unique_lock lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return quit_ || !items_.empty(); });
            if (items_.empty()) {
                return;  // quit with nothing left to deliver
            }
            const Item item = std::move(items_.front());
            items_.pop_front();
            if (item.kind == Item::Kind::ReturnBuffers) {
                while (!buffers_.empty()) {
                    const LPMIDIHDR header = buffers_.front();
                    buffers_.pop_front();
                    ReturnBuffer_(lock, header, 0);
                }
                ++returnsDone_;
                delivered_.notify_all();
            } else if (item.bytes.front() == 0xF0) {
                DeliverSysEx_(lock, item);
            } else {
                const DWORD_PTR packed = PackShortMessage(item.bytes);
                const DWORD_PTR time = Milliseconds_(item.timeNs);
                lock.unlock();
                callback_.Invoke(this, MIM_DATA, packed, time);
                lock.lock();
            }
        }
    }

    const std::shared_ptr<InputPort> port_;
    const CallbackTarget callback_;

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable delivered_;
    std::thread service_;

    // Guarded by mutex_.
    bool started_ = false;
    bool closed_ = false;
    bool quit_ = false;
    std::int64_t startNs_ = 0;
    std::deque<Item> items_;
    std::deque<LPMIDIHDR> buffers_;
    std::uint64_t returnsRequested_ = 0;
    std::uint64_t returnsDone_ = 0;
};

HandleTable<InputHandle>& Inputs() {
    static HandleTable<InputHandle> table;
    return table;
}

}  // namespace
}  // namespace velt_platform::detail

using velt_platform::detail::Inputs;
using velt_platform::detail::kMinimumHeaderSize;

extern "C" {

UINT WINAPI midiInGetNumDevs(void) {
    return static_cast<UINT>(velt_platform::detail::ListInputs().size());
}

MMRESULT WINAPI midiInGetDevCapsW(UINT_PTR uDeviceID, LPMIDIINCAPSW pmic, UINT cbmic) {
    if (pmic == nullptr) {
        return MMSYSERR_INVALPARAM;
    }
    std::shared_ptr<velt_platform::detail::InputPort> port;
    if (const auto handle = Inputs().Find(reinterpret_cast<const void*>(uDeviceID))) {
        port = handle->Port();
    } else {
        const auto ports = velt_platform::detail::ListInputs();
        if (uDeviceID >= ports.size()) {
            return MMSYSERR_BADDEVICEID;
        }
        port = ports[uDeviceID];
    }
    MIDIINCAPSW caps{};
    caps.wMid = MM_UNMAPPED;
    caps.wPid = MM_PID_UNMAPPED;
    caps.vDriverVersion = 0x0100;
    velt_platform::detail::CopyDeviceName(port->Name(), caps.szPname);
    caps.dwSupport = 0;
    std::memcpy(pmic, &caps, std::min<std::size_t>(cbmic, sizeof caps));
    return MMSYSERR_NOERROR;
}

MMRESULT WINAPI midiInGetErrorTextW(MMRESULT mmrError, LPWSTR pszText, UINT cchText) {
    return velt_platform::detail::CopyResultText(mmrError, pszText, cchText);
}

MMRESULT WINAPI midiInOpen(LPHMIDIIN phmi, UINT uDeviceID, DWORD_PTR dwCallback,
                           DWORD_PTR dwInstance, DWORD fdwOpen) {
    using namespace velt_platform::detail;
    if (phmi == nullptr) {
        return MMSYSERR_INVALPARAM;
    }
    *phmi = nullptr;
    CallbackTarget target;
    if (const MMRESULT result =
            MakeCallbackTarget(fdwOpen, MIDI_IO_STATUS, dwCallback, dwInstance, target);
        result != MMSYSERR_NOERROR) {
        return result;
    }
    const auto ports = ListInputs();
    if (uDeviceID >= ports.size()) {
        return MMSYSERR_BADDEVICEID;
    }
    auto handle = std::make_shared<InputHandle>(ports[uDeviceID], target);
    if (const MMRESULT result = ports[uDeviceID]->Open(*handle); result != MMSYSERR_NOERROR) {
        return result;
    }
    handle->Start();
    *phmi = reinterpret_cast<HMIDIIN>(handle.get());
    Inputs().Add(handle);
    handle->Notify(MIM_OPEN);
    return MMSYSERR_NOERROR;
}

MMRESULT WINAPI midiInStart(HMIDIIN hmi) {
    const auto handle = Inputs().Find(hmi);
    return handle ? handle->StartInput() : MMSYSERR_INVALHANDLE;
}

MMRESULT WINAPI midiInStop(HMIDIIN hmi) {
    const auto handle = Inputs().Find(hmi);
    return handle ? handle->StopInput() : MMSYSERR_INVALHANDLE;
}

MMRESULT WINAPI midiInReset(HMIDIIN hmi) {
    const auto handle = Inputs().Find(hmi);
    return handle ? handle->ResetInput() : MMSYSERR_INVALHANDLE;
}

MMRESULT WINAPI midiInClose(HMIDIIN hmi) {
    const auto handle = Inputs().Find(hmi);
    if (!handle) {
        return MMSYSERR_INVALHANDLE;
    }
    const MMRESULT result = handle->Close();
    if (result == MMSYSERR_NOERROR) {
        Inputs().Remove(hmi);
    }
    return result;
}

MMRESULT WINAPI midiInPrepareHeader(HMIDIIN hmi, LPMIDIHDR pmh, UINT cbmh) {
    const auto handle = Inputs().Find(hmi);
    if (!handle) {
        return MMSYSERR_INVALHANDLE;
    }
    if (pmh == nullptr || cbmh < kMinimumHeaderSize || pmh->lpData == nullptr) {
        return MMSYSERR_INVALPARAM;
    }
    return handle->Prepare(pmh);
}

MMRESULT WINAPI midiInUnprepareHeader(HMIDIIN hmi, LPMIDIHDR pmh, UINT cbmh) {
    const auto handle = Inputs().Find(hmi);
    if (!handle) {
        return MMSYSERR_INVALHANDLE;
    }
    if (pmh == nullptr || cbmh < kMinimumHeaderSize) {
        return MMSYSERR_INVALPARAM;
    }
    return handle->Unprepare(pmh);
}

MMRESULT WINAPI midiInAddBuffer(HMIDIIN hmi, LPMIDIHDR pmh, UINT cbmh) {
    const auto handle = Inputs().Find(hmi);
    if (!handle) {
        return MMSYSERR_INVALHANDLE;
    }
    if (pmh == nullptr || cbmh < kMinimumHeaderSize) {
        return MMSYSERR_INVALPARAM;
    }
    return handle->AddBuffer(pmh);
}

}  // extern "C"
