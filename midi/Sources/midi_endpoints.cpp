#include "midi/midi_endpoints.h"

#include <algorithm>
#include <iostream>
#include <memory>

#include "midi/win32/midi_input_win32.h"
#include "midi/win32/midi_output_ports_win32.h"

namespace {

std::vector<MidiEndPoint> NonVeltEndPoints(const std::vector<std::shared_ptr<MidiPort>>& ports) {
    std::vector<MidiEndPoint> endpoints;
    int position = 0;  // advances for every port, kept or not
    for (const auto& port : ports) {
        std::string name = port->GetDisplayName();
        if (!IsVeltPortName(name)) {
            endpoints.emplace_back(position, name);
        }
        ++position;
    }
    return endpoints;
}

bool HasSourceIndex(const std::vector<MidiEndPoint>& endpoints, int sourceIndex) {
    return std::ranges::any_of(endpoints, [sourceIndex](const MidiEndPoint& endpoint) {
        return endpoint.GetSourceIndex() == sourceIndex;
    });
}

}  // namespace

bool IsVeltPortName(const std::string& name) {
    return name.starts_with("VELT") || name.starts_with("IAC Driver VELT");
}

std::vector<std::string> GetMidiInputPortNames() {
    std::vector<std::string> names;
    for (const auto& port : GetMidiInputPorts()) {
        names.push_back(port->GetDisplayName());
    }
    return names;
}

std::vector<MidiEndPoint> GetNonVeltMidiSources() {
    return NonVeltEndPoints(GetMidiInputPorts());
}

std::vector<MidiEndPoint> GetNonVeltMidiDestinations() {
    return NonVeltEndPoints(GetMidiOutputPorts());
}

bool IsValidNonVeltSourceIndex(int sourceIndex) {
    return HasSourceIndex(GetNonVeltMidiSources(), sourceIndex);
}

bool IsValidNonVeltDestinationIndex(int sourceIndex) {
    return HasSourceIndex(GetNonVeltMidiDestinations(), sourceIndex);
}

int GetUniqueIdFromIndex(unsigned char index) {
    for (const auto& port : GetMidiInputPorts()) {
        if (port->GetPortIndex() == index) {
            return port->GetUniqueId();
        }
    }
    std::cerr << "Unable to get unique midi id from index.\n";
    return 0;
}

unsigned char GetIndexFromUniqueId(int uniqueId) {
    for (const auto& port : GetMidiInputPorts()) {
        if (port->GetUniqueId() == uniqueId) {
            return port->GetPortIndex();
        }
    }
    std::cerr << "Unable to get index from unique id.\n";
    return 0;
}
