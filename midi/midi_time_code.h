// SMPTE time code at the four MIDI Time Code frame rates, its arithmetic, and the two MIDI Time
// Code messages: the quarter frame (status 0xF1) and the full-frame universal real-time SysEx.
//
// A MidiTimeCode is a label hh:mm:ss:ff at a frame rate, refined by the quarter of the current
// frame (quarterFrameIndex) and the seconds past the frame's start (subFrameSeconds). At 29.97
// drop-frame the labels ;00 and ;01 do not exist in the first second of every minute that is not
// a multiple of ten; stepping, counting and the seconds conversions skip them.
//
// Frame counts and seconds. GetFrameCount counts real frames from 00:00:00:00. GetAsSeconds at
// drop-frame counts the hours as exact seconds and the minutes, seconds and frames as frames of
// 1/29.97 s (one hour of labels therefore lasts 3599.9996 s): this mixture is the system's rule
// and SetFromSeconds is its inverse. SetFromSeconds treats a time within kSecondsTolerance below
// a frame or quarter-frame boundary as on it, so that GetAsSeconds and SetFromSeconds round-trip
// whatever the rounding of the multiplication.
//
// Arithmetic. Adding a time code adds its frame count as a duration (hours wrap after 23), so at
// every rate adding n frames equals n single-frame increments, drop minutes included; the
// quarter index and sub-frame seconds of the left operand are kept.
//
// Not thread-safe: a value type, owned by one thread at a time (the generator guards its own).
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "midi/velt_midi_error.h"

/// The rate; each value is also the rate code of the MTC messages.
enum class FrameRate : std::uint8_t { Fps24 = 0, Fps25 = 1, Fps2997Drop = 2, Fps30 = 3 };

/// "24 fps", "25 fps", "29.97 fps drop", "30 fps"; std::logic_error "Unsupported frame rate"
/// for any other value.
std::string ConvertFrameRateToString(FrameRate rate);
/// The inverse of ConvertFrameRateToString for those four exact texts; std::logic_error
/// "Unsupported frame rate." for any other text.
FrameRate ConvertStringToFrameRate(const std::string& text);

/// One quarter-frame message: 0xF1, then the piece index (high nibble) and piece value.
class QuarterFrameMessage {
  public:
    /// Piece `index` carrying the nibble `value` (its low four bits).
    QuarterFrameMessage(unsigned char index, unsigned char value);
    /// Piece `index` carrying the high hour bit and the rate code (the form of piece 7).
    QuarterFrameMessage(unsigned char index, unsigned char hours, FrameRate rate);

    const unsigned char* Get() const { return bytes_.data(); }
    unsigned char GetIndex() const { return bytes_[1] >> 4; }
    /// The piece's nibble placed where it belongs in its field: the low nibble for an even
    /// index, shifted into the high nibble for an odd one, so that it can be OR-ed into place.
    unsigned char GetNibble() const;
    unsigned char GetDataByte() const { return bytes_[1]; }

  private:
    std::array<unsigned char, 2> bytes_;
};

/// The ten bytes of the full-frame message: F0 7F 7F 01 01 hr mn sc fr F7, where hr carries the
/// hours in its low five bits and the rate code in bits 5 and 6.
class FullFrameMessage {
  public:
    FullFrameMessage(unsigned char hours, unsigned char minutes, unsigned char seconds,
                     unsigned char frames, FrameRate rate);

    const unsigned char* Get() const { return bytes_.data(); }
    static constexpr std::size_t kSize = 10;
    unsigned char GetHours() const { return bytes_[5] & 0x1F; }
    unsigned char GetMinutes() const { return bytes_[6]; }
    unsigned char GetSeconds() const { return bytes_[7]; }
    unsigned char GetFrames() const { return bytes_[8]; }
    FrameRate GetFrameRate() const { return static_cast<FrameRate>((bytes_[5] >> 5) & 3); }

  private:
    std::array<unsigned char, kSize> bytes_;
};

class MidiTimeCode {
  public:
    /// Below a boundary by less than this, a time counts as on it (see the header comment).
    static constexpr double kSecondsTolerance = 1e-9;

    /// 00:00:00:00 at 30 fps.
    MidiTimeCode();
    /// Validated in this order, each with the offending value: frames (InvalidFrameCount
    /// "Invalid frameCount: %i"; at drop-frame ;00 and ;01 of a drop minute's first second are
    /// invalid), seconds < 60 (InvalidSecondCount "Invalid secondCount: %i"), minutes < 60
    /// (InvalidMinuteCount "Invalid minuteCount: %i"), hours < 24 (InvalidHourCount
    /// "Invalid hourCount: %i").
    MidiTimeCode(unsigned char hours, unsigned char minutes, unsigned char seconds,
                 unsigned char frames, FrameRate rate);
    /// The time code of `seconds` at `rate` (SetFromSeconds).
    MidiTimeCode(double seconds, FrameRate rate);
    // The step functions are member pointers, so a copy steps itself.
    MidiTimeCode(const MidiTimeCode&) = default;
    MidiTimeCode& operator=(const MidiTimeCode&) = default;

    FrameRate GetFrameRate() const { return frameRate; }
    /// Stores the rate and recomputes every member derived from it; the fields stay as they are.
    void SetFrameRate(FrameRate rate);

    /// A negative time (or not a number) is taken as 0, and a time past one day wraps.
    void SetFromSeconds(double seconds);
    double GetAsSeconds() const;
    /// "hh:mm:ss:ff", with ';' before the frames at drop-frame.
    std::string GetAsString() const;

