#!/usr/bin/env bash
# The main job: installs what is missing, builds (Release) and plays the bundled example show on
# MIDI output device 0 (the built-in default output on a machine without MIDI ports), writing
# what the device received to build/harbour_lights-<song>.mid. Arguments go to velt-play
# (for example --song 2, --tempo-scale 1.5, --precision).
set -euo pipefail
cd "$(dirname "$0")"

tools/ensure_packages.sh
cmake --preset release
cmake --build --preset release --parallel 2 --target velt_play
./build/bin/velt-play examples/harbour_lights --midi-file build/harbour_lights.mid "$@"
