#!/usr/bin/env bash
# Installs the Debian packages the build needs, but only those missing. Runs apt-get as root
# directly (as on CI) and through sudo otherwise; `apt-get update` runs once, only when something
# is missing. apt-get waits up to ten minutes for the package lock (another installation, the
# system's own updates on a fresh machine) instead of failing at once.
#
# JACK is named explicitly: jackd2 is the server the JACK end-to-end test starts (with jack_wait
# and jack_lsp), and libjack-jackd2-dev keeps librtmidi-dev from pulling in the other JACK's
# headers, which conflict with it. jackd2 asks whether to allow real-time priority; without a
# terminal the default (no) is taken, and the test runs its server without real-time priority.
set -euo pipefail

# With arguments, those packages instead of the build's own (tools/ensure_windows_packages.sh).
packages=(build-essential cmake libgtest-dev libgmock-dev libbenchmark-dev jackd2
          libjack-jackd2-dev librtmidi-dev nlohmann-json3-dev pkg-config)
if (($# > 0)); then
    packages=("$@")
fi
missing=()
for package in "${packages[@]}"; do
    if ! dpkg -s "$package" >/dev/null 2>&1; then
        missing+=("$package")
    fi
done
if ((${#missing[@]} == 0)); then
    exit 0
fi

echo "Installing missing packages: ${missing[*]}"
if [[ $(id -u) -eq 0 ]]; then
    as_root=()
else
    as_root=(sudo)
fi
wait_for_lock=(-o DPkg::Lock::Timeout=600)
"${as_root[@]}" apt-get "${wait_for_lock[@]}" update
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get "${wait_for_lock[@]}" install -y --no-install-recommends "${missing[@]}"
