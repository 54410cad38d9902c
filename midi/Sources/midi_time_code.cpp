#include "midi/midi_time_code.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "interfaces/kit.h"

namespace {

constexpr unsigned char kStatusQuarterFrame = 0xF1;
constexpr std::uint32_t kHoursPerDay = 24;

// floor(x) that takes a value within the tolerance below the next integer as that integer.
double FloorWithTolerance(double x, double unit) {
    return std::floor(x + MidiTimeCode::kSecondsTolerance / unit);
}

// The dropped labels before minute m of an hour: two in every completed minute that is not a
// multiple of ten (taken modulo 256 as the counting has always done).
unsigned char DroppedMinutesBefore(unsigned int m) {
    return static_cast<unsigned char>(m - (m + 9) / 10);
}

}  // namespace

std::string ConvertFrameRateToString(FrameRate rate) {
    switch (rate) {
        case FrameRate::Fps24:
            return "24 fps";
        case FrameRate::Fps25:
            return "25 fps";
        case FrameRate::Fps2997Drop:
            return "29.97 fps drop";
        case FrameRate::Fps30:
            return "30 fps";
    }
    throw std::logic_error("Unsupported frame rate");
}

FrameRate ConvertStringToFrameRate(const std::string& text) {
    for (const FrameRate rate :
         {FrameRate::Fps24, FrameRate::Fps25, FrameRate::Fps2997Drop, FrameRate::Fps30}) {
        if (text == ConvertFrameRateToString(rate)) {
            return rate;
        }
    }
    throw std::logic_error("Unsupported frame rate.");
}

// --- messages ---

QuarterFrameMessage::QuarterFrameMessage(unsigned char index, unsigned char value)
    : bytes_{kStatusQuarterFrame, static_cast<unsigned char>((index << 4) | (value & 0x0F))} {}

QuarterFrameMessage::QuarterFrameMessage(unsigned char index, unsigned char hours, FrameRate rate)
    : bytes_{kStatusQuarterFrame,
             static_cast<unsigned char>((index << 4) | (static_cast<unsigned>(rate) << 1) |
                                        ((hours >> 4) & 1))} {}

unsigned char QuarterFrameMessage::GetNibble() const {
    return GetIndex() % 2 == 0 ? bytes_[1] & 0x0F : static_cast<unsigned char>(bytes_[1] << 4);
}

FullFrameMessage::FullFrameMessage(unsigned char hours, unsigned char minutes,
                                   unsigned char seconds, unsigned char frames, FrameRate rate)
    : bytes_{0xF0,
             0x7F,
             0x7F,
             0x01,
             0x01,
             static_cast<unsigned char>((hours & 0x1F) | ((static_cast<unsigned>(rate) & 7) << 5)),
             minutes,
             seconds,
             frames,
             0xF7} {}

// --- construction and rate ---

MidiTimeCode::MidiTimeCode() {
    SetDerivedMembers_();
}

MidiTimeCode::MidiTimeCode(unsigned char h, unsigned char m, unsigned char s, unsigned char f,
                           FrameRate rate)
    : hours(h), minutes(m), seconds(s), frames(f), frameRate(rate) {
    SetDerivedMembers_();
    if (!FrameCountIsValid()) {
        throw InvalidFrameCount(kit::format("Invalid frameCount: %i", int{frames}));
    }
    if (seconds >= 60) {
        throw InvalidSecondCount(kit::format("Invalid secondCount: %i", int{seconds}));
    }
    if (!MinuteCountIsValid()) {
        throw InvalidMinuteCount(kit::format("Invalid minuteCount: %i", int{minutes}));
    }
    if (!HourCountIsValid()) {
        throw InvalidHourCount(kit::format("Invalid hourCount: %i", int{hours}));
    }
}

MidiTimeCode::MidiTimeCode(double secondsValue, FrameRate rate) : frameRate(rate) {
    SetDerivedMembers_();
    SetFromSeconds(secondsValue);
}

void MidiTimeCode::SetFrameRate(FrameRate rate) {
    frameRate = rate;
    SetDerivedMembers_();
}

