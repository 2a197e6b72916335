#!/usr/bin/env bash
# Builds the benchmarks optimised and runs them: whole calls against other messaging systems, then the single steps.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/bench.sh [--smoke] [--json FILE] [--svg FILE] [BENCH_PROCESS_OPTION...]

Installs what is missing, builds the benchmarks optimised and runs them: whole calls, of the library and of the other
messaging systems that are installed, as a table of medians and ratios; then the single steps of a message. About half
an hour on two cores; leave the machine alone meanwhile.

  --smoke      seconds, without the other systems: shows that everything runs, gives no figures worth keeping
  --json FILE  the figures of the whole calls (default: build/bench/figures.json)
  --svg FILE   a plot of them (default: build/bench/figures.svg)

Other options go to bench_process and leave the single steps out, for example:

  scripts/bench.sh --rounds 9 --contestants tarvo --scenarios call64,callers8 --cores one
TEXT
}

absolute() { case $1 in /*) echo "$1" ;; *) echo "$PWD/$1" ;; esac; }

smoke=false json='' svg='' options=()
while [[ $# -gt 0 ]]; do
    case $1 in
    -h | --help) usage && exit 0 ;;
    --smoke) smoke=true ;;
    --json | --svg)
        [[ $# -ge 2 ]] || { usage >&2 && exit 2; }
        printf -v "${1#--}" %s "$(absolute "$2")"
        shift
        ;;
    *) options+=("$1") ;;
    esac
    shift
done
cd "$(dirname "$0")/.."

build=build/bench peers=ON groups=(base bench peers) programs=(bench_process bench_library bench_worker bench_handle)
if $smoke; then
    peers=OFF groups=(base bench)
fi
scripts/install-deps.sh "${groups[@]}"
scripts/fifo-directory.sh
mkdir -p $build
echo "Building (log: $build.log)"
{ cmake --preset release -B $build -DTARVO_BUILD_BENCH=ON -DTARVO_BENCH_PEERS=$peers -DTARVO_BUILD_TESTS=OFF \
    -DTARVO_BUILD_EXAMPLES=OFF -DTARVO_BUILD_TOOLS=OFF &&
    cmake --build $build --target "${programs[@]}"; } >$build.log 2>&1 || { tail -n 50 $build.log >&2 && exit 1; }

steps=(--benchmark_counters_tabular=true)
if $smoke; then
    options=(--quick "${options[@]}")
    steps+=(--benchmark_min_time=0.001)
elif [[ ${#options[@]} -gt 0 ]]; then
    programs=(bench_process)
fi
$build/bench/process/bench_process --json "${json:-$build/figures.json}" --svg "${svg:-$build/figures.svg}" \
    "${options[@]}"
for program in "${programs[@]:1}"; do
    printf '\n== %s\n' "$program"
    $build/bench/"$program" "${steps[@]}"
done
