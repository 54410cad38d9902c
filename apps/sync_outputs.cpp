#include "apps/sync_outputs.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "apps/play_support.h"
#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "midi/velt_midi_error.h"
#include "midi/win32/midi_device_info.h"

namespace velt_play {

namespace {
constexpr std::uint8_t kTimingClock = 0xF8;
constexpr std::uint8_t kStart = 0xFA;
constexpr std::uint8_t kContinue = 0xFB;
constexpr std::uint8_t kStop = 0xFC;
constexpr std::uint8_t kSongPosition = 0xF2;

constexpr FrameRate kRates[] = {FrameRate::Fps24, FrameRate::Fps25, FrameRate::Fps2997Drop,
                                FrameRate::Fps30};
}  // namespace

const char* const syncUsage =
    "  --mtc PORT          send MIDI Time Code to output device PORT (number or name); c\n"
    "                      switches it off and on, f chooses the frame rate\n"
    "  --mtc-rate RATE     24, 25, 29.97 (drop-frame) or 30 frames a second\n"
    "  --mtc-offset S      add S seconds to the time code (songs follow one another in name\n"
    "                      order)\n"
    "  --midi-clock PORT   send MIDI beat clock, song position and start/stop to PORT\n";

bool TakeSyncOption(const std::string& option, const std::function<std::string()>& value,
                    SyncCommandLine& into) {
    if (option == "--mtc") {
        into.timeCodePort = value();
    } else if (option == "--mtc-rate") {
        into.frameRate = value();
    } else if (option == "--mtc-offset") {
        into.offset = value();
    } else if (option == "--midi-clock") {
        into.beatClockPort = value();
    } else {
        return false;
    }
    return true;
}

namespace {
unsigned int DeviceIndex(const std::string& wanted) {
    const std::string name = ResolveDevice(wanted);
    const auto names = OutputDeviceNames();
    return static_cast<unsigned int>(std::find(names.begin(), names.end(), name) - names.begin());
}

std::string SettingsPath() {
    namespace fs = std::filesystem;
    const char* config = std::getenv("XDG_CONFIG_HOME");
    const char* home = std::getenv("HOME");
    fs::path folder = config && *config ? fs::path(config)
                      : home && *home   ? fs::path(home) / ".config"
                                        : fs::temp_directory_path();
    folder /= "velt-play";
    std::error_code ignored;  // a folder that cannot be made shows when the file is saved
    fs::create_directories(folder, ignored);
    return (folder / "time_code.settings").string();
}
}  // namespace

SyncOptions ResolveSyncOptions(const SyncCommandLine& line) {
    SyncOptions options;
    if (line.timeCodePort) {
        options.timeCodePort = DeviceIndex(*line.timeCodePort);
    }
    if (line.beatClockPort) {
        options.beatClockPort = DeviceIndex(*line.beatClockPort);
    }
    if (line.frameRate) {
        const std::string& text = *line.frameRate;
        const std::string full = text == "29.97" ? "29.97 fps drop" : text + " fps";
        try {
            options.frameRate =
                ConvertStringToFrameRate(text.find("fps") != std::string::npos ? text : full);
        } catch (const std::logic_error&) {
            throw std::invalid_argument("--mtc-rate is 24, 25, 29.97 or 30, not " + text);
        }
    }
    if (line.offset) {
        options.timeCodeOffset = ParseDecimal(*line.offset, "--mtc-offset");
        if (options.timeCodeOffset < 0) {
            throw std::invalid_argument("--mtc-offset must not be negative");
        }
    }
    options.settingsPath = SettingsPath();
    return options;
}

BeatClockPort::BeatClockPort(unsigned int deviceIndex) {
    const MMRESULT result = midiOutOpen(&handle_, deviceIndex, 0, 0, CALLBACK_NULL);
    if (result != MMSYSERR_NOERROR) {
        handle_ = nullptr;
        throw MidiPortError("the beat clock's output device " + std::to_string(deviceIndex) +
                            " cannot be opened: " + GetMidiOutErrorText(result));
    }
}

BeatClockPort::~BeatClockPort() {
    midiOutClose(handle_);
}

void BeatClockPort::Send(std::uint8_t status, std::uint8_t data1, std::uint8_t data2) {
    const DWORD word = status | (DWORD{data1} << 8) | (DWORD{data2} << 16);
    if (const MMRESULT result = midiOutShortMsg(handle_, word); result != MMSYSERR_NOERROR) {
        kit::CoutBuffer() << "WARNING: beat clock message not sent: " << GetMidiOutErrorText(result)
                          << kit::endl;
    }
}

SyncOutputs::SyncOutputs(const velt_midi::ShowData& show, SyncOptions options)
    : options_(std::move(options)), timeCode_(options_.settingsPath), converter_(show) {
    if (options_.beatClockPort) {
        beatClock_ = std::make_unique<BeatClockPort>(*options_.beatClockPort);
    }
    try {
        if (options_.frameRate) {
            timeCode_.SetFrameRate(*options_.frameRate);
        }
        if (options_.timeCodePort) {
            timeCode_.SetOutputPortIndex(*options_.timeCodePort);
        }
    } catch (const kit::IoError& error) {  // the choice holds for this run all the same
        kit::CoutBuffer() << "WARNING: time-code settings not saved: " << error.what() << kit::endl;
    }
    if (options_.timeCodePort) {
        timeCode_.StartMidiTimeCode();
    }
    pacer_ = std::thread([this] {
        kit::threadNames.SetNameOfCurrentThread("mtc_pacing");
        if (!SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL)) {
            kit::CoutBuffer() << "WARNING: time-code pacing runs at normal priority" << kit::endl;
        }
        try {
            Pace_();
        } catch (const std::exception& error) {
            VeltLogException(error.what(), "apps/sync_outputs", __LINE__);
        } catch (...) {
            VeltLogException("Unknown exception.", "apps/sync_outputs", __LINE__);
        }
    });
}