void MidiTimeCode::SetDerivedMembers_() {
    maxFrameIndex = CreateMaxFrameIndex(frameRate);
    frameCountSeparator = GetFrameCountSeparator(frameRate);
    incrementFunction = GetIncrementFunction(frameRate);
    decrementFunction = GetDecrementFunction(frameRate);
    secondsPerFrame = CreateSecondsPerFrame(frameRate);
}

unsigned char MidiTimeCode::CreateMaxFrameIndex(FrameRate rate) {
    switch (rate) {
        case FrameRate::Fps24:
            return 23;
        case FrameRate::Fps25:
            return 24;
        default:
            return 29;
    }
}

double MidiTimeCode::CreateSecondsPerFrame(FrameRate rate) {
    switch (rate) {
        case FrameRate::Fps24:
            return 0.041666666666666664;
        case FrameRate::Fps25:
            return 0.04;
        case FrameRate::Fps2997Drop:
            return 0.033366700033366704;
        default:
            return 0.03333333333333333;
    }
}

char MidiTimeCode::GetFrameCountSeparator(FrameRate rate) {
    return rate == FrameRate::Fps2997Drop ? ':' + 1 : ':';
}

MidiTimeCode::StepFunction MidiTimeCode::GetIncrementFunction(FrameRate rate) {
    return rate == FrameRate::Fps2997Drop ? &MidiTimeCode::IncrementForDropFrame
                                          : &MidiTimeCode::IncrementForNonDropFrame;
}

MidiTimeCode::StepFunction MidiTimeCode::GetDecrementFunction(FrameRate rate) {
    return rate == FrameRate::Fps2997Drop ? &MidiTimeCode::DecrementForDropFrame
                                          : &MidiTimeCode::DecrementForNonDropFrame;
}

// --- stepping ---

void MidiTimeCode::IncrementForNonDropFrame() {
    if (frames != maxFrameIndex) {
        ++frames;
    } else {
        frames = 0;
        IncrementSecondCount();
    }
}

void MidiTimeCode::IncrementForDropFrame() {
    if (frames == maxFrameIndex) {
        IncrementSecondCount();
        frames = GetMinFrameCount();  // of the new second
    } else {
        ++frames;
    }
}

void MidiTimeCode::DecrementForNonDropFrame() {
    if (frames != 0) {
        --frames;
    } else {
        frames = maxFrameIndex;
        DecrementSecondCount();
    }
}

void MidiTimeCode::DecrementForDropFrame() {
    if (frames != GetMinFrameCount()) {
        --frames;
    } else {
        frames = maxFrameIndex;
        DecrementSecondCount();
    }
}

void MidiTimeCode::IncrementSecondCount() {
    if (seconds != 59) {
        ++seconds;
    } else {
        seconds = 0;
        IncrementMinuteCount();
    }
}

void MidiTimeCode::DecrementSecondCount() {
    if (seconds != 0) {
        --seconds;
    } else {
        seconds = 59;
        DecrementMinuteCount();
    }
}

void MidiTimeCode::IncrementMinuteCount() {
    if (minutes != 59) {
        ++minutes;
    } else {
        minutes = 0;
        IncrementHourCount();
    }
}

void MidiTimeCode::DecrementMinuteCount() {
    if (minutes != 0) {
        --minutes;
    } else {
        minutes = 59;
        DecrementHourCount();
    }
}

void MidiTimeCode::IncrementHourCount() {
    hours = hours == 23 ? 0 : hours + 1;
}

void MidiTimeCode::DecrementHourCount() {
    hours = hours == 0 ? 23 : hours - 1;
}

void MidiTimeCode::SetQuarterFrameIndex(unsigned char index) {
    quarterFrameIndex = index;
    subFrameSeconds = secondsPerFrame * 0.25 * index;
}

