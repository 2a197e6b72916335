#!/usr/bin/env bash
# Everything that takes too long for each change. Runs all steps even when one fails, then prints one line for each; the
# exit status is that of the worst.
set -uo pipefail
cd "$(dirname "$0")/.." || exit

STEPS=(kills loopkills loop comeback stopped reconnect twins reopen bridge soak counted python models fuzz ends races cancels
    clang asan arm64 tidy bench mutants bare)

# How many minutes each may take; together four hours on two processors. What is not done then is ended, and has failed.
declare -A LIMITS=([kills]=4 [loopkills]=2 [loop]=22 [comeback]=6 [stopped]=3 [reconnect]=9 [twins]=3 [reopen]=6
    [bridge]=8 [soak]=23 [counted]=4 [python]=8 [models]=12 [fuzz]=22 [ends]=13 [races]=18 [cancels]=4
    [clang]=9 [asan]=12 [arm64]=14 [tidy]=10 [bench]=3 [mutants]=8 [bare]=17)

usage() {
    cat <<'TEXT'
Usage: scripts/nightly.sh [--kills N] [--reconnects N] [--twins N] [--reopenings N] [--soak-minutes N] [--fuzz-seconds N]
                          [--ends N] [--repeats N] [--mutant-hours N] [--seed N] [--limit MINUTES] [--list] [--update]
                          [--resume] [STEP...]

Runs the long proofs, all of them (four hours at most) or the named steps:

  kills    20000 kills of servers and clients, restarted at once: nobody wedged, an answer within 1 s (99th percentile)
  loopkills
           2000 kills of services of the loop under 8 clients: each call ends once
  loop     10^6 calls of the loop with cancels and time-outs at the median answer, and 20 minutes of calls: each call ends
           once; the heap, the resident memory, the descriptors and the threads of both processes do not grow
  comeback 1000 kills of the server of a tarvo::Client, on all processors and on one: no call lost, no line per attempt
  stopped  servers stopped for 30 s: refused sends at once, time-outs at most 20 ms late, others at half speed or more
  reconnect
           a client that closes and connects again at once, 10000 times, all answered: on all cores, on one, beside
           load, and with slow callbacks
  twins    20000 starts and stops of each of two servers of one name: ends of one file, no stop that hangs
  reopen   100000 reopenings of a pipe whose remote closes, in either mode: heard after each; as many ordinary closes
           without a line; as many brief clients of a server with a handful of threads
  bridge   500 kills of clients, servers and bridges in traffic between two machines, and a cable that is out for 30 s:
           every call ends, and the next one works; 200000 calls of 64 callers; a server that is stopped for a minute
  soak     20 minutes of mixed traffic, more and less of it, with peers that are stopped and killed: no growth of memory,
           descriptors or threads
  counted  2000 kills with all processes counted, as those of the soak are: what was sent arrived or was lost with its
           reason, calls ended or are outstanding; and tests of the library's steps, their numbers compared; for root
  python   the tests of the Python package with 1000 kills of servers and of clients, 100000 calls, 2000 examples
  models   the models within large bounds, and each of their mutants
  fuzz     180 s of each fuzz target, two at a time; what it has found new is made small and kept
  ends     1000 ends of a process with traffic, of each kind, under each sanitizer; 50 of each kind among calls, opens and
           closes that are under way
  races    the tests of threads that meet, 50 times under the thread sanitizer
  cancels  400 cancellations of a thread inside each function: no abort, no lock kept, no descriptor lost
  clang    all tests with clang, optimised as gcc's are
  asan     all tests under gcc's sanitizers of memory and undefined behaviour
  arm64    all tests on arm64, of which each change runs a part, and its packages
  tidy     clang-tidy on each source by itself
  bench    that the benchmarks of the other messaging systems and the plots work, too
  mutants  small faults in the sources, as many as 6 minutes are enough for, after those of the nights before
  bare     scripts/test.sh and scripts/demo.sh on a system that has nothing yet

  --limit MINUTES  for each step, instead of its own
  --resume         leave out the steps that a run which was broken off has ended; the table has them, too
  --list           print the steps with their limits, and run none
  --update         put the table of promises and figures, and the plots, into docs/; steps that were not run stay there as
                   they are

Everything a step prints is in build/nightly/STEP.log, the table in build/nightly/table.md. Installs what is missing.
TEXT
}

