#!/usr/bin/env bash
# Fails when a C or C++ source is not formatted as .clang-format says; --fix formats it.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=(--dry-run --Werror)
[[ ${1:-} == --fix ]] && mode=(-i)
git ls-files -z --cached --others --exclude-standard -- '*.c' '*.cpp' '*.h' '*.hpp' |
    xargs -0 --no-run-if-empty -P2 -n8 clang-format "${mode[@]}"