// The seconds past the frame's start move with the quarter, keeping the time's place inside its
// quarter: GetAsSeconds is then exactly one quarter frame on, which a caller stepping boundary by
// boundary relies on.
void MidiTimeCode::IncrementQuarterFrame() {
    const double quarter = secondsPerFrame * 0.25;
    const double withinQuarter =
        std::clamp(subFrameSeconds - quarter * quarterFrameIndex, 0.0, quarter);
    if (quarterFrameIndex != 3) {
        ++quarterFrameIndex;
    } else {
        quarterFrameIndex = 0;
        IncrementFrameCount();
    }
    subFrameSeconds = quarter * quarterFrameIndex + withinQuarter;
}

// --- counting ---

unsigned char MidiTimeCode::GetMinFrameCount() const {
    return GetIsDropMinute() && seconds == 0 ? 2 : 0;
}

unsigned int MidiTimeCode::GetMaxFrameCount() const {
    return (maxFrameIndex + 1u) * 60u;
}

unsigned int MidiTimeCode::GetRealFrameCount() const {
    return frameRate == FrameRate::Fps2997Drop ? frames - GetMinFrameCount() : frames;
}

std::uint32_t MidiTimeCode::GetFrameCountFromHours() const {
    switch (frameRate) {
        case FrameRate::Fps24:
            return hours * 86400u;
        case FrameRate::Fps25:
            return hours * 90000u;
        case FrameRate::Fps2997Drop:
            return hours * 107892u;
        default:
            return hours * 108000u;
    }
}

std::uint32_t MidiTimeCode::GetFrameCountFromMinutes() const {
    if (frameRate == FrameRate::Fps2997Drop) {
        return 2u * (minutes * 900u - DroppedMinutesBefore(minutes));
    }
    return minutes * 60u * (maxFrameIndex + 1u);
}

std::uint32_t MidiTimeCode::GetFrameCountFromSeconds() const {
    if (frameRate == FrameRate::Fps2997Drop) {
        return seconds * 30u - (GetIsDropMinute() && seconds > 0 ? 2u : 0u);
    }
    return seconds * (maxFrameIndex + 1u);
}

std::uint32_t MidiTimeCode::GetFrameCount() const {
    return GetFrameCountFromHours() + GetFrameCountFromMinutes() + GetFrameCountFromSeconds() +
           GetRealFrameCount();
}

bool MidiTimeCode::FrameCountIsValid() const {
    if (frameRate == FrameRate::Fps2997Drop) {
        return GetMinFrameCount() <= frames && frames <= maxFrameIndex;
    }
    return frames <= maxFrameIndex;
}

std::uint64_t MidiTimeCode::GetDifferenceAsQuarterFrameCount(const MidiTimeCode& other) const {
    return GetQuarterFrameCount() - other.GetQuarterFrameCount();
}

// --- seconds ---

double MidiTimeCode::GetAsSeconds() const {
    if (frameRate != FrameRate::Fps2997Drop) {
        return hours * 3600.0 + minutes * 60.0 + seconds + GetRealFrameCount() * secondsPerFrame +
               subFrameSeconds;
    }
    const unsigned char d = DroppedMinutesBefore(minutes);
    int f = 2 * (15 * (60 * minutes + seconds) - d);
    if (GetIsDropMinute() && seconds > 0) {
        f -= 2;
    }
    return hours * 3600.0 + f * secondsPerFrame + GetRealFrameCount() * secondsPerFrame +
           subFrameSeconds;
}

