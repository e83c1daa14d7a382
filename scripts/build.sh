#!/usr/bin/env bash
# build.sh DIR [cmake options...]: configures (once) and builds into DIR.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1; shift
if [ ! -f "$dir/build.ninja" ]; then
    cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
fi
cmake --build "$dir"
