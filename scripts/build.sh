#!/usr/bin/env bash
# build.sh DIR [--target NAME] [cmake options...]: configures DIR once (with
# the options) and builds it, or only the target NAME. Progress goes to
# standard error so that a program's output on standard output stays clean;
# the first build of a directory takes minutes and says so.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1; shift
target=()
if [ "${1:-}" = "--target" ]; then target=(--target "$2"); shift 2; fi
if [ ! -f "$dir/build.ninja" ]; then
    echo "build: configuring $dir (first build: this takes a few minutes)" >&2
    cmake -S . -B "$dir" -G Ninja "$@" >&2
fi
# "ninja: no work to do." is noise on every later run.
cmake --build "$dir" "${target[@]}" 2>&1 | sed '/^ninja: no work to do\.$/d' >&2
