// libFuzzer target for the show manifest loader. The input is written as show.json into a
// scratch folder that holds one song file, a.mid, and loaded from there. Any input must either
// load or throw ShowError (or SmfError, the song file's own error, for a "file" that names
// something other than a.mid); anything else (another exception, a crash, a sanitizer report,
// a hang) is a finding.
//
//   cmake -S . -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
//         -DVELT_SANITIZE=address -DVELT_BUILD_FUZZ=ON -DVELT_BUILD_TESTS=OFF
//         -DVELT_BUILD_BENCH=OFF
//   cmake --build build-fuzz --target show_loader_fuzz
//   mkdir -p build-fuzz/show_corpus && build-fuzz/bin/show_loader_fuzz build-fuzz/show_corpus \
//         fuzz/show_manifests -dict=fuzz/show_manifest.dict -max_total_time=300
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>

#include "fuzz/scratch_folder.h"
#include "velt_core/show_loader.h"
#include "velt_core/smf_writer.h"
#include "velt_core/song_builder.h"

namespace {

ScratchFolder scratch;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    scratch.Create("velt_show_fuzz_");
    // Track 0x011 and 8 bars of 3/4 at 480 ticks per quarter: positions up to "9:1" and 11520.
    const auto song = velt_core::SongBuilder("Fuzz", 480)
                          .Meter(0, 3, 4)
                          .Track(0x011, "Flute", 73)
                          .Note(0x011, 0, 24, 100, 10)
                          .Note(0x011, 480, 72, 100, 480)
                          .Marker(1440, "File marker")
                          .Bars(8)
                          .Build();
    velt_core::WriteSmf(velt_core::SmfFromSong(*song), (scratch.path / "a.mid").string());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    {
        std::ofstream manifest(scratch.path / "show.json", std::ios::binary | std::ios::trunc);
        manifest.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    try {
        velt_core::LoadShow(scratch.path.string());
    } catch (const velt_core::ShowError&) {
    } catch (const velt_core::SmfError&) {
    } catch (const std::exception& e) {
        std::fprintf(stderr, "show_loader_fuzz: not a loader error: %s\n", e.what());
        std::abort();
    }
    return 0;
}