    /// Piece `pieceIndex` (0..7) of this time; QuarterFrameIndexError "Index not supported by
    /// QuarterFrame." for any other index.
    QuarterFrameMessage GetQuarterFrameMessage(unsigned char pieceIndex) const;
    /// Puts the message's piece into place, unvalidated (a receiver's partial time may be
    /// invalid until all eight pieces are in). Piece 7 stores the rate without recomputing the
    /// derived members.
    void ProcessQuarterFrameMessage(const QuarterFrameMessage& message);
    FullFrameMessage GetFullFrameMessage() const;
    /// Copies the fields and stores the rate without recomputing the derived members.
    void SetFullFrameMessage(const FullFrameMessage& message);

    unsigned char GetQuarterFrameIndex() const { return quarterFrameIndex; }
    void SetQuarterFrameIndex(unsigned char index);
    /// One quarter of a frame on: the fourth steps the frame. The seconds past the frame's start
    /// move along, so GetAsSeconds grows by exactly one quarter frame.
    void IncrementQuarterFrame();

    /// Quarter frames of this time minus those of `other`, modulo 2^64.
    std::uint64_t GetDifferenceAsQuarterFrameCount(const MidiTimeCode& other) const;

    /// Fields, rate and quarter index.
    bool operator==(const MidiTimeCode& other) const;
    bool operator!=(const MidiTimeCode& other) const { return !(*this == other); }
    /// By quarter-frame count.
    bool operator<(const MidiTimeCode& other) const;

    MidiTimeCode& operator++();
    MidiTimeCode operator++(int);
    MidiTimeCode& operator--();
    MidiTimeCode operator--(int);
    /// Both MidiTimeCodeFrameRateError "Cannot add together time codes with different frame
    /// rates." when the rates differ.
    MidiTimeCode& operator+=(const MidiTimeCode& other);
    MidiTimeCode& operator-=(const MidiTimeCode& other);
    /// n frames: MidiTimeCode(0, 0, 0, n, rate), so n must be a valid frame number at the rate.
    MidiTimeCode& operator+=(unsigned char frameCount);
    MidiTimeCode& operator-=(unsigned char frameCount);
    MidiTimeCode operator+(const MidiTimeCode& other) const;
    MidiTimeCode operator-(const MidiTimeCode& other) const;
    MidiTimeCode operator+(unsigned char frameCount) const;
    MidiTimeCode operator-(unsigned char frameCount) const;

  private:
    using StepFunction = void (MidiTimeCode::*)();

    static unsigned char CreateMaxFrameIndex(FrameRate rate);
    static double CreateSecondsPerFrame(FrameRate rate);
    static char GetFrameCountSeparator(FrameRate rate);
    static StepFunction GetIncrementFunction(FrameRate rate);
    static StepFunction GetDecrementFunction(FrameRate rate);

    void IncrementForDropFrame();
    void IncrementForNonDropFrame();
    void DecrementForDropFrame();
    void DecrementForNonDropFrame();
    void IncrementFrameCount() { (this->*incrementFunction)(); }
    void DecrementFrameCount() { (this->*decrementFunction)(); }
    void IncrementSecondCount();
    void DecrementSecondCount();
    void IncrementMinuteCount();
    void DecrementMinuteCount();
    void IncrementHourCount();
    void DecrementHourCount();

    bool GetIsDropMinute() const { return minutes % 10 != 0; }
    /// 2 in the first second of a drop minute, else 0; the rate is the caller's business.
    unsigned char GetMinFrameCount() const;
    /// Frames in a minute of labels: 30 × 60 at drop-frame, fps × 60 otherwise.
    unsigned int GetMaxFrameCount() const;
    unsigned int GetRealFrameCount() const;
    std::uint32_t GetFrameCount() const;
    std::uint32_t GetFrameCountFromHours() const;
    std::uint32_t GetFrameCountFromMinutes() const;
    std::uint32_t GetFrameCountFromSeconds() const;
    std::uint64_t GetQuarterFrameCount() const {
        return std::uint64_t{GetFrameCount()} * 4 + quarterFrameIndex;
    }
    double GetSecondsPerFrame() const { return secondsPerFrame; }
    bool FrameCountIsValid() const;
    bool HourCountIsValid() const { return hours < 24; }
    bool MinuteCountIsValid() const { return minutes < 60; }

    /// Frames in one day of labels at the rate.
    std::uint32_t GetFramesPerDay_() const;
    /// Sets hours..frames to the label of real frame `count` (taken modulo one day).
    void SetFromFrameCount_(std::uint32_t count);
    /// Sets minutes..frames from `frameCount` real frames past the hour at drop-frame.
    void SetDropFrameLabelInHour_(std::uint32_t frameCount);
    void SetDerivedMembers_();

    unsigned char hours = 0;
    unsigned char minutes = 0;
    unsigned char seconds = 0;
    unsigned char frames = 0;
    FrameRate frameRate = FrameRate::Fps30;
    unsigned char maxFrameIndex = 29;
    char frameCountSeparator = ':';
    StepFunction incrementFunction = &MidiTimeCode::IncrementForNonDropFrame;
    StepFunction decrementFunction = &MidiTimeCode::DecrementForNonDropFrame;
    double secondsPerFrame = 0.03333333333333333;
    double subFrameSeconds = 0.0;
    unsigned char quarterFrameIndex = 0;
};
