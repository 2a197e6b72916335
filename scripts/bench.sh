#!/usr/bin/env bash
# Builds the benchmarks optimised and runs them: whole calls against other messaging systems, then the single steps.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/bench.sh [--smoke | --quick | --whole] [--output DIR] [OPTION...]

Installs what is missing, builds the benchmarks optimised and runs them: whole calls, of the library, of the least
programs of its topology and of the other messaging systems that are installed; urgent calls under stress; the single
steps of a message. Leave the machine alone meanwhile. It prints how far it is and what is left.

  --quick       about 40 minutes on two cores; the default
  --whole       about three hours: more rounds, other systems in every scenario, 10 minutes of each kind under stress
  --smoke       under 40 seconds once it is built: every scenario and contestant works; gives no figures
  --output DIR  where figures.json, figures.txt, tables.md, steps.txt and plots go (default: build/bench/FORM)
  --inside      what a call executes: instructions, heap blocks, cache lines, the kernel's share; some 10 minutes
  --locked      how much memory a server locks, with each way to do it
  --fifos       what the FIFOs of an ordinary user hold once he has many
  --page DIR    put the tables and plots of a run's output into docs/PERFORMANCE.md; measures nothing

Other options choose what is measured and leave the single steps out, for example:

  scripts/bench.sh --rounds 9 --contestants tarvo --scenarios call64,callers8 --cores one --no-urgent
  scripts/bench.sh --before ../other/build/release/src --contestants tarvo,tarvo-before
  scripts/bench.sh --help-options
TEXT
}

absolute() { case $1 in /*) echo "$1" ;; *) echo "$PWD/$1" ;; esac; }

form=quick output='' page='' alone='' options=()
while [[ $# -gt 0 ]]; do
    case $1 in
    -h | --help) usage && exit 0 ;;
    --smoke | --quick | --whole) form=${1#--} ;;
    --inside | --locked | --fifos) alone=${1#--} ;;
    --output | --page | --before)
        [[ $# -ge 2 ]] || { usage >&2 && exit 2; }
        [[ $1 == --before ]] && options+=("$1" "$(absolute "$2")")
        [[ $1 == --before ]] || printf -v "${1#--}" %s "$(absolute "$2")"
        shift
        ;;
    --help-options) options=(--help) ;;
    *) options+=("$1") ;;
    esac
    shift
done
cd "$(dirname "$0")/.."
. scripts/lib.sh

build=build/bench output=${output:-$PWD/build/bench/$form}
trees=(-DTARVO_BUILD_TESTS=OFF -DTARVO_BUILD_EXAMPLES=OFF -DTARVO_BUILD_TOOLS=OFF)
if [[ $form == smoke ]]; then
    build=build/release trees=() # the library is there already
fi
python=/usr/bin/python3 # the distribution's, which the modules are installed for
scripts/install-deps.sh base bench peers
if [[ -n $page ]]; then
    exec $python bench/run/page.py "$page" docs/PERFORMANCE.md
fi
scripts/fifo-directory.sh
mkdir -p $build
log=$build/bench.log
echo "Building (log: $log)"
{ configure release -B $build -DTARVO_BUILD_BENCH=ON -DTARVO_BENCH_PEERS=ON "${trees[@]}" &&
    cmake --build $build --target bench_contestants bench_steps; } >$log 2>&1 || { tail -n 50 $log >&2 && exit 1; }

if [[ -n $alone ]]; then
    exec $python "bench/run/$alone.py" $build/bench/process
fi

# System calls are counted through the tracing file system. Where it is not mounted, it is for the run.
traced=()
if [[ $EUID -eq 0 && ! -d /sys/kernel/tracing/events ]]; then
    # shellcheck disable=SC2016 # for the inner shell
    traced=(unshare --mount bash -c 'mount -t tracefs tracefs /sys/kernel/tracing || true; exec "$@"' bash)
fi
$python -m unittest discover -s bench/run -p 'test_*.py' >$build/bench-tests.log 2>&1 || { cat $build/bench-tests.log && exit 1; }
"${traced[@]}" $python bench/run/bench.py --programs $build/bench/process --form "$form" --output "$output" \
    "${options[@]}"

[[ $form == smoke || ${#options[@]} -eq 0 ]] || exit 0
steps=(--benchmark_counters_tabular=true)
[[ $form != smoke ]] || steps+=(--benchmark_min_time=0.001)
for program in "$build"/bench/bench_*; do
    if [[ -f $program && -x $program ]]; then
        printf '\n== %s\n' "${program##*/}"
        "$program" "${steps[@]}"
    fi
done 2>&1 | tee "$output/steps.txt"
