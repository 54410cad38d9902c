#!/usr/bin/env bash
# Installs the Debian packages the build needs, but only those missing. Runs apt-get as root
# directly (as on CI) and through sudo otherwise; `apt-get update` runs once, only when something
# is missing.
set -euo pipefail

packages=(build-essential cmake libgtest-dev libgmock-dev libbenchmark-dev librtmidi-dev
          nlohmann-json3-dev pkg-config)
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
"${as_root[@]}" apt-get update
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
