#!/usr/bin/env bash
# format.sh          reformats every C++ file in place
# format.sh --check  fails, listing the files, when any file is not formatted
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files -co --exclude-standard -- '*.cc' '*.h')
[ ${#files[@]} -gt 0 ] || exit 0
if [ "${1:-}" = "--check" ]; then
    bad=()
    for f in "${files[@]}"; do
        clang-format --dry-run -Werror "$f" >/dev/null 2>&1 || bad+=("$f")
    done
    if [ ${#bad[@]} -gt 0 ]; then
        echo "format: not clang-formatted (run scripts/format.sh):"
        printf '  %s\n' "${bad[@]}"
        exit 1
    fi
else
    clang-format -i "${files[@]}"
fi
