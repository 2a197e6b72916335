#!/usr/bin/env bash
# Runs the tests in the checked preset and prints what of src/ they reach: a line for each file, then the totals. Compares
# the lines that they do not reach with tests/unreached.list.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
Usage: scripts/coverage.sh [--line PERCENT] [--branch PERCENT] [--tolerate N] [--html DIRECTORY] [--tests-only | --report-only]

Fails when a line of src/ is neither reached nor in tests/unreached.list, or is reached and listed as one that never is.

  --line PERCENT, --branch PERCENT  also fail when fewer of the lines or branches of src/ are reached
  --tolerate N                      only print up to N places that differ from the list: threads meet or do not
  --html DIRECTORY                  write a report with the sources; its first page is index.html there
  --tests-only                      run the tests that scripts/test.sh --build-only checked has built
  --report-only                     of the last run
TEXT
}

line=0 branch=0 html='' tolerate=0 run=(scripts/test.sh checked)
while [[ $# -gt 0 ]]; do
    case $1 in
    -h | --help) usage && exit 0 ;;
    --line) line=${2:?} && shift ;;
    --branch) branch=${2:?} && shift ;;
    --tolerate) tolerate=${2:?} && shift ;;
    --html) html=${2:?} && shift ;;
    --tests-only) run=(scripts/test.sh --tests-only checked) ;;
    --report-only) run=() ;;
    *) usage >&2 && exit 2 ;;
    esac
    shift
done

build=build/checked
counts=$build/profile merged=$build/coverage.profdata
libraries=("$build/src/libtarvo.so")
# What counts besides: the other library, and the programs that test parts of them, or are linked with the reader's archive.
for counted in src/loop/libtarvo-loop.so tests/unit/base/unit_base tests/unit/base/unit_base_semaphore \
    tests/unit/loop/unit_loop_frames tests/unit/loop/unit_loop_parts tests/unit/stats/unit_stats \
    tests/unit/stats_reader/unit_stats_reader tests/unit/stats_reader/unit_stats_reader_torn; do
    libraries+=(-object "$build/$counted")
done
failed=0
if [[ ${#run[@]} -gt 0 ]]; then
    # Counts of an earlier run would be added to those of this one. Some tests run as other users.
    rm -rf $counts
    mkdir -p $counts
    chmod 1777 $counts
    "${run[@]}" || failed=1
fi

llvm-profdata merge --sparse --failure-mode=all -o $merged $counts/*.profraw
sources=("$PWD/src")
llvm-cov report "${libraries[@]}" "--instr-profile=$merged" --show-region-summary=false "${sources[@]}"
if [[ -n $html ]]; then
    llvm-cov show "${libraries[@]}" "--instr-profile=$merged" --format=html --show-branches=count "--output-dir=$html" "${sources[@]}"
fi
llvm-cov export "${libraries[@]}" "--instr-profile=$merged" --summary-only "${sources[@]}" | python3 -c '
import json, sys
totals = json.load(sys.stdin)["data"][0]["totals"]
missed = False
for kind, limit in ("lines", sys.argv[1]), ("branches", sys.argv[2]):
    found = totals[kind]
    percent, reached, there = found["percent"], found["covered"], found["count"]
    print(f"{kind}: {percent:.1f}% ({reached} out of {there})")
    if percent < float(limit):
        print(f"coverage.sh: fewer than {limit} % of the {kind} are reached", file=sys.stderr)
        missed = True
sys.exit(missed)' "$line" "$branch" || failed=1
llvm-cov export "${libraries[@]}" "--instr-profile=$merged" --format=lcov "${sources[@]}" >$build/coverage.lcov
scripts/unreached.py --tolerate "$tolerate" $build/coverage.lcov || failed=1
exit $failed