declare -a summary=()
failed=0

# run STEP NAME COMMAND...: within what the step has left of its limit.
run() {
    local step=$1 name=$2 start=$SECONDS verdict=ok status log=build/nightly/$1.log left
    shift 2
    left=$((step_end - SECONDS))
    printf '\n== %s: %s\n' "$name" "$*"
    # shellcheck disable=SC2016 # for the inner shell, which has the functions of this one
    timeout --kill-after=30 "$((left > 0 ? left : 1))" bash -c '"$@"' bash "$@" 2>&1 | tee -a "$log"
    status=${PIPESTATUS[0]}
    if [[ $status -ne 0 ]]; then
        verdict=FAILED
        [[ $status -ne 124 && $status -ne 137 ]] || verdict='TIME OUT'
        failed=1
        step_verdict=FAILED
    fi
    summary+=("$(printf '%-28s %-8s %5d s  %s' "$name" "$verdict" $((SECONDS - start)) "$log")")
}

# It ends with its step: the watchdog of tests is for those that take seconds.
storm() {
    local program=$1
    shift
    scripts/build-target.sh release "$program" && scripts/fifo-directory.sh &&
        TARVO_TEST_WATCHDOG=7200 "build/release/tests/storm/$program" "$@"
}

# What two killed ends leave behind is for the tool to find and to remove, all of it.
storm_and_clean() {
    scripts/build-target.sh release tarvoctl &&
        storm storm_kills "$@" --cleaner "build/release/tools/tarvoctl/tarvoctl clean --yes --min-age 0s >/dev/null"
}

step_kills() { run kills "$kills kills" storm_and_clean --kills "$kills" --groups 6 ${seed:+--seed "$seed"}; }
step_loopkills() {
    run loopkills "2000 kills under the loop" storm storm_loop --calls 300000 --kills 2000 --groups 8 ${seed:+--seed "$seed"}
}

step_loop() {
    run loop "10^6 calls of the loop" storm storm_loop ${seed:+--seed "$seed"}
    run loop "$soak minutes of the loop" storm storm_loop --minutes "$soak" ${seed:+--seed "$seed"}
}
step_bridge() {
    scripts/install-deps.sh bridge && scripts/build-target.sh release bridge_network || return
    run bridge "500 kills between machines" env TARVO_STRESS_ROUNDS=500 TARVO_TEST_WATCHDOG=3600 \
        build/release/tests/bridge/bridge_network --gtest_filter=MachinesTest.KillsInTrafficWedgeNothing
    run bridge "a cable that is out" env TARVO_STRESS_ROUNDS=1 TARVO_TEST_WATCHDOG=600 \
        build/release/tests/bridge/bridge_network --gtest_filter=MachinesTest.NetworkThatComesBackIsUsedAgain
    run bridge "64 callers between machines" env TARVO_STRESS_ROUNDS=100 TARVO_TEST_WATCHDOG=600 \
        build/release/tests/bridge/bridge_network --gtest_filter=MachinesTest.SixtyFourCallersGetTheirOwnAnswersAndEachOnce
    run bridge "a server that is stopped" env TARVO_STRESS_ROUNDS=1 TARVO_TEST_WATCHDOG=600 \
        build/release/tests/bridge/bridge_network \
        --gtest_filter=MachinesTest.StoppedServerGetsAllThatClientsHadSentBeforeTheyLeft
}

