#!/usr/bin/env bash
# The Windows zip in one command: cross-builds the libraries and velt-play with the windows
# preset (mingw-w64) and packs the DLLs, their import libraries, the headers, velt-play.exe, the
# compiler's run-time DLLs and the README into build-windows/packages/*.zip.
set -euo pipefail
cd "$(dirname "$0")/.."

tools/ensure_windows_packages.sh
# Only what the zip holds is built (not the tests): install does not wait for "all".
cmake --preset windows -DCMAKE_SKIP_INSTALL_ALL_DEPENDENCY=ON >/dev/null
cmake --build --preset windows --parallel 2 --target velt_midi velt_core kit velt_platform velt_play
(cd build-windows && cpack -G ZIP)
