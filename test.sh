#!/usr/bin/env bash
# The tests: installs what is missing, configures and builds everything (Release) and runs every
# test with CTest, which ends with its summary line.
set -euo pipefail
cd "$(dirname "$0")"

tools/ensure_packages.sh
cmake --preset release
cmake --build --preset release --parallel 2
ctest --preset release "$@"
