// libFuzzer target for the MIDI file reader and the mapping into the song model. Any input must
// either load or throw SmfError; anything else (a crash, a sanitizer report, another exception,
// a hang) is a finding. What loads is written back and read again, which must succeed.
//
//   cmake -S . -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
//         -DVELT_SANITIZE=address -DVELT_BUILD_FUZZ=ON -DVELT_BUILD_TESTS=OFF
//         -DVELT_BUILD_BENCH=OFF
//   cmake --build build-fuzz --target smf_reader_fuzz
//   mkdir -p build-fuzz/corpus && build-fuzz/bin/smf_reader_fuzz build-fuzz/corpus \
//         examples/harbour_lights -max_total_time=300
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

#include "velt_core/show_loader.h"
#include "velt_core/smf_reader.h"
#include "velt_core/smf_writer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    velt_midi::SongData song;
    try {
        const velt_core::SmfFile file =
            velt_core::ParseSmf(std::span<const std::uint8_t>(data, size), "fuzz.mid");
        std::vector<std::string> warnings;
        song = velt_core::SongFromSmf(file, "fuzz.mid", warnings);
    } catch (const velt_core::SmfError&) {
        return 0;
    }
    // What loaded is written back (the writer may refuse, with SmfError, a gap between two
    // events longer than one delta time can hold) and must read back as the same tracks.
    std::vector<std::uint8_t> bytes;
    try {
        bytes = velt_core::EncodeSmf(velt_core::SmfFromSong(song), "fuzz.mid");
    } catch (const velt_core::SmfError&) {
        return 0;
    }
    std::vector<std::string> warnings;
    const velt_midi::SongData again =
        velt_core::SongFromSmf(velt_core::ParseSmf(bytes, "again.mid"), "again.mid", warnings);
    if (again.GetVoiceData().size() != song.GetVoiceData().size() ||
        again.GetTimeline().lastTickIndex != song.GetTimeline().lastTickIndex) {
        std::abort();
    }
    for (const auto& [id, track] : song.GetVoiceData()) {
        if (!again.GetVoiceData().contains(id) ||
            again.GetVoiceData().at(id).events != track->events) {
            std::abort();
        }
    }
    return 0;
}