step_comeback() {
    run comeback "1000 kills under a client" storm storm_client_kills --kills 1000
    run comeback "the same on one processor" storm storm_client_kills --kills 1000 --one-core
}
step_stopped() { run stopped "servers stopped for 30 s" storm storm_stopped --seconds 30; }

step_reconnect() {
    run reconnect "$reconnects reconnections" storm storm_reconnect --rounds "$reconnects"
    run reconnect "the same on one core" storm storm_reconnect --rounds "$reconnects" --one-core
    run reconnect "the same beside load" storm storm_reconnect --rounds "$reconnects" --load "$(nproc)"
    run reconnect "the same on one core, beside load" storm storm_reconnect --rounds "$reconnects" --one-core --load 2
    run reconnect "the same, callbacks of 20 ms" storm storm_reconnect --rounds "$reconnects" --callback-ms 20
    run reconnect "the same, without a callback" storm storm_reconnect --rounds "$reconnects" --no-callback
}
step_twins() { run twins "$twins starts of two servers" storm storm_twins --rounds "$twins"; }
step_soak() {
    local counted=()
    [[ $EUID -ne 0 ]] || counted=(--stats)
    run soak "soak of $soak minutes" scripts/soak.sh --minutes "$soak" --out build/nightly/soak "${counted[@]}"
}
step_python() {
    run python "the Python package, for long" env TARVO_KILLS=1000 TARVO_CALLS=100000 TARVO_EXAMPLES=2000 \
        TARVO_LIMIT=900 scripts/test.sh release -- -R '^python_package$' --output-on-failure
}

# Each test in a process of its own, which compares its numbers at the end.
step_counted() {
    run counted "2000 kills, counted" storm storm_kills --kills 2000 --groups 6 --quiet --stats ${seed:+--seed "$seed"}
    run counted "tests, counted" env TARVO_TEST_STATS=1 scripts/test.sh release -- --output-on-failure \
        -R '^(unit_(pipe|pipe_calls|server|monitor|table|api_calls|api_cancel)|faults_calls|system_(call|callback|close|open|full_fifo|raw_peer|shutdown)|unit_loop(_links)?|loop_(rounds|opening|receiving|sending|calls|ends|serving|quiet|handles|faults|hostile))\.'
}
step_fuzz() { run fuzz "fuzzing, $fuzz s a target" scripts/fuzz.sh --seconds "$fuzz" --jobs 2 --keep; }
step_models() { run models "models, large bounds" scripts/models.sh --large --minutes 4; }

step_ends() {
    run ends "$ends ends of each kind" scripts/exit-runs.sh --runs "$ends"
    run ends "50 ends of each kind, in the middle" env TARVO_EXIT_RUNS=50 scripts/test.sh release -- -R "^unit_api_exit"
}

step_races() {
    run races "races, $repeats times" scripts/test.sh tsan -- -R 'Stress|Race|Concurrent|Storm|storm_kills' \
        --repeat "until-fail:$repeats" --output-on-failure --timeout 600
}

step_reopen() {
    run reopen "$reopenings reopenings and closes" env "TARVO_STRESS_ROUNDS=$reopenings" TARVO_TEST_WATCHDOG=1800 \
        scripts/test.sh release -- -R '^system_reopen' --output-on-failure --timeout 1800
}

step_cancels() {
    run cancels "400 cancellations of each" env TARVO_CANCELLATIONS=400 TARVO_TEST_WATCHDOG=1800 \
        scripts/test.sh release -- -R unit_api_cancel --output-on-failure --timeout 1800
}

step_clang() { run clang "all tests with clang" scripts/test.sh clang; }
step_asan() { run asan "all tests under gcc's asan" scripts/test.sh asan; }
step_arm64() {
    run arm64 "all tests on arm64" scripts/test.sh arm64
    run arm64 "packages of arm64" scripts/check-packages.sh arm64
}
step_tidy() { run tidy "clang-tidy, source by source" scripts/check-tidy.sh --separate; }
step_bench() { run bench "all benchmarks, in short" scripts/bench.sh --smoke; }
step_mutants() {
    run mutants "faults in the sources" scripts/mutants.py --seed "${seed:-1}" --faults 1000 --hours "$mutant_hours" \
        --at-least 95
}
step_bare() { run bare "tests and demo on a bare system" scripts/bare-system.sh; }

