#include "midi/velt_midi_error.h"

const std::set<std::uint8_t> allowedStatuses{0x90, 0xB0, 0xC0};