SyncOutputs::~SyncOutputs() {
    {
        std::scoped_lock lock(mutex_);
        exit_ = true;
    }
    paced_.notify_all();
    pacer_.join();
    timeCode_.Shutdown();
}

void SyncOutputs::StopPacing_() {
    anchor_.reset();
    ++run_;
    paced_.notify_all();
}

void SyncOutputs::Pace_() {
    constexpr std::int64_t kCoarseMarginNs = 2'000'000;  // the rest is the precise wait
    constexpr std::int64_t kSpinNs = 200'000;
    std::unique_lock lock(mutex_);
    std::uint64_t run = run_;
    std::optional<MidiTimeCode> next;  // the next quarter frame's boundary
    while (!exit_) {
        if (run != run_) {
            run = run_;
            next.reset();
        }
        if (!anchor_ || anchor_->rate <= 0.0) {
            paced_.wait(lock);
            continue;
        }
        const FrameRate rate = timeCode_.GetFrameRate();
        if (!next || next->GetFrameRate() != rate) {
            next = MidiTimeCode(anchor_->seconds, rate);
            next->SetQuarterFrameIndex(next->GetQuarterFrameIndex());  // the boundary at or before
            if (next->GetAsSeconds() < anchor_->seconds - MidiTimeCode::kSecondsTolerance) {
                next->IncrementQuarterFrame();
            }
        }
        const double boundary = next->GetAsSeconds();
        if (boundary >= anchor_->end - MidiTimeCode::kSecondsTolerance) {
            paced_.wait(lock);  // past what the clock has sent: wait for the next period
            continue;
        }
        const std::int64_t due =
            anchor_->realNs + std::llround((boundary - anchor_->seconds) / anchor_->rate * 1e9);
        const std::int64_t remaining = due - VeltPreciseTimeNow();
        if (remaining > kCoarseMarginNs) {
            paced_.wait_for(lock, std::chrono::nanoseconds(remaining - kCoarseMarginNs));
            continue;  // the anchor may have moved
        }
        const double showRate = anchor_->rate;
        lock.unlock();
        VeltPreciseWaitUntil(due, kSpinNs);
        lock.lock();
        if (run != run_ || exit_) {
            continue;
        }
        MidiTimeCode after = *next;
        after.IncrementQuarterFrame();
        const double end = after.GetAsSeconds();
        lock.unlock();
        timeCode_.SetMidiTimeCodeInterval(boundary, end, (end - boundary) / showRate);
        lock.lock();
        next = after;
    }
}

TransportHooks SyncOutputs::Hooks() {
    return TransportHooks{
        [this](const velt_midi::SongData& song, std::uint32_t tick) { Located_(song, tick); },
        [this](std::uint32_t tick) { Starting_(tick); },
        [this](std::uint32_t tick, double clockTime) { PeriodSent_(tick, clockTime); },
        [this] { Stopped_(); }};
}

