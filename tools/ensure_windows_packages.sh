#!/usr/bin/env bash
# Installs what the Windows cross build and its test run need, but only what is missing (through
# tools/ensure_packages.sh, which waits for the package lock): the mingw-w64 cross compiler with
# POSIX threads (GCC's std::thread needs them), Wine to run the programs, GoogleTest's sources
# (built for the target: Debian ships no Windows binaries of it) and the JSON headers.
set -euo pipefail
cd "$(dirname "$0")"
exec ./ensure_packages.sh g++-mingw-w64-x86-64-posix wine64 googletest nlohmann-json3-dev cmake
