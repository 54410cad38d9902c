// libFuzzer target for the MIDI command settings loader. Any file must leave the commands object
// constructed (load failures are warnings); what it saves must load back to the same learned
// commands.
//
//   cmake -S . -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
//         -DVELT_SANITIZE=address -DVELT_BUILD_FUZZ=ON -DVELT_BUILD_TESTS=OFF
//         -DVELT_BUILD_BENCH=OFF
//   cmake --build build-fuzz --target command_settings_fuzz
//   mkdir -p build-fuzz/commands-corpus && build-fuzz/bin/command_settings_fuzz \
//         build-fuzz/commands-corpus -max_total_time=300
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

#include "fuzz/scratch_folder.h"
#include "interfaces/kit.h"
#include "midi/midi_commands.h"

namespace {

ScratchFolder scratch;
std::string settingsPath;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("VELT_MIDI_SYSTEM_PORTS", "0", 1);  // no source to connect to
    kit::SetLogSink([](const std::string&) {});
    scratch.Create("velt_commands_fuzz_");
    settingsPath = (scratch.path / "commands.settings").string();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    {
        std::ofstream file(settingsPath, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    MidiMessageDispatcher dispatcher;
    std::map<unsigned char, midi_commands::LearnedCommand> loaded;
    {
        midi_commands::MidiCommands commands(dispatcher, settingsPath);
        loaded = commands.GetLearnedCommands();
    }
    midi_commands::MidiCommands reloaded(dispatcher, settingsPath);
    if (reloaded.GetLearnedCommands() != loaded) {
        std::abort();
    }
    return 0;
}
