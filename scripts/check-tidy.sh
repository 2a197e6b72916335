#!/usr/bin/env bash
# Runs clang-tidy (.clang-tidy) over the product's sources, two at a time.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
Usage: scripts/check-tidy.sh [--separate] [SOURCE...]

Runs clang-tidy over all sources of the libraries, the programs and the examples, joined to a few units since most of the time
goes into what they include, or over the named sources, each by itself. In joined sources the analyzer gives up a
function after a fiftieth of the states that it follows otherwise, into the last of which most of the time would go.

  --separate  all sources, each by itself and analyzed to the end
TEXT
}

database=build/tidy units=build/tidy/units
separate=false
while [[ ${1:-} == -* ]]; do
    case $1 in
    -h | --help) usage && exit 0 ;;
    --separate) separate=true ;;
    *) usage >&2 && exit 2 ;;
    esac
    shift
done

mkdir -p $database
# Without precompiled headers, which hide what a source forgets to include.
if ! cmake --preset clang -B $database -DTARVO_BUILD_TESTS=OFF -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON \
    -DCMAKE_UNITY_BUILD=OFF \
    >$database/configure.log 2>&1; then
    cat $database/configure.log >&2
    exit 1
fi
# What the bridge includes is generated, where its libraries are installed.
if ! grep -q 'No bridge between machines' $database/configure.log &&
    ! cmake --build $database --target tarvo_bridge_types >$database/build.log 2>&1; then
    cat $database/build.log >&2
    exit 1
fi
if [[ $# -gt 0 ]]; then
    files=("$@") options=(-p "$database") sources=$#
else
    mapfile -t files < <(git ls-files -- 'src/*.c' 'src/*.cpp' 'tools/*.cpp' 'examples/*.cpp' 'bridge/*.cpp')
    options=(-p "$database") sources=${#files[@]}
    if ! $separate; then
        list=$(scripts/tidy-units.py "$database" "$units" 64 "${files[@]}")
        mapfile -t files <<<"$list"
        options=(-p "$units")
        for word in -Xclang -analyzer-config -Xclang max-nodes=4000; do
            options+=("--extra-arg=$word")
        done
    fi
fi
options+=(--extra-arg=-Wreserved-identifier --extra-arg=-Wno-reserved-macro-identifier)
# clang-tidy counts the suppressed warnings of system headers on standard error; only its findings are of interest.
printf '%s\0' "${files[@]}" |
    xargs -0 -P2 -n1 clang-tidy --quiet "${options[@]}" 2> >(grep -v 'warnings\? generated' >&2) |
    scripts/tidy-units.py --locate
echo "clang-tidy finds nothing in $sources sources"