double SyncOutputs::Seconds_(std::uint32_t tick) const {
    return converter_.ConvertTickIndexToSeconds(tick) + options_.timeCodeOffset;
}

void SyncOutputs::Located_(const velt_midi::SongData& song, std::uint32_t tick) {
    double seconds = 0.0;
    {
        std::scoped_lock lock(mutex_);
        StopPacing_();
        ticksPerQuarter_ = song.GetTicksPerQuarter();
        songEnd_ = song.GetTimeline().lastTickIndex;
        converter_.UpdateToNewSong(song.GetSongName(), ticksPerQuarter_);
        seconds = shownSeconds_ = Seconds_(tick);
        if (beatClock_) {
            // Song Position Pointer counts sixteenth notes, 14 bits, low seven first.
            const std::uint32_t sixteenths =
                ticksPerQuarter_ >= 4 ? tick / (ticksPerQuarter_ / 4) : 0;
            const std::uint32_t position = std::min<std::uint32_t>(sixteenths, 0x3FFF);
            beatClock_->Send(kSongPosition, position & 0x7F, (position >> 7) & 0x7F);
        }
    }
    timeCode_.SendMidiTimeCodeWithSeconds(seconds);
}

void SyncOutputs::Starting_(std::uint32_t tick) {
    std::scoped_lock lock(mutex_);
    running_ = true;
    if (beatClock_) {
        beatClock_->Send(tick == 0 ? kStart : kContinue);
    }
}

void SyncOutputs::PeriodSent_(std::uint32_t tick, double clockTime) {
    const std::int64_t now = VeltPreciseTimeNow();
    std::scoped_lock lock(mutex_);
    if (tick >= songEnd_) {  // the period at the song's end sends nothing of the song
        return;
    }
    if (beatClock_) {
        beatClock_->Send(kTimingClock);
    }
    const auto [from, to] = converter_.GetTimeCodeSecondsPair(tick);
    shownSeconds_ = from + options_.timeCodeOffset;
    anchor_ = Anchor{now, shownSeconds_, clockTime > 0.0 ? (to - from) / clockTime : 0.0,
                     to + options_.timeCodeOffset};
    paced_.notify_all();
}

void SyncOutputs::Stopped_() {
    std::scoped_lock lock(mutex_);
    StopPacing_();
    if (beatClock_ && running_) {
        beatClock_->Send(kStop);
    }
    running_ = false;
}

std::string SyncOutputs::ToggleTimeCode() {
    if (timeCode_.GetIsActive()) {
        timeCode_.CancelMidiTimeCode();
        return "Time code off.";
    }
    if (!timeCode_.GetHasOutputPortIndex()) {
        return "Time code needs an output: start with --mtc PORT.";
    }
    timeCode_.StartMidiTimeCode();
    double seconds = 0.0;
    {
        std::scoped_lock lock(mutex_);
        seconds = shownSeconds_;
    }
    timeCode_.SendMidiTimeCodeWithSeconds(seconds);  // locate the receivers at once
    return "Time code on.";
}

std::string SyncOutputs::NextFrameRate() {
    const auto current = static_cast<std::size_t>(timeCode_.GetFrameRate());
    const FrameRate next = kRates[(current + 1) % std::size(kRates)];
    try {
        timeCode_.SetFrameRate(next);
    } catch (const kit::IoError& error) {
        return "Frame rate " + ConvertFrameRateToString(next) + " (not saved: " + error.what() +
               ")";
    }
    return "Frame rate " + ConvertFrameRateToString(next) + ".";
}

std::string SyncOutputs::StatusLine() {
    if (!timeCode_.GetHasOutputPortIndex() && !beatClock_) {
        return "";
    }
    double seconds = 0.0;
    {
        std::scoped_lock lock(mutex_);
        seconds = shownSeconds_;
    }
    const FrameRate rate = timeCode_.GetFrameRate();
    std::string line = "time code " + MidiTimeCode(seconds, rate).GetAsString() + " " +
                       ConvertFrameRateToString(rate) +
                       (timeCode_.GetIsActive() ? "" : " (off: c switches it on)");
    if (beatClock_) {
        line += "   beat clock on";
    }
    return line;
}

}  // namespace velt_play
