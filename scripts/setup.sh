#!/usr/bin/env bash
# Installs the build dependencies from Debian's packages when any is missing.
# Safe to run repeatedly: it does nothing when everything is present.
set -euo pipefail

packages=(
    g++ cmake ninja-build ccache clang-format
    libboost-dev libfmt-dev libyaml-cpp-dev nlohmann-json3-dev libcli11-dev
    libgtest-dev libgmock-dev libbenchmark-dev libabsl-dev
)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
