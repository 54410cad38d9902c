#include "midi/velt_midi_error.h"

#include "interfaces/kit.h"

const std::set<std::uint8_t> allowedStatuses{0x90, 0xB0, 0xC0};

namespace {
[[noreturn]] void LogAndThrow(const std::string& text) {
    kit::CoutBuffer() << "[ERROR] " << text << kit::endl;
    throw VeltMidiError(text);
}
}  // namespace

void LogAndThrowFailure(const char* source, unsigned int line, const std::string& action,
                        const std::string& detail) {
    LogAndThrow(kit::CreateFailureMessage(source, line, action, detail));
}

void LogAndThrowErrorNumber(const char* source, unsigned int line, int errorNumber,
                            const std::string& detail) {
    LogAndThrow(detail.empty() ? kit::format("%s line %u: Error %d.", source, line, errorNumber)
                               : kit::format("%s line %u: Error %d %s.", source, line, errorNumber,
                                             detail.c_str()));
}
