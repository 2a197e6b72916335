#!/usr/bin/env bash
# Fuzzes the library with libFuzzer. What it finds is stored with the kept inputs, which the ordinary tests replay.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

targets=(frames slices packets names contexts loadfile sequence engines loop_packets loop_sequence stats bridge samples)

usage() {
    cat <<TEXT
Usage: scripts/fuzz.sh [--seconds N] [--jobs N] [--keep] [TARGET...]

Builds the fuzz targets in the checked preset and runs each for N seconds (default
30), so many at a time (default 1). Installs what is missing. Targets (default: all):

  frames    the frame reader, through a real FIFO
  slices    the frame reader of large reads, cut anywhere
  packets   the server's packet reader, through its FIFO
  names     names, through every check
  contexts  conversions of security contexts
  loadfile  LoadFile
  sequence  calls of the exported functions over two ends in one process
  engines   one stream of frames through both engines, which must deliver the same
  loop_packets
            the packet reader of the loop's services
  loop_sequence
            calls of the functions of the loop, outside of callbacks and inside them
  stats     the reader of statistics files, whose content it changes and cuts
  bridge    two bridges between machines, and what a stranger tells them
  samples   what a bridge takes of what strangers write to its topics

Inputs that reach new code gather in build/fuzz/corpus/TARGET, from where the next run goes on; --keep adds a minimal
set of them to tests/fuzz/corpus/TARGET. An input that breaks a promise goes to tests/fuzz/corpus/TARGET/found-HASH, and
the status is then 1. One input again, with all it says:

  build/checked/tests/fuzz/fuzz_TARGET FILE
TEXT
}

build() {
    local log=build/fuzz/build.log
    mkdir -p build/fuzz
    if ! { configure checked && cmake --build --preset checked --target fuzz; } >"$log" 2>&1; then
        cat "$log" >&2
        return 1
    fi
}

longest_input() {
    case $1 in
    frames | slices | engines) echo 16384 ;;
    packets | loop_packets) echo 4096 ;;
    loadfile) echo 8192 ;;
    stats) echo 20000 ;;
    *) echo 512 ;;
    esac
}

# Where the kept inputs of a target are: two of them read what others read, too.
kept_of() {
    case $1 in
    engines) echo tests/fuzz/corpus/frames ;;
    loop_packets) echo tests/fuzz/corpus/packets ;;
    *) echo "tests/fuzz/corpus/$1" ;;
    esac
}

program_of() {
    echo "build/checked/tests/fuzz/fuzz_$1"
}

# Runs one target. Its output goes to a file; one line tells how it ended.
run_target() {
    local target=$1 seconds=$2 kept gathered=build/fuzz/corpus/$1 log=build/fuzz/$1.log
    local dictionary=tests/fuzz/$1.dict options=() status=0 prefix
    kept=$(kept_of "$target")
    mkdir -p "$gathered"
    # Leaks are looked for once, when the process ends. libFuzzer would look after single inputs too, and LeakSanitizer
    # takes for leaked what another thread holds that is at work meanwhile (google/sanitizers issue 757).
    [[ ! -e $dictionary ]] || options=("-dict=$dictionary")
    mapfile -t prefix < <(without_randomisation checked)
    "${prefix[@]}" "$(program_of "$target")" "-max_total_time=$seconds" "-max_len=$(longest_input "$target")" \
        -detect_leaks=0 -timeout=150 -rss_limit_mb=4096 -print_final_stats=1 "-artifact_prefix=$kept/found-" "${options[@]}" \
        "$gathered" "$kept" >"$log" 2>&1 || status=$?
    summarise "$target" "$status" "$log"
    return $status
}

summarise() {
    local target=$1 status=$2 log=$3 inputs rate covered
    inputs=$(awk '/stat::number_of_executed_units/ { print $2 }' "$log")
    rate=$(awk '/stat::average_exec_per_sec/ { print $2 }' "$log")
    covered=$(grep -aoE 'cov: [0-9]+' "$log" | tail -n 1 | cut -d ' ' -f 2)
    printf '%-9s %-7s %9s inputs, %6s a second, %5s edges\n' "$target" \
        "$([[ $status -eq 0 ]] && echo ok || echo FOUND)" "${inputs:-?}" "${rate:-?}" "${covered:-?}"
    [[ $status -eq 0 ]] || grep -aE 'runtime error|ERROR: |Broken promise|SUMMARY|Test unit written' "$log" >&2 || true
}

# The smallest set of the gathered inputs that reaches what the kept ones do not.
keep() {
    local target=$1 prefix
    mapfile -t prefix < <(without_randomisation checked)
    "${prefix[@]}" "$(program_of "$target")" -merge=1 -timeout=150 -rss_limit_mb=4096 \
        "$(kept_of "$target")" "build/fuzz/corpus/$target" >"build/fuzz/$target-merge.log" 2>&1
}

main() {
    local seconds=30 jobs=1 keep=false wanted=() failed=0 running=0
    while [[ $# -gt 0 ]]; do
        case $1 in
        -h | --help) usage && return 0 ;;
        --seconds) seconds=${2:?seconds} && shift ;;
        --jobs) jobs=${2:?jobs} && shift ;;
        --keep) keep=true ;;
        -*) usage >&2 && return 2 ;;
        *) [[ " ${targets[*]} " == *" $1 "* ]] || { usage >&2 && return 2; } && wanted+=("$1") ;;
        esac
        shift
    done
    [[ ${#wanted[@]} -gt 0 ]] || wanted=("${targets[@]}")
    scripts/install-deps.sh base bridge clang
    scripts/fifo-directory.sh
    echo "Building the fuzz targets"
    build
    echo "Running ${#wanted[@]} targets, $seconds s each, $jobs at a time; their output is in build/fuzz/TARGET.log"
    for target in "${wanted[@]}"; do
        if [[ $running -ge $jobs ]]; then
            wait -n || failed=1
            running=$((running - 1))
        fi
        run_target "$target" "$seconds" &
        running=$((running + 1))
    done
    while [[ $running -gt 0 ]]; do
        wait -n || failed=1
        running=$((running - 1))
    done
    if $keep && [[ $failed -eq 0 ]]; then
        for target in "${wanted[@]}"; do
            keep "$target"
        done
    fi
    return $failed
}

main "$@"
