#!/usr/bin/env bash
# Runs a Windows program of the cross build under Wine: the emulator CMake and CTest put in front
# of every test and program of the Windows preset.
#
#   tools/wine_run.sh build-windows/bin/test_kit.exe [arguments]
#
# The Wine prefix is a scratch folder next to the program's build tree (VELT_WINEPREFIX
# overrides it), created once, under a lock, because two Wine starts racing to create one prefix
# leave it half made. The prefix has no MIDI devices; its timers and threads are Wine's.
set -euo pipefail

program=${1:?usage: wine_run.sh program.exe [arguments]}
program_dir=$(cd "$(dirname "$program")" && pwd)

wine=""
for candidate in /usr/lib/wine/wine64 "$(command -v wine64 || true)" "$(command -v wine || true)"; do
    if [[ -n "$candidate" && -x "$candidate" ]]; then
        wine=$candidate
        break
    fi
done
if [[ -z "$wine" ]]; then
    echo "wine_run.sh: Wine is not installed (tools/ensure_windows_packages.sh installs it)" >&2
    exit 127
fi

export WINEPREFIX=${VELT_WINEPREFIX:-$(dirname "$program_dir")/wine-prefix}
export WINEDEBUG=${WINEDEBUG:--all}
# No Mono or Gecko prompts: the programs are plain console programs.
# The sound drivers stay off, so that the prefix has no MIDI devices whatever the machine has.
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=;winealsa.drv,winepulse.drv,wineoss.drv=d}
# Console programs need no display; an inherited one would only slow the start.
unset DISPLAY WAYLAND_DISPLAY

if [[ ! -f "$WINEPREFIX/system.reg" ]]; then
    mkdir -p "$WINEPREFIX"
    (
        flock 9
        if [[ ! -f "$WINEPREFIX/system.reg" ]]; then
            "$wine" wineboot --init >/dev/null 2>&1 || true
            "$(dirname "$wine")/wineserver" --wait 2>/dev/null || wineserver --wait 2>/dev/null || true
        fi
    ) 9>"$WINEPREFIX.lock"
fi

# At a terminal the program is run as it is (the player's console wants the terminal).
if [[ -t 1 ]]; then
    exec "$wine" "$@"
fi

# Under CTest: now and then a Wine start fails before the program runs (a fresh prefix, a
# wineserver still shutting down), within a hundredth of a second and without a line from the
# program. Every test program prints before it can fail, so a failure with nothing printed is
# that, and the program is started once more after the wineserver has settled. A failure after
# the program has printed is the program's own and stands.
out=$(mktemp)
trap 'rm -f "$out"' EXIT
for attempt in 1 2; do
    set +e
    "$wine" "$@" | tee "$out"
    status=${PIPESTATUS[0]}
    set -e
    if [[ $status -eq 0 || -s "$out" || $attempt -eq 2 ]]; then
        exit "$status"
    fi
    echo "wine_run.sh: $program ended with status $status before printing anything;" \
        "starting it once more" >&2
    "$(dirname "$wine")/wineserver" --wait 2>/dev/null || wineserver --wait 2>/dev/null || true
done
