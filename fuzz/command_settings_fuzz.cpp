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
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "interfaces/kit.h"
#include "midi/midi_commands.h"

namespace {

const std::string& SettingsPath() {
    static const std::string path = (std::filesystem::temp_directory_path() /
                                     ("command_settings_fuzz." + std::to_string(getpid())))
                                        .string();
    return path;
}

const bool kQuiet = [] {
    setenv("VELT_MIDI_SYSTEM_PORTS", "0", 1);  // no source to connect to
    kit::SetLogSink([](const std::string&) {});
    return true;
}();

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    {
        std::ofstream file(SettingsPath(), std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    MidiMessageDispatcher dispatcher;
    std::map<unsigned char, midi_commands::LearnedCommand> loaded;
    {
        midi_commands::MidiCommands commands(dispatcher, SettingsPath());
        loaded = commands.GetLearnedCommands();
    }
    midi_commands::MidiCommands reloaded(dispatcher, SettingsPath());
    if (reloaded.GetLearnedCommands() != loaded) {
        std::abort();
    }
    return 0;
}