void MidiTimeCode::SetFromSeconds(double x) {
    if (!(x > 0.0)) {  // negative or not a number: the start of the day
        x = 0.0;
    }
    x = std::fmod(x, kHoursPerDay * 3600.0);
    const double wholeHours = FloorWithTolerance(x / 3600.0, 3600.0);
    const double r = x - wholeHours * 3600.0;
    hours = static_cast<unsigned char>(static_cast<unsigned>(wholeHours) % kHoursPerDay);
    const double quarter = secondsPerFrame * 0.25;
    double frameSeconds = 0.0;
    if (frameRate != FrameRate::Fps2997Drop) {
        minutes = static_cast<unsigned char>(FloorWithTolerance(r / 60.0, 60.0));
        const double q = r - minutes * 60.0;
        seconds = static_cast<unsigned char>(FloorWithTolerance(q, 1.0));
        frameSeconds = q - seconds;
        frames = static_cast<unsigned char>(
            FloorWithTolerance(frameSeconds / secondsPerFrame, secondsPerFrame));
        subFrameSeconds = frameSeconds - frames * secondsPerFrame;
    } else {
        const auto f =
            static_cast<std::uint32_t>(FloorWithTolerance(r / secondsPerFrame, secondsPerFrame));
        subFrameSeconds = r - f * secondsPerFrame;
        SetDropFrameLabelInHour_(f);
    }
    if (subFrameSeconds < 0.0) {  // the tolerance put the time on the boundary just above it
        subFrameSeconds = 0.0;
    }
    quarterFrameIndex = static_cast<unsigned char>(
        std::min(3.0, FloorWithTolerance(subFrameSeconds / quarter, quarter)));
}

void MidiTimeCode::SetDropFrameLabelInHour_(std::uint32_t f) {
    std::uint32_t l = GetMaxFrameCount();  // 1800 labels in a minute
    std::uint32_t m = f / l;
    std::uint32_t r = f - m * l + 2u * DroppedMinutesBefore(m);
    if (m % 10 != 0) {
        l = 1798;
    }
    if (r >= l) {
        ++m;
        r -= l;
    }
    std::uint32_t p = 30;
    std::uint32_t s = r / 30;
    r -= s * 30;
    const bool dropMinute = m % 10 != 0;
    if (dropMinute) {
        if (s != 0) {
            r += 2;
        } else {
            p = 28;
        }
    }
    if (r >= p) {
        ++s;
        r -= p;
    }
    if (dropMinute && s == 0) {
        r += 2;
    }
    minutes = static_cast<unsigned char>(m);
    seconds = static_cast<unsigned char>(s);
    frames = static_cast<unsigned char>(r);
}

std::string MidiTimeCode::GetAsString() const {
    char text[16];
    std::snprintf(text, sizeof text, "%02u:%02u:%02u%c%02u", unsigned{hours}, unsigned{minutes},
                  unsigned{seconds}, frameCountSeparator, unsigned{frames});
    return text;
}

// --- messages ---

QuarterFrameMessage MidiTimeCode::GetQuarterFrameMessage(unsigned char piece) const {
    if (piece > 7) {
        throw QuarterFrameIndexError("Index not supported by QuarterFrame.");
    }
    if (piece == 7) {
        return QuarterFrameMessage(piece, hours, frameRate);
    }
    static constexpr unsigned char MidiTimeCode::*kFields[] = {
        &MidiTimeCode::frames, &MidiTimeCode::seconds, &MidiTimeCode::minutes,
        &MidiTimeCode::hours};
    const unsigned char value = this->*kFields[piece / 2];
    return QuarterFrameMessage(piece, piece % 2 == 1 ? value >> 4 : value & 0x0F);
}

void MidiTimeCode::ProcessQuarterFrameMessage(const QuarterFrameMessage& message) {
    const unsigned char index = message.GetIndex();
    const unsigned char nibble = message.GetNibble();
    auto place = [&](unsigned char& field) {
        field = index % 2 == 0 ? (field & 0xF0) | nibble : (field & 0x0F) | nibble;
    };
    switch (index) {
        case 0:
        case 1:
            place(frames);
            break;
        case 2:
        case 3:
            place(seconds);
            break;
        case 4:
        case 5:
            place(minutes);
            break;
        case 6:
            place(hours);
            break;
        default: {
            const unsigned char d = message.GetDataByte();
            hours = static_cast<unsigned char>((hours % 16) | ((d & 1) << 4));
            frameRate = static_cast<FrameRate>((d >> 1) & 3);
            break;
        }
    }
}

FullFrameMessage MidiTimeCode::GetFullFrameMessage() const {
    return FullFrameMessage(hours, minutes, seconds, frames, frameRate);
}

