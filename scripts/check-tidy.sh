#!/usr/bin/env bash
# Runs clang-tidy (.clang-tidy) over the product's sources, two at a time, or over the ones named as arguments. Needs
# the clang preset configured, whose compile database it reads.
set -euo pipefail
cd "$(dirname "$0")/.."

database=build/clang
if [[ ! -f $database/compile_commands.json ]]; then
    cmake --preset clang >/dev/null
fi
if [[ $# -gt 0 ]]; then
    files=("$@")
else
    mapfile -t files < <(git ls-files -- 'src/*.cpp' 'tools/*.cpp' 'examples/*.cpp')
fi
# clang-tidy counts the suppressed warnings of system headers on standard error; only its findings are of interest.
printf '%s\0' "${files[@]}" | xargs -0 -P2 -n1 clang-tidy --quiet -p "$database" 2> >(grep -v 'warnings\? generated' >&2)
