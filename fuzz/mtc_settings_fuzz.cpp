// libFuzzer target for the time-code settings loader. The input is written as the settings file
// and a controller is made on it. Whatever the bytes, the controller must come up off, and
// either with the file's port and rate (a whole file with the right tag and a known rate) or
// with every default (no port, port 0, 30 fps); a crash, a sanitizer report, an escaping
// exception or a half-taken file is a finding.
//
//   cmake -S . -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
//         -DVELT_SANITIZE=address -DVELT_BUILD_FUZZ=ON -DVELT_BUILD_TESTS=OFF
//         -DVELT_BUILD_BENCH=OFF
//   cmake --build build-fuzz --target mtc_settings_fuzz
//   mkdir -p build-fuzz/mtc_corpus && build-fuzz/bin/mtc_settings_fuzz build-fuzz/mtc_corpus \
//         -max_total_time=300
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "fuzz/scratch_folder.h"
#include "interfaces/kit.h"
#include "midi/time_code_controller.h"

namespace {

ScratchFolder scratch;

[[noreturn]] void Finding(const char* what) {
    std::fprintf(stderr, "mtc_settings_fuzz: %s\n", what);
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    scratch.Create("velt_mtc_fuzz_");
    kit::SetLogSink([](const std::string&) {});  // every damaged file logs a line
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string file = (scratch.path / "mtc.settings").string();
    {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    MidiTimeCodeController controller(file);
    if (controller.GetIsActive()) {
        Finding("came up on");
    }
    const bool whole = size >= 28 && data[0] == 20 &&
                       std::memcmp(data + 1, "MidiTimeCodeSettings", 20) == 0 && data[27] <= 3;
    if (whole) {
        const unsigned int port = data[23] | (data[24] << 8) | (data[25] << 16) |
                                  (static_cast<unsigned int>(data[26]) << 24);
        if (controller.GetHasOutputPortIndex() != (data[22] != 0) ||
            controller.GetOutputPortIndex() != port ||
            static_cast<unsigned>(controller.GetFrameRate()) != data[27]) {
            Finding("a whole file was not taken as written");
        }
    } else if (controller.GetHasOutputPortIndex() || controller.GetOutputPortIndex() != 0 ||
               controller.GetFrameRate() != FrameRate::Fps30) {
        Finding("a damaged file changed the defaults");
    }
    return 0;
}
