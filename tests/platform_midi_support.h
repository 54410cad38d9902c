// Helpers for the platform MIDI tests: a callback that records what the service reports, and
// stream buffers built the way the engine builds them.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/mmsystem.h"
#include "tests/support/recorded.h"

namespace platform_midi_test {

// Generous limit for waits that only guard against a hung test; never a timing assertion.
inline constexpr std::chrono::seconds kHangLimit{10};

struct CallbackRecord {
    UINT message = 0;
    DWORD_PTR param1 = 0;
    DWORD_PTR param2 = 0;
    std::thread::id thread;
    void* handle = nullptr;
};

// Records every callback (any thread) and lets the test wait for a number of them.
class CallbackLog {
  public:
    static void CALLBACK Callback(HDRVR handle, UINT message, DWORD_PTR instance, DWORD_PTR param1,
                                  DWORD_PTR param2) {
        reinterpret_cast<CallbackLog*>(instance)->records_.Add(
            CallbackRecord{message, param1, param2, std::this_thread::get_id(), handle});
    }

    DWORD_PTR Instance() { return reinterpret_cast<DWORD_PTR>(this); }
    static DWORD_PTR Function() { return reinterpret_cast<DWORD_PTR>(&CallbackLog::Callback); }

    std::vector<CallbackRecord> Records() const { return records_.Values(); }

    std::vector<CallbackRecord> Of(UINT message) const {
        std::vector<CallbackRecord> found;
        std::ranges::copy_if(
            Records(), std::back_inserter(found),
            [&](const CallbackRecord& record) { return record.message == message; });
        return found;
    }

    // True when count callbacks of this message have been made within the hang limit.
    bool WaitFor(UINT message, std::size_t count) const {
        return records_.WaitUntil(
            [&](const std::vector<CallbackRecord>& records) {
                return std::ranges::count(records, message, &CallbackRecord::message) >=
                       static_cast<std::ptrdiff_t>(count);
            },
            kHangLimit);
    }

  private:
    Recorded<CallbackRecord> records_;
};

// A stream buffer with its header, filled with 12-byte short events.
class StreamPacket {
  public:
    explicit StreamPacket(std::size_t capacityEvents = 64) : storage_(capacityEvents * 12) {
        header_.lpData = reinterpret_cast<LPSTR>(storage_.data());
        header_.dwBufferLength = static_cast<DWORD>(storage_.size());
    }
    StreamPacket(const StreamPacket&) = delete;
    StreamPacket& operator=(const StreamPacket&) = delete;

    // Appends delta, stream id 0 and the event word (type in the top byte).
    void Add(DWORD delta, DWORD event) {
        const DWORD words[3] = {delta, 0, event};
        std::memcpy(storage_.data() + used_, words, sizeof words);
        used_ += sizeof words;
        header_.dwBytesRecorded = static_cast<DWORD>(used_);
    }

    void AddShort(BYTE status, BYTE data1, BYTE data2, DWORD delta = 0) {
        Add(delta, (static_cast<DWORD>(MEVT_SHORTMSG) << 24) | (DWORD{data2} << 16) |
                       (DWORD{data1} << 8) | status);
    }

    LPMIDIHDR Header() { return &header_; }

  private:
    std::vector<BYTE> storage_;
    std::size_t used_ = 0;
    MIDIHDR header_{};
};

// The time base of recorded messages: steady clock nanoseconds since its epoch.
inline std::int64_t SteadyNowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

inline std::string Narrow(const WCHAR* text) {
    std::string narrow;
    for (; *text != u'\0'; ++text) {
        narrow.push_back(static_cast<char>(*text & 0xFF));
    }
    return narrow;
}

inline std::string OutputName(UINT id) {
    MIDIOUTCAPSW caps{};
    return midiOutGetDevCapsW(id, &caps, sizeof caps) == MMSYSERR_NOERROR ? Narrow(caps.szPname)
                                                                          : std::string();
}

}  // namespace platform_midi_test
