// The song model's records, events and display texts.
#include <iomanip>
#include <sstream>

#include "interfaces/change_log.h"
#include "interfaces/kit.h"
#include "interfaces/song_data.h"
#include "interfaces/timeline.h"

namespace codes {
const std::map<unsigned char, std::string> editNameByVeltEventCode = {
    {TL::Tempo::evt_code, "Tempo"},           {TL::BarsBeats::evt_code, "BarsBeats"},
    {TL::Meter::evt_code, "Meter"},           {TL::Key::evt_code, "Key"},
    {TL::PageNum::evt_code, "PageNum"},       {CL::Click::evt_code, "Click"},
    {CL::TempoScale::evt_code, "TempoScale"}, {CL::Transpose::evt_code, "Transpose"},
    {CL::Marker::evt_code, "Marker"},
};
}  // namespace codes

namespace {
std::string EventName(unsigned char code) {
    auto it = codes::editNameByVeltEventCode.find(code);
    return it == codes::editNameByVeltEventCode.end() ? std::string("?") : it->second;
}

// Hands a multi-line dump to a CoutBuffer one line at a time, so that each line reaches the log
// as one unit.
void WriteLines(kit::CoutBuffer& out, const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        out << line << kit::endl;
    }
}
}  // namespace

void cmn::VELTSequence::WriteString(kit::CoutBuffer& out) const {
    std::ostringstream text;
    WriteString(text);
    WriteLines(out, text.str());
}

// ---------------------------------------------------------------------------------------------
// Timeline records

namespace TL {

// Each accessor divides one exact integer quantity by another (both below 2^53, so a double holds
// them exactly): the result is correctly rounded, with no error piled up by chained divisions.

double Tempo::tick_time(std::uint16_t ticksPerQuarter) const {
    if (ticksPerQuarter == 0) {
        return 0.0;
    }
    return static_cast<double>(microseconds_per_quarter) / (1e6 * ticksPerQuarter);
}

double Tempo::seconds_per_clock() const {
    return static_cast<double>(microseconds_per_quarter) / 24e6;
}

double Tempo::bpm(unsigned char clocksPerClick) const {
    // 60 s / (clocks × us per quarter / (24 × 10^6)) = 1.44 × 10^9 / (clocks × us per quarter).
    const double denominator = static_cast<double>(clocksPerClick) * microseconds_per_quarter;
    if (denominator == 0.0) {
        return 0.0;
    }
    return 1.44e9 / denominator;
}

void Tempo::WriteString(std::ostream& out) const {
    out << "Tempo(" << tick_index << ", " << microseconds_per_quarter << " us/quarter)";
}

void BarsBeats::WriteString(std::ostream& out) const {
    out << "BarsBeats(" << tick_index << ", " << as_string(*this) << ", beat " << beat << ")";
}

void Meter::WriteString(std::ostream& out) const {
    out << "Meter(" << tick_index << ", " << as_string(*this) << ", "
        << static_cast<int>(clocks_per_click) << " clocks/click, "
        << static_cast<int>(notated_32nds) << " 32nds)";
}

void Key::WriteString(std::ostream& out) const {
    out << "Key(" << tick_index << ", " << Keys::getTransposedName(minor, sharps_flats, 0) << ")";
}

void PageNum::WriteString(std::ostream& out) const {
    out << "PageNum(" << tick_index << ", " << page << ")";
}

}  // namespace TL

std::string as_string(const TL::BarsBeats& barsBeats) {
    return std::to_string(barsBeats.bar) + ":" + std::to_string(barsBeats.bar_beat);
}

std::string as_string(const TL::Meter& meter) {
    return std::to_string(meter.numerator) + "/" + std::to_string(meter.denominator);
}

// ---------------------------------------------------------------------------------------------
// Change-log events

namespace CL {

void PairedEvent::WriteString(std::ostream& out) const {
    out << EventName(code()) << "[" << start() << ", " << end() << ") " << value();
}

void PairedEvent::WriteString(kit::CoutBuffer& out) const {
    std::ostringstream text;
    WriteString(text);
    out << text.str();
}

std::string Click::value() const {
    return std::to_string(int_value()) + "/32";
}

std::uint32_t Click::ClocksPerClick(unsigned char meterNotated32nds) const {
    if (meterNotated32nds == 0 || int_value() <= 0) {
        return 0;
    }
    return static_cast<std::uint32_t>(int_value()) * 24u / meterNotated32nds;
}

std::string TempoScale::value() const {
    std::ostringstream text;
    text << std::fixed << std::setprecision(2) << float_value();
    return text.str();
}

std::string Transpose::value() const {
    int semitones = int_value();
    std::string text = semitones > 0 ? "+" : "";
    text.append(std::to_string(semitones));
    return text;
}

void Marker::WriteString(std::ostream& out) const {
    out << "Marker(" << tick_index << ", \"" << text << "\")";
}

}  // namespace CL

// ---------------------------------------------------------------------------------------------
// Voice events and groups

namespace velt_midi {

// The status is formatted on its own, so the caller's stream keeps its fill, base and case.
void VoiceEvent::WriteString(std::ostream& out) const {
    out << time << " 0x" << kit::format("%02X", static_cast<unsigned>(status)) << ' '
        << static_cast<int>(data1) << ' ' << static_cast<int>(data2);
}

std::set<unsigned short> Groups::GetGroup(unsigned char group) const {
    auto it = groups_.find(group);
    return it == groups_.end() ? std::set<unsigned short>() : it->second;
}

void Groups::SetGroup(unsigned char group, std::set<unsigned short> trackIds) {
    groups_[group] = std::move(trackIds);
}

}  // namespace velt_midi
