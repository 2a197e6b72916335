#!/usr/bin/env bash
# Ends processes under traffic, many times, in every way that a process can end, under the sanitizers.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

ways=(exit return quick_exit _exit abort pthread_exit)
piece=50 # runs of one test program, so that progress shows

usage() {
    cat <<TEXT
Usage: scripts/exit-runs.sh [--runs N] [--limit MS] [PRESET...] [-- WAY...]

Ends N processes (default 1000) with calls under way in both directions, in each way (default: all of ${ways[*]}), built
with each preset (default: asan tsan). Fails when one ends with another status than it should, when a sanitizer reports
anything, when its peer does not go on as before, or when one takes longer than MS milliseconds (default 2000, which is
meant for an idle machine; 0: no limit for a single one). Prints a line for each preset and way. Installs what is missing.
TEXT
}

build() {
    local preset=$1 log=build/$1/build.log
    mkdir -p "build/$preset"
    if ! { configure "$preset" && cmake --build --preset "$preset" --target system_exit; } \
        >"$log" 2>&1; then
        cat "$log" >&2
        return 1
    fi
}

# Runs of one way; the slowest one's time is left in `slowest`.
run_piece() {
    local preset=$1 way=$2 runs=$3 limit=$4 log=$5 found prefix
    local filter="Ways/ExitTest.*/${way/#_/underscore_}"
    [[ $limit -eq 0 ]] || export TARVO_EXIT_LIMIT_MS=$limit
    mapfile -t prefix < <(without_randomisation "$preset")
    # The thread sanitizer would have each process wait a second for races of its last moment, and be the slowest part.
    if ! env "TARVO_EXIT_RUNS=$runs" TSAN_OPTIONS="atexit_sleep_ms=0 ${TSAN_OPTIONS:-}" "${prefix[@]}" \
        "build/$preset/tests/system/system_exit" "--gtest_filter=$filter" >"$log" 2>&1; then
        cat "$log" >&2
        return 1
    fi
    found=$(sed -n 's/.*slowest \([0-9]*\) ms$/\1/p' "$log")
    [[ -n $found ]] || { cat "$log" >&2 && return 1; }
    [[ $found -le $slowest ]] || slowest=$found
}

run_way() {
    local preset=$1 way=$2 runs=$3 limit=$4 done=0 slowest=0 next log=build/$1/exit-$2.log
    while [[ $done -lt $runs ]]; do
        next=$((runs - done < piece ? runs - done : piece))
        if ! run_piece "$preset" "$way" "$next" "$limit" "$log"; then
            printf '%-8s %-12s FAILED after %d runs\n' "$preset" "$way" "$done"
            return 1
        fi
        done=$((done + next))
        [[ ! -t 1 ]] || printf '\r%-8s %-12s %d of %d runs ' "$preset" "$way" "$done" "$runs"
    done
    [[ ! -t 1 ]] || printf '\r\033[K'
    printf '%-8s %-12s %5d runs, slowest %5d ms\n' "$preset" "$way" "$runs" "$slowest"
}

main() {
    local runs=1000 limit=2000 presets=() failed=0
    while [[ $# -gt 0 ]]; do
        case $1 in
        -h | --help) usage && return 0 ;;
        --runs) runs=${2:?runs} && shift ;;
        --limit) limit=${2:?milliseconds} && shift ;;
        --)
            shift
            break
            ;;
        -*) usage >&2 && return 2 ;;
        *) presets+=("$1") ;;
        esac
        shift
    done
    [[ $# -eq 0 ]] || ways=("$@")
    scripts/install-deps.sh base clang
    scripts/fifo-directory.sh
    for preset in "${presets[@]:-asan tsan}"; do
        # shellcheck disable=SC2086 # two by default
        for one in $preset; do
            echo "Building with $one"
            build "$one"
            for way in "${ways[@]}"; do
                run_way "$one" "$way" "$runs" "$limit" || failed=1
            done
        done
    done
    return $failed
}

main "$@"