# picked STEP EXPRESSION...: the lines of a step's log that begin so, in one.
picked() {
    local log=build/nightly/$1.log expression
    shift
    for expression in "$@"; do
        grep -aE "^($expression)" "$log" | tail -n 1
    done | sed -E 's/[ |]+/ /g; s/ *$//' | paste -sd ';' | sed 's/;/; /g'
}

# The figures that stand for a step, out of what it has printed.
figures() {
    case $1 in
    kills) picked kills 'kills' 'answers, each' 'restart to first answer: 99' 'wedged' 'other failures' ;;
    # Of all groups, of which each prints its own.
    loopkills) awk '/^(calls|answered|timed out|cancelled|lost|kills)  / { count = $NF; $NF = ""; sum[$0] += count; names[$0] }
        END { for (name in names) printf "%s%d; ", name, sum[name] }' build/nightly/loopkills.log ;;
    loop) picked "$1" 'calls' 'answered' 'timed out' 'cancelled' 'lost' 'kills' 'heap bytes more' ;;
    comeback) grep -aE '^[0-9]+ kills: ' build/nightly/comeback.log | paste -sd ';' ;;
    stopped) picked stopped 'sends refused' 'a refused send took, 99' 'later than that, 99' 'share of' ;;
    reconnect) grep -aE '^[0-9]+ rounds, ' build/nightly/reconnect.log | paste -sd ';' | sed 's/;/; /g' ;;
    twins) picked twins 'starts:' 'a stop took' ;;
    soak) printf 'last row: %s; grown: %s' "$(grep -aE '^ +[0-9.]+( +[0-9]+){12}$' build/nightly/soak.log | tail -n 1 |
        awk '{ print $5 " calls, " $6 " one-way, median " $7 " us, 99th percentile " $8 " us, " $11 " killed, " $12 " stopped" }')" \
        "$(grep -ac GROWTH build/nightly/soak.log || true)" ;;
    models) awk '/ ok / { states += $3; models++ } / seen / { mutants++ }
        END { printf "%d searches, %.0f states, %d mutants seen", models, states, mutants }' build/nightly/models.log ;;
    fuzz) awk '/ inputs, / { inputs += $3; targets++ } END { printf "%d targets, %d inputs", targets, inputs }' \
        build/nightly/fuzz.log ;;
    mutants) picked mutants 'noticed: ' ;;
    counted | python | races | reopen | cancels | clang | asan | arm64 | bare)
        grep -aE '^[0-9]+% tests passed' "build/nightly/$1.log" | tail -n 1
        ;;
    *) tail -n 1 "build/nightly/$1.log" | cut -c -80 ;;
    esac
}

commit() { git rev-parse --short=12 HEAD 2>/dev/null || echo unknown; }

# Whether the step has been done; what is known of it is in $seconds, $verdict and $made_from.
done_before() { read -r seconds verdict made_from 2>/dev/null <"build/nightly/$1.done"; }

# What the usage says a step shows, on one line.
promise() {
    usage | awk -v step="$1" '
        /^$/ { take = 0 }
        take && /^  [a-z0-9]/ { take = 0 }
        $1 == step && /^  [a-z]/ { take = 1; $1 = "" }
        take { $1 = $1; text = text " " $0 }
        END { sub(/^ +/, "", text); print text }'
}

# Of all steps that were asked for and are done.
write_table() {
    local step seconds verdict made_from
    printf '| step | promised | figures | seconds | | commit |\n|---|---|---|---|---|---|\n' >build/nightly/table.md
    for step in "$@"; do
        done_before "$step" || continue
        # shellcheck disable=SC2016 # Markdown's
        printf '| `%s` | %s | %s | %d | %s | %s |\n' "$step" "$(promise "$step")" "$(figures "$step" | tr '|' '/')" \
            "$seconds" "$verdict" "$made_from" >>build/nightly/table.md
    done
}

