#!/usr/bin/env bash
# Sets up the machine, builds the release binaries and runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh build -DCMAKE_BUILD_TYPE=Release -DPIMSM_TESTS=OFF >/dev/null
if [ $# -eq 0 ]; then set -- run; fi
exec build/src/pimsm "$@"
