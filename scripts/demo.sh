#!/usr/bin/env bash
# Shows processes talking: sets the machine up, builds, and plays a small scene from examples/ in which a telemetry server
# is killed and started again under three clients.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

FIFO_DIRECTORY=/dev/shm/velm/tarvo

usage() {
    cat <<'TEXT'
Usage: scripts/demo.sh [--short] [--programs DIRECTORY]

Exits with 0 when every question was answered, every client came back to the restarted server and nothing was left
behind.

  --short                the same scene in less time
  --programs DIRECTORY   play with the example programs built there; set nothing up and build nothing
TEXT
}

say() { printf '\n== %s\n' "$*"; }

fail() {
    echo "demo.sh: $*" >&2
    exit 1
}

milliseconds() { echo $((10#$(date +%s%N) / 1000000)); }

set_up() {
    say "Setting this machine up"
    scripts/install-deps.sh base
    scripts/fifo-directory.sh
    say "Building the library and the examples"
    mkdir -p build/release
    configure release >build/release/configure.log 2>&1 ||
        { cat build/release/configure.log >&2 && fail "cannot configure"; }
    if [[ -t 1 ]]; then
        cmake --build --preset release --target tarvo_examples
    else
        cmake --build --preset release --target tarvo_examples >build/release/build.log 2>&1 ||
            { cat build/release/build.log >&2 && fail "cannot build"; }
    fi
}

# What the programs print is shown and kept, line by line.
open_log() {
    work=$(mktemp -d)
    mkfifo "$work/lines"
    tee "$work/log" <"$work/lines" &
    shower=$!
    exec 3>"$work/lines"
    : >>"$work/log"
}

start_server() {
    "$programs/telemetry_server" "$server_name" >&3 2>&3 3>&- &
    server=$!
}

start_client() {
    "$programs/$1_client" "$server_name" >&3 2>&3 3>&- &
    clients+=($!)
}

# Waits until every client has printed such a line, or fails after 60 s.
await_clients() {
    local client
    for client in polling event urgent; do
        await 1 "^$client: $1"
    done
}

# Waits until so many lines of the log match, or fails after 60 s.
await() {
    local count=$1 pattern=$2 deadline found=0
    deadline=$(($(milliseconds) + 60000))
    while ((found < count)); do
        (($(milliseconds) < deadline)) || fail "waited 60 s in vain for: $pattern"
        sleep 0.02
        found=$(grep -c -- "$pattern" "$work/log") || found=0
    done
}

leftovers() {
    [[ ! -d $FIFO_DIRECTORY ]] || find "$FIFO_DIRECTORY" -maxdepth 1 -name "*$server_name*"
}

# Sends a signal to the processes that were started here and still run, and fails when there are none. The one that
# shows their lines ends by itself, after them.
signal_rest() {
    local process any=1
    for process in $(jobs -pr); do
        if [[ $process != "$shower" ]]; then
            kill "-$1" "$process"
            any=0
        fi
    done
    return $any
}

# On every way out: ends what still runs and removes what a killed process left.
clean_up() {
    local status=$? deadline
    trap - EXIT INT TERM HUP
    set +e
    exec 2>/dev/null # nothing below is news
    signal_rest TERM
    deadline=$(($(milliseconds) + 1000))
    while signal_rest 0 && (($(milliseconds) < deadline)); do
        sleep 0.02
    done
    signal_rest KILL
    exec 3>&-
    [[ -z $shower ]] || wait "$shower"
    leftovers | xargs -r rm -f
    [[ -z $work ]] || rm -rf "$work"
    exit "$status"
}

# A signal to this script is heard during `wait` only, not during `sleep`.
pause() {
    sleep "$1" &
    wait $!
}

play() {
    local seconds=$1 started process
    started=$(milliseconds)
    open_log

    say "A telemetry server starts, and three clients connect to it"
    start_server
    await 1 'serves as'
    start_client polling
    start_client event
    start_client urgent
    await_clients 'connected to'

    say "They talk for $seconds s"
    pause "$seconds"

    say "The server is killed: kill -KILL $server"
    kill -KILL "$server"
    wait "$server" 2>/dev/null || true
    await_clients 'lost the server'

    say "The server starts again; the clients find it by its name"
    start_server
    await 2 'serves as'
    await_clients 'connected again'

    say "They talk for another $seconds s"
    pause "$seconds"

    say "The clients end and sum up"
    local failed=0
    for process in "${clients[@]}"; do
        kill -TERM "$process"
        wait "$process" || failed=$((failed + 1))
    done
    clients=()
    await 3 'has ended after'

    say "The server ends"
    kill -TERM "$server"
    wait "$server" || failed=$((failed + 1))
    server=
    exec 3>&-
    wait "$shower"
    shower=

    ((failed == 0)) || fail "$failed processes have failed"
    [[ -z $(leftovers) ]] || fail "left behind: $(leftovers)"
    local tenths=$((($(milliseconds) - started) / 100))
    say "Done in $((tenths / 10)).$((tenths % 10)) s: all questions answered, one restart survived, nothing left behind"
}

main() {
    local seconds=3 build=true
    programs=$PWD/build/release/examples
    while [[ $# -gt 0 ]]; do
        case $1 in
        -h | --help) usage && return 0 ;;
        --short) seconds=0.7 ;;
        --programs)
            [[ $# -gt 1 ]] || { usage >&2 && return 2; }
            build=false programs=$2
            shift
            ;;
        *) usage >&2 && return 2 ;;
        esac
        shift
    done
    # A name of its own, so that a real server, and a second demo, are left alone.
    server_name=telemetry_$$
    clients=() server='' shower='' work=''
    trap clean_up EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM HUP
    ! $build || set_up
    play "$seconds"
}

main "$@"