# The table for the page: what was not asked for this time is as the page has it.
whole_table() {
    local step
    head -n 2 build/nightly/table.md
    for step in "${STEPS[@]}"; do
        grep -hF -m 1 "| \`$step\` |" build/nightly/table.md docs/long-runs.md | head -n 1
    done
}

# Puts the table and the plots where readers find them.
update_pages() {
    whole_table >build/nightly/whole.md
    awk -v file=build/nightly/whole.md '
        /^<!-- nightly -->$/ { print; while ((getline line < file) > 0) print line; skipping = 1; next }
        /^<!-- end -->$/ { skipping = 0 }
        !skipping' docs/long-runs.md >build/nightly/page && cp build/nightly/page docs/long-runs.md
    [[ ! -e build/nightly/soak/soak.svg ]] || cp build/nightly/soak/soak.svg docs/soak.svg
    [[ ! -e build/nightly/soak/load.svg ]] || cp build/nightly/soak/load.svg docs/soak-load.svg
}

list() {
    local step total=0
    for step in "${STEPS[@]}"; do
        printf '%-10s %3d min\n' "$step" "${LIMITS[$step]}"
        total=$((total + LIMITS[$step]))
    done
    printf '%-10s %3d min\n' together $total
}

main() {
    local selected=() step seconds verdict made_from step_begun step_verdict
    kills=20000 reconnects=10000 twins=20000 reopenings=100000 soak=20 fuzz=180 ends=1000 repeats=50 seed='' mutant_hours=0.1
    limit='' update=false resume=false
    while [[ $# -gt 0 ]]; do
        case $1 in
        -h | --help) usage && return 0 ;;
        --list) list && return 0 ;;
        --update) update=true ;;
        --resume) resume=true ;;
        --kills | --reconnects | --twins | --reopenings | --soak-minutes | --fuzz-seconds | --ends | --repeats | --seed | \
            --mutant-hours | --limit)
            [[ $# -gt 1 ]] || { usage >&2 && return 2; }
            case $1 in
            --kills) kills=$2 ;;
            --reconnects) reconnects=$2 ;;
            --twins) twins=$2 ;;
            --reopenings) reopenings=$2 ;;
            --soak-minutes) soak=$2 ;;
            --fuzz-seconds) fuzz=$2 ;;
            --ends) ends=$2 ;;
            --repeats) repeats=$2 ;;
            --seed) seed=$2 ;;
            --mutant-hours) mutant_hours=$2 ;;
            --limit) limit=$2 ;;
            esac
            shift
            ;;
        *)
            [[ " ${STEPS[*]} " == *" $1 "* ]] || { usage >&2 && return 2; }
            selected+=("$1")
            ;;
        esac
        shift
    done
    [[ ${#selected[@]} -gt 0 ]] || selected=("${STEPS[@]}")
    mkdir -p build/nightly
    export -f storm storm_and_clean
    for step in "${selected[@]}"; do
        $resume || rm -f "build/nightly/$step.done"
    done
    for step in "${selected[@]}"; do
        if $resume && done_before "$step"; then
            [[ $verdict == held ]] || failed=1
            continue
        fi
        : >"build/nightly/$step.log"
        step_begun=$SECONDS step_verdict=held
        step_end=$((SECONDS + 60 * ${limit:-${LIMITS[$step]}}))
        "step_$step" || failed=1 step_verdict=FAILED
        echo "$((SECONDS - step_begun)) $step_verdict $(commit)" >"build/nightly/$step.done"
    done
    write_table "${selected[@]}"
    ! $update || update_pages
    printf '\n== Summary, %d s\n' $SECONDS
    printf '%s\n' "${summary[@]}"
    return $failed
}

main "$@"
