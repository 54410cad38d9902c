// Playing one song as a host application does: the real clock, position, stream collection and
// platform output, assembled and driven the way the engine expects its host to. The fill
// callback advances the position and lets the song's stream enqueue the period's events; it also
// records what each fill put into port 0's packets, so that tests can compare it with what a
// device received. The harness of the playback tests and the timing benchmark.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/kit.h"
#include "midi/how_to_play.h"
#include "midi/midi_stream_collection.h"
#include "midi/user_controls.h"
#include "midi/win32/midi_buffer_win32.h"
#include "midi/win32/midi_output_win32.h"

namespace playback {

using Message = std::vector<std::uint8_t>;

// A stream event word as the message bytes a device receives (two bytes for program change and
// channel pressure, three otherwise).
inline Message MessageOfWord(DWORD word) {
    const auto status = static_cast<std::uint8_t>(word & 0xFF);
    Message message{status, static_cast<std::uint8_t>((word >> 8) & 0xFF)};
    const std::uint8_t kind = status & 0xF0;
    if (kind != 0xC0 && kind != 0xD0) {
        message.push_back(static_cast<std::uint8_t>((word >> 16) & 0xFF));
    }
    return message;
}

struct FilledPeriod {
    std::uint32_t tick;
    std::vector<Message> messages;  // port 0, in packet order
};

// One song on `portCount` output ports (track id >> 4 must be below it), driven by a clock of
// type Clock (a StandardMidiClock with WaitUntilStopped). The downbeat callback, if any, gets the
// tick of every click after the display delay, on the display thread.
template <typename Clock>
class SongPlayer {
  public:
    /// `exactTiming`: the output's timing (MidiOutputWin32::SetExactTiming); empty for the
    /// output's own default with this clock.
    explicit SongPlayer(const velt_midi::SongData& song, unsigned char portCount = 1,
                        std::function<void(unsigned int)> downbeat = {},
                        std::optional<bool> exactTiming = std::nullopt) {
        show_.AddSong(std::make_shared<velt_midi::SongData>(song));
        streams_ = std::make_unique<TamberMidiStreamCollection>(show_);
        stream_ = &streams_->GetStream(song.GetSongName());
        ticksPerClock_ = song.GetTicksPerQuarter() / 24;
        lastTick_ = song.GetTimeline().lastTickIndex;
        position_.SetData(song.GetSongLog(), song.GetTimeline(), song.GetTicksPerQuarter());
        if (!downbeat) {
            downbeat = [](unsigned int) {};
        }
        output_ = std::make_unique<MidiOutputWin32>(
            portCount, [this](MidiBuffer& buffer) { Fill_(buffer); }, std::move(downbeat),
            [this] { Stopped_(); }, [] {},
            [this](unsigned int tick) { return tick == caesuraTick_.load(); }, clock_,
            &clientMutex_);
        if (exactTiming) {
            output_->SetExactTiming(*exactTiming);
        }
        output_->Initialize(portCount);
        output_->CreateSynthOutput();
    }

    SongPlayer(const SongPlayer&) = delete;
    SongPlayer& operator=(const SongPlayer&) = delete;
    ~SongPlayer() {
        output_->PrepareForExit();
        clock_.WaitUntilStopped(std::chrono::seconds(10));
        output_.reset();
    }

    // Seeks everything to `tick`, primes, arms and starts the clock running by itself.
    void Play(std::uint32_t tick) {
        {
            std::unique_lock lock(positionMutex_);
            position_.Seek(tick);
            stream_->Seek(tick);
            nextTick_ = tick;
            firstFill_ = true;
        }
        output_->Seek(tick);
        clock_.ArmPlayback(ticksPerClock_, position_.GetLastSeekClocksPerClick(),
                           position_.GetLastSeekClockTime(), tick, position_.GetClockNumber());
        {
            std::unique_lock lock(output_->GetMutex());
            output_->PrimeBuffers(lock);
        }
        if (!output_->ArmPlayback()) {
            throw std::logic_error("the output refused to arm after priming");
        }
        clock_.ContinuousMode();
    }

