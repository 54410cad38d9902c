// The player's sync outputs, for equipment that follows the show: MIDI Time Code (a full frame on
// every locate, quarter frames while playing, through the engine's time-code controller) and
// MIDI beat clock (0xF8 once per clock period as the show's clock runs, so tempo scale and
// caesuras are followed; Song Position Pointer on every locate; Start, Continue and Stop with
// the transport).
//
// Time code is show time: the songs lie end to end in ascending name order (the engine's
// time-code references), plus an offset the performer gives; a song is located by the show time
// of its tick.
//
// Pacing. A clock period is not a whole number of quarter frames, and the generator sends the
// first quarter frame of each stretch the moment it is handed over; so the stretches are not the
// clock's periods. Each period sent anchors the show time of its clock at the real time it was
// sent, with the rate show time runs at (one clock of show time over the period's real length:
// tempo scale included). A pacing thread hands the generator one quarter frame at a time, at the
// real time the anchor puts that quarter frame's boundary, and never past the end of the last
// period sent: when the clock stops (a stop, a caesura, the end) the time code stops with it.
//
// Threads: the session calls the hooks from the host thread (locate, start, stop), the clock's
// thread (each period sent) and the output's stopped thread (the song's end, a caesura); the
// console calls the switches and the texts from the host thread; the pacing thread
// ("mtc_pacing", time-critical) calls the time-code controller. Locks: the outputs' mutex around
// their own state, the anchor and the beat-clock port; it is released before the time-code
// controller is called, which takes its own. No lock of the session is held when a hook runs
// (the session says where it calls them).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "apps/show_session.h"
#include "midi/time_code_controller.h"
#include "midi/time_code_converter.h"
#include "platform/mmsystem.h"

namespace velt_play {

struct SyncOptions {
    std::optional<unsigned int> timeCodePort;  // output device index
    std::optional<unsigned int> beatClockPort;
    std::optional<FrameRate> frameRate;  // else the settings file's
    double timeCodeOffset = 0.0;         // seconds added to every time code
    std::string settingsPath;            // the time-code settings file
};

/// A MIDI output device opened for single messages (beat clock bytes, Song Position Pointer).
/// Threads: any; the caller serialises.
class BeatClockPort {
  public:
    /// Throws MidiPortError when the device cannot be opened.
    explicit BeatClockPort(unsigned int deviceIndex);
    ~BeatClockPort();
    BeatClockPort(const BeatClockPort&) = delete;
    BeatClockPort& operator=(const BeatClockPort&) = delete;
    void Send(std::uint8_t status, std::uint8_t data1 = 0, std::uint8_t data2 = 0);

  private:
    HMIDIOUT handle_ = nullptr;
};

/// The sync outputs the command line asks for, as written.
struct SyncCommandLine {
    std::optional<std::string> timeCodePort;
    std::optional<std::string> beatClockPort;
    std::optional<std::string> frameRate;
    std::optional<std::string> offset;
    bool Any() const { return timeCodePort || beatClockPort; }
};
/// The command line's help for the options below.
extern const char* const syncUsage;
/// Takes --mtc PORT, --mtc-rate RATE, --mtc-offset SECONDS and --midi-clock PORT (`value`
/// yields the option's value); false for any other option.
bool TakeSyncOption(const std::string& option, const std::function<std::string()>& value,
                    SyncCommandLine& into);
/// The options for SyncOutputs: ports resolved as --device is (std::out_of_range), the rate
/// ("24", "25", "29.97", "30" or a rate's full text) and the offset checked
/// (std::invalid_argument). The settings file is time_code.settings in the user's
/// configuration folder for velt-play.
SyncOptions ResolveSyncOptions(const SyncCommandLine& line);

class SyncOutputs {
  public:
    /// Opens the beat-clock port and, with a time-code port, switches time code on.
    SyncOutputs(const velt_midi::ShowData& show, SyncOptions options);
    ~SyncOutputs();
    SyncOutputs(const SyncOutputs&) = delete;
    SyncOutputs& operator=(const SyncOutputs&) = delete;

    /// The hooks to hand to ShowSession::SetTransportHooks.
    TransportHooks Hooks();

    /// Time code on or off (on needs a port). Returns a line for the performer.
    std::string ToggleTimeCode();
    /// The next of the four frame rates. Returns a line for the performer.
    std::string NextFrameRate();
    /// The status area's line: time code and rate, or "" when neither output is in use.
    std::string StatusLine();

  private:
    void Located_(const velt_midi::SongData& song, std::uint32_t tick);
    void Starting_(std::uint32_t tick);
    void PeriodSent_(std::uint32_t tick, double clockTime);
    void Stopped_();
    double Seconds_(std::uint32_t tick) const;  // with the mutex held
    void Pace_();
    /// No anchor: the pacing thread waits; a new run starts its boundaries afresh.
    void StopPacing_();  // with the mutex held

    SyncOptions options_;
    MidiTimeCodeController timeCode_;
    std::mutex mutex_;
    TimeCodeConverter converter_;
    std::unique_ptr<BeatClockPort> beatClock_;
    std::uint32_t ticksPerQuarter_ = 480;
    std::uint32_t songEnd_ = 0;  // the current song's last tick
    double shownSeconds_ = 0.0;  // show time of the last locate or period
    bool running_ = false;       // beat clock started and not stopped

    // Where show time stands in real time: `seconds` at `realNs` (the platform's precise clock),
    // running at `rate` show seconds per real second, sent up to `end`.
    struct Anchor {
        std::int64_t realNs = 0;
        double seconds = 0.0;
        double rate = 0.0;
        double end = 0.0;
    };
    std::optional<Anchor> anchor_;  // none while the clock is not running
    std::uint64_t run_ = 0;         // one more on every locate and stop
    bool exit_ = false;
    std::condition_variable paced_;  // a new anchor, a stop, the exit
    std::thread pacer_;              // last: starts once every field above exists
};

}  // namespace velt_play
