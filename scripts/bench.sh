#!/usr/bin/env bash
# Builds the benchmarks optimised and runs them: whole calls against other messaging systems, then the single steps.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/bench.sh [--smoke | --quick | --whole] [--output DIR] [OPTION...]

Installs what is missing, builds the benchmarks optimised and runs them: whole calls, of the library, of the least
programs of its topology and of the other messaging systems that are installed; urgent calls under stress; the single
steps of a message. Leave the machine alone meanwhile. It prints how far it is and what is left.

  --quick       at most 40 minutes on two cores; the default
  --whole       about an hour and a half: more rounds, other systems in every scenario, 10 minutes of each kind under
                stress
  --smoke       half a minute once it is built: every kind of scenario and every contestant works; gives no figures
  --no-peers    without the other messaging systems, which take most of the time to build
  --no-plots    without the plots, and without the packages that draw them
  --minutes N   begin nothing after so many minutes (--quick: 37), before the single steps, which take one more; what
                matters most comes first, and the tables say what is missing
  --output DIR  where figures.json, figures.txt, tables.md, steps.txt, inside.json and plots go (default: build/bench/FORM)
  --steps       only the single steps of a message, two minutes; what follows goes to Google Benchmark
  --inside      only what a call executes: instructions, heap blocks, cache lines; some 10 minutes, also on a busy machine
  --locked      how much memory a server locks, with each way to do it
  --fifos       what the FIFOs of an ordinary user hold once he has many
  --page DIR    put the tables and plots of a run's output into docs/PERFORMANCE.md and docs/loop.md, or, of a run with
                --stats, into docs/stats.md; measures nothing

Other options choose what is measured and leave the single steps out, for example:

  scripts/bench.sh --rounds 9 --contestants tarvo --scenarios call64,callers8 --cores one --no-urgent
  scripts/bench.sh --before ../other/build/release/src --contestants tarvo,tarvo-before
  scripts/bench.sh --inside --before ../other/build/release/src
  scripts/bench.sh --stats --contestants tarvo,tarvo-counted --scenarios call64,oneway64 --rounds 9
  scripts/bench.sh --steps --benchmark_filter=Written --benchmark_repetitions=9
  scripts/bench.sh --help-options
TEXT
}

absolute() { case $1 in /*) echo "$1" ;; *) echo "$PWD/$1" ;; esac; }

form=quick output='' page='' alone='' peers=ON groups=(base bench plots) more=() options=()
while [[ $# -gt 0 ]]; do
    case $1 in
    -h | --help) usage && exit 0 ;;
    --smoke | --quick | --whole) form=${1#--} ;;
    --no-peers) peers=OFF more+=("$1") ;;
    --no-plots) groups=(base bench) more+=("$1") ;;
    --inside | --locked | --fifos | --steps) alone=${1#--} ;;
    --output | --page | --before | --minutes)
        [[ $# -ge 2 ]] || { usage >&2 && exit 2; }
        case $1 in
        # The next two leave the form as it is, with the single steps.
        --before) more+=("$1" "$(absolute "$2")") ;;
        --minutes) more+=("$1" "$2") ;;
        *) printf -v "${1#--}" %s "$(absolute "$2")" ;;
        esac
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
[[ $peers == OFF ]] || groups+=(peers)
scripts/install-deps.sh "${groups[@]}"
if [[ -n $page ]]; then
    exec $python bench/run/page.py "$page" docs/PERFORMANCE.md docs/loop.md docs/stats.md
fi
scripts/fifo-directory.sh
mkdir -p $build
log=$build/bench.log
echo "Building (log: $log)"
{ configure release -B $build -DTARVO_BUILD_BENCH=ON -DTARVO_BENCH_PEERS=$peers "${trees[@]}" &&
    cmake --build $build --target bench_contestants bench_steps; } >$log 2>&1 || { tail -n 50 $log >&2 && exit 1; }

single_steps() {
    local program
    mkdir -p "$output"
    for program in "$build"/bench/bench_*; do
        if [[ -f $program && -x $program ]]; then
            printf '\n== %s\n' "${program##*/}"
            "$program" --benchmark_counters_tabular=true "$@"
        fi
    done 2>&1 | tee "$output/steps.txt"
}

case $alone in
'') ;;
steps)
    single_steps "${options[@]}"
    exit
    ;;
inside) exec $python bench/run/inside.py --programs $build/bench/process --output "$output" "${more[@]}" "${options[@]}" ;;
*) exec $python "bench/run/$alone.py" $build/bench/process ;;
esac

# System calls are counted through the tracing file system. Where it is not mounted, it is for the run.
traced=()
if [[ $EUID -eq 0 && ! -d /sys/kernel/tracing/events ]]; then
    # shellcheck disable=SC2016 # for the inner shell
    traced=(unshare --mount bash -c 'mount -t tracefs tracefs /sys/kernel/tracing || true; exec "$@"' bash)
fi
$python -m unittest discover -s bench/run -p 'test_*.py' >$build/bench-tests.log 2>&1 || { cat $build/bench-tests.log && exit 1; }
status=0
"${traced[@]}" $python bench/run/bench.py --programs $build/bench/process --form "$form" --output "$output" \
    "${more[@]}" "${options[@]}" || status=$?
if [[ $form == smoke ]]; then
    single_steps --benchmark_min_time=0.001
elif [[ ${#options[@]} -eq 0 ]]; then
    single_steps
fi
exit $status
