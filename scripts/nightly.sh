#!/usr/bin/env bash
# Everything that takes too long for each change. Runs all steps even when one fails, then prints one line for each; the
# exit status is that of the worst.
set -uo pipefail
cd "$(dirname "$0")/.." || exit

STEPS=(kills loopkills loop comeback stopped reconnect twins reopen bridge soak fuzz ends races cancels clang asan arm64 tidy bare)

usage() {
    cat <<'TEXT'
Usage: scripts/nightly.sh [--kills N] [--reconnects N] [--twins N] [--reopenings N] [--soak-minutes N] [--fuzz-seconds N]
                          [--ends N] [--repeats N] [--seed N] [STEP...]

Runs the long proofs, all of them (about four hours) or the named steps:

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
           every call ends, and the next one works
  soak     20 minutes of mixed traffic: no growth of memory, descriptors or threads
  fuzz     600 s of each fuzz target
  ends     1000 ends of a process with traffic, of each kind, under each sanitizer
  races    the tests of threads that meet, 50 times under the thread sanitizer
  cancels  400 cancellations of a thread inside each function: no abort, no lock kept, no descriptor lost
  clang    all tests with clang, optimised as gcc's are
  asan     all tests under gcc's sanitizers of memory and undefined behaviour
  arm64    all tests on arm64, of which each change runs a part
  tidy     clang-tidy on each source by itself
  bare     scripts/test.sh and scripts/demo.sh on a system that has nothing yet

Everything a step prints is in build/nightly/STEP.log. Installs what is missing.
TEXT
}

declare -a summary=()
failed=0

# run STEP NAME COMMAND...
run() {
    local step=$1 name=$2 start=$SECONDS verdict=ok log=build/nightly/$1.log
    shift 2
    printf '\n== %s: %s\n' "$name" "$*"
    if ! "$@" 2>&1 | tee -a "$log"; then
        verdict=FAILED
        failed=1
    fi
    summary+=("$(printf '%-28s %-7s %5d s  %s' "$name" "$verdict" $((SECONDS - start)) "$log")")
}

storm() {
    local program=$1
    shift
    scripts/build-target.sh release "$program" && scripts/fifo-directory.sh && "build/release/tests/storm/$program" "$@"
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
step_soak() { run soak "soak of $soak minutes" scripts/soak.sh --minutes "$soak" --out build/nightly/soak; }
step_fuzz() { run fuzz "fuzzing, $fuzz s a target" scripts/fuzz.sh --seconds "$fuzz"; }

step_ends() { run ends "$ends ends of each kind" scripts/exit-runs.sh --runs "$ends"; }

step_races() {
    run races "races, $repeats times" scripts/test.sh tsan -- -R 'Stress|Race|Concurrent|Storm|storm_kills' \
        --repeat "until-fail:$repeats" --output-on-failure --timeout 600
}

step_reopen() {
    run reopen "$reopenings reopenings and closes" env "TARVO_STRESS_ROUNDS=$reopenings" scripts/test.sh release -- \
        -R '^system_reopen' --output-on-failure --timeout 1800
}

step_cancels() {
    run cancels "400 cancellations of each" env TARVO_CANCELLATIONS=400 scripts/test.sh release -- -R unit_api_cancel \
        --output-on-failure
}

step_clang() { run clang "all tests with clang" scripts/test.sh clang; }
step_asan() { run asan "all tests under gcc's asan" scripts/test.sh asan; }
step_arm64() { run arm64 "all tests on arm64" scripts/test.sh arm64; }
step_tidy() { run tidy "clang-tidy, source by source" scripts/check-tidy.sh --separate; }
step_bare() { run bare "tests and demo on a bare system" scripts/bare-system.sh; }

main() {
    local selected=() step
    kills=20000 reconnects=10000 twins=20000 reopenings=100000 soak=20 fuzz=600 ends=1000 repeats=50 seed=''
    while [[ $# -gt 0 ]]; do
        case $1 in
        -h | --help) usage && return 0 ;;
        --kills | --reconnects | --twins | --reopenings | --soak-minutes | --fuzz-seconds | --ends | --repeats | --seed)
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
    mkdir -p build/nightly
    for step in "${selected[@]:-${STEPS[@]}}"; do
        : >"build/nightly/$step.log"
        "step_$step"
    done
    printf '\n== Summary, %d s\n' $SECONDS
    printf '%s\n' "${summary[@]}"
    return $failed
}

main "$@"