void MidiTimeCode::SetFullFrameMessage(const FullFrameMessage& message) {
    hours = message.GetHours();
    minutes = message.GetMinutes();
    seconds = message.GetSeconds();
    frames = message.GetFrames();
    frameRate = message.GetFrameRate();
}

// --- comparison and arithmetic ---

bool MidiTimeCode::operator==(const MidiTimeCode& other) const {
    return frames == other.frames && seconds == other.seconds && minutes == other.minutes &&
           hours == other.hours && frameRate == other.frameRate &&
           quarterFrameIndex == other.quarterFrameIndex;
}

bool MidiTimeCode::operator<(const MidiTimeCode& other) const {
    return GetQuarterFrameCount() < other.GetQuarterFrameCount();
}

MidiTimeCode& MidiTimeCode::operator++() {
    IncrementFrameCount();
    return *this;
}

MidiTimeCode MidiTimeCode::operator++(int) {
    MidiTimeCode before(*this);
    IncrementFrameCount();
    return before;
}

MidiTimeCode& MidiTimeCode::operator--() {
    DecrementFrameCount();
    return *this;
}

MidiTimeCode MidiTimeCode::operator--(int) {
    MidiTimeCode before(*this);
    DecrementFrameCount();
    return before;
}

std::uint32_t MidiTimeCode::GetFramesPerDay_() const {
    MidiTimeCode oneHour(*this);
    oneHour.hours = 1;
    oneHour.minutes = oneHour.seconds = oneHour.frames = 0;
    return oneHour.GetFrameCountFromHours() * kHoursPerDay;
}

void MidiTimeCode::SetFromFrameCount_(std::uint32_t count) {
    count %= GetFramesPerDay_();
    const std::uint32_t perHour = GetFramesPerDay_() / kHoursPerDay;
    hours = static_cast<unsigned char>(count / perHour);
    count %= perHour;
    if (frameRate == FrameRate::Fps2997Drop) {
        SetDropFrameLabelInHour_(count);
        return;
    }
    const std::uint32_t perSecond = maxFrameIndex + 1u;
    minutes = static_cast<unsigned char>(count / (perSecond * 60));
    count %= perSecond * 60;
    seconds = static_cast<unsigned char>(count / perSecond);
    frames = static_cast<unsigned char>(count % perSecond);
}

MidiTimeCode& MidiTimeCode::operator+=(const MidiTimeCode& other) {
    if (other.frameRate != frameRate) {
        throw MidiTimeCodeFrameRateError(
            "Cannot add together time codes with different frame rates.");
    }
    SetFromFrameCount_(GetFrameCount() + other.GetFrameCount());
    return *this;
}

MidiTimeCode& MidiTimeCode::operator-=(const MidiTimeCode& other) {
    if (other.frameRate != frameRate) {
        throw MidiTimeCodeFrameRateError(
            "Cannot add together time codes with different frame rates.");
    }
    const std::uint32_t day = GetFramesPerDay_();
    SetFromFrameCount_(GetFrameCount() + day - other.GetFrameCount() % day);
    return *this;
}

MidiTimeCode& MidiTimeCode::operator+=(unsigned char frameCount) {
    return *this += MidiTimeCode(0, 0, 0, frameCount, frameRate);
}

MidiTimeCode& MidiTimeCode::operator-=(unsigned char frameCount) {
    return *this -= MidiTimeCode(0, 0, 0, frameCount, frameRate);
}

MidiTimeCode MidiTimeCode::operator+(const MidiTimeCode& other) const {
    MidiTimeCode sum(*this);
    return sum += other;
}

MidiTimeCode MidiTimeCode::operator-(const MidiTimeCode& other) const {
    MidiTimeCode difference(*this);
    return difference -= other;
}

MidiTimeCode MidiTimeCode::operator+(unsigned char frameCount) const {
    MidiTimeCode sum(*this);
    return sum += frameCount;
}

MidiTimeCode MidiTimeCode::operator-(unsigned char frameCount) const {
    MidiTimeCode difference(*this);
    return difference -= frameCount;
}
