#!/usr/bin/env bash
# Installs the Debian packages the build, tests and demo need; only those missing.
# Extra package names may be given as arguments.
set -euo pipefail

packages=(cmake ninja-build gcc g++ pkg-config libgtest-dev libgmock-dev libasio-dev "$@")

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
        echo "Missing Debian packages: ${missing[*]}" >&2
        echo "Install them as root (apt-get install ${missing[*]}), then run this again." >&2
        exit 1
    fi
    sudo="sudo"
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