    bool WaitForStops(int count) {
        std::unique_lock lock(stopMutex_);
        return stopped_.wait_for(lock, std::chrono::seconds(60), [&] { return stops_ >= count; });
    }
    void StopAt(std::uint32_t tick) { caesuraTick_ = tick; }

    std::vector<FilledPeriod> Filled() {
        std::scoped_lock lock(positionMutex_);
        return filled_;
    }
    std::thread::id StoppedThread() {
        std::scoped_lock lock(stopMutex_);
        return stoppedThread_;
    }
    std::string StoppedThreadName() {
        std::scoped_lock lock(stopMutex_);
        return stoppedThreadName_;
    }
    Clock& GetClock() { return clock_; }
    MidiOutputWin32& Output() { return *output_; }
    std::uint32_t TicksPerClock() const { return ticksPerClock_; }
    UserControls& Controls() { return controls_; }

  private:
    // The queue thread's fill (or priming's), with the buffer's mutex held: one clock period.
    void Fill_(MidiBuffer& buffer) {
        std::unique_lock lock(positionMutex_);
        const std::uint32_t tick = nextTick_;
        buffer.SetTickIndex(tick);
        if (tick > lastTick_) {
            buffer.SetIsLastBuffer(true);
            return;
        }
        position_.AdvanceToTickIndexWithLock(tick, lock);
        buffer.SetClockNumber(position_.GetClockNumber());
        const auto transposition = static_cast<signed char>(position_.GetTranspositionValue());
        const std::uint32_t periodEnd = tick + ticksPerClock_;
        if (firstFill_ && tick == 0) {
            stream_->EnqueueInitialEvents(periodEnd, transposition, buffer);
        } else if (firstFill_) {
            stream_->EnqueueEventsWithPersistence(periodEnd, transposition, transposition, buffer,
                                                  false);
        } else {
            stream_->EnqueueEvents(periodEnd, transposition, buffer, false);
        }
        firstFill_ = false;
        nextTick_ = periodEnd;

        FilledPeriod period{tick, {}};
        auto& packet = *dynamic_cast<MidiBufferWin32&>(buffer).GetDataBuffer(0);
        for (std::uint16_t i = 0; i < packet.GetEventCount(); ++i) {
            period.messages.push_back(
                MessageOfWord(packet.GetMidiMessageAtMessageIndex(i).dwEvent));
        }
        filled_.push_back(std::move(period));
        buffer.SetHasData(true);
    }

    void Stopped_() {
        std::scoped_lock lock(stopMutex_);
        ++stops_;
        stoppedThread_ = std::this_thread::get_id();
        stoppedThreadName_ = kit::threadNames.GetNameOfCurrentThread();
        stopped_.notify_all();
    }

    std::recursive_mutex clientMutex_;
    std::mutex positionMutex_;
    UserControls controls_;
    Clock clock_;
    HowToPlayWithMidiClock position_{controls_, clock_};
    velt_midi::ShowData show_;
    std::unique_ptr<TamberMidiStreamCollection> streams_;
    MidiStream* stream_ = nullptr;
    std::uint32_t ticksPerClock_ = 0;
    std::uint32_t lastTick_ = 0;
    std::uint32_t nextTick_ = 0;
    bool firstFill_ = true;
    std::vector<FilledPeriod> filled_;
    std::atomic<std::uint32_t> caesuraTick_{std::numeric_limits<std::uint32_t>::max()};

    std::mutex stopMutex_;
    std::condition_variable stopped_;
    int stops_ = 0;
    std::thread::id stoppedThread_;
    std::string stoppedThreadName_;

    std::unique_ptr<MidiOutputWin32> output_;  // last: destroyed first
};

}  // namespace playback
