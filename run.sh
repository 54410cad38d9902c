#!/usr/bin/env bash
# The main job: installs what is missing, builds (Release) and runs velt-demo, which builds a song
# in code and prints its timeline. Arguments are passed to velt-demo (a transposition).
set -euo pipefail
cd "$(dirname "$0")"

tools/ensure_packages.sh
cmake --preset release
cmake --build --preset release --parallel 2 --target velt-demo
./build/bin/velt-demo "$@"
