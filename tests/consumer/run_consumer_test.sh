#!/usr/bin/env bash
# The installed tree as a host application sees it: installs the build into a scratch prefix,
# builds tests/consumer against it once through find_package(velt_midi) and once through
# pkg-config, and runs both programs (each plays one bar into a virtual device).
#
#   run_consumer_test.sh <build dir> <C++ compiler>
set -euo pipefail
build=$(cd "$1" && pwd)
compiler=$2
here=$(cd "$(dirname "$0")" && pwd)
scratch=$build/consumer-test
rm -rf "$scratch"
mkdir -p "$scratch"

cmake --install "$build" --prefix "$scratch/install" >"$scratch/install.log"
test -f "$scratch/install/include/velt_midi/midi/midi_output.h"

echo "--- find_package(velt_midi)"
cmake -S "$here" -B "$scratch/cmake-build" -DCMAKE_PREFIX_PATH="$scratch/install" \
    -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_BUILD_TYPE=Release >"$scratch/configure.log"
cmake --build "$scratch/cmake-build" >"$scratch/build.log"
VELT_MIDI_SYSTEM_PORTS=0 "$scratch/cmake-build/play_one_bar"

echo "--- pkg-config velt_midi"
pc_dir=$(dirname "$(find "$scratch/install" -name velt_midi.pc | head -n 1)")
read -r -a flags <<<"$(PKG_CONFIG_PATH=$pc_dir pkg-config --cflags --libs velt_midi)"
libdir=$(PKG_CONFIG_PATH=$pc_dir pkg-config --variable=libdir velt_midi)
"$compiler" -std=c++20 -o "$scratch/play_one_bar_pc" "$here/play_one_bar.cpp" "${flags[@]}" \
    -Wl,-rpath,"$libdir"
VELT_MIDI_SYSTEM_PORTS=0 "$scratch/play_one_bar_pc"
