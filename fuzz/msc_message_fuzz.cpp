// libFuzzer target for the show-control parser. Any input must either parse or throw
// std::runtime_error, reading only the bytes it was given (the copy below is exactly that long,
// so a read past it is an address-sanitizer report). What parses must be a GO of an accepted
// format whose fields hold no terminator.
//
//   cmake -S . -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
//         -DVELT_SANITIZE=address -DVELT_BUILD_FUZZ=ON -DVELT_BUILD_TESTS=OFF
//         -DVELT_BUILD_BENCH=OFF
//   cmake --build build-fuzz --target msc_message_fuzz
//   mkdir -p build-fuzz/msc-corpus && build-fuzz/bin/msc_message_fuzz build-fuzz/msc-corpus \
//         -max_total_time=300
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "midi/msc_message.h"

namespace {

bool HoldsTerminator(const std::string& field) {
    return field.find('\0') != std::string::npos || field.find('\xF7') != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<std::uint8_t> bytes(data, data + size);
    try {
        const MscMessage message(bytes.data(), bytes.size());
        const MscCueNumber cue = message.EventId();
        const bool accepted = message.Format() == MscCommandFormat::Music ||
                              message.Format() == MscCommandFormat::AudioEffects;
        if (!accepted || message.Command() != MscCommand::Go || HoldsTerminator(cue.number) ||
            HoldsTerminator(cue.list) || HoldsTerminator(cue.path) ||
            cue.number.size() + cue.list.size() + cue.path.size() + 4 > size) {
            std::abort();
        }
    } catch (const std::runtime_error&) {
    }
    return 0;
}
