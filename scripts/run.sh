#!/usr/bin/env bash
# Sets up the machine, builds the release `pimsm` program and runs it.
#   scripts/run.sh               the main job: the bundled example
#   scripts/run.sh run FILE ...  any pimsm command; paths are taken from
#                                where you stand, not from the repository
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/setup.sh"
"$root/scripts/build.sh" build --target pimsm -DCMAKE_BUILD_TYPE=Release -DPIMSM_TESTS=OFF \
    -DPIMSM_BENCH=OFF
if [ $# -eq 0 ]; then set -- run; fi
exec "$root/build/src/pimsm" "$@"
