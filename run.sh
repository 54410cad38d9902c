#!/usr/bin/env bash
# The main job: installs what is missing, builds (Release) and plays the bundled example show
# through, without the keyboard, printing each bar. On a machine without MIDI ports it plays to
# the built-in default output, which records what it receives to build/harbour_lights.mid; with a
# port it plays there. Arguments go to velt-play (for example --play 2, --tempo-scale 1.5,
# --device NAME); docs/velt-play.md tells them all.
set -euo pipefail
cd "$(dirname "$0")"

tools/ensure_packages.sh
cmake --preset release
cmake --build --preset release --parallel 2 --target velt_play
player=./build/bin/velt-play
record=()
if "$player" --list-devices | grep -q '^  0  Built-in Default Output'; then
    record=(--record build/harbour_lights.mid)
fi
"$player" examples/harbour_lights --play "${record[@]}" "$@"
