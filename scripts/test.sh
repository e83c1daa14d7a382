#!/usr/bin/env bash
# Sets up the machine, checks formatting, builds everything under
# AddressSanitizer + UndefinedBehaviorSanitizer and runs every test with CTest.
# Then compiles the Release build (-O3, tests and benchmarks on): optimisation
# brings its own warnings, and benchmarks are measured in Release. Its tests
# are not run again; the sanitizer run above covers them.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/format.sh --check
scripts/build.sh build-asan -DCMAKE_BUILD_TYPE=Debug -DPIMSM_SANITIZE=ON
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir build-asan --output-on-failure -j "$(nproc)"
scripts/build.sh build-release -DCMAKE_BUILD_TYPE=Release -DPIMSM_TESTS=ON -DPIMSM_BENCH=ON
