#!/usr/bin/env bash
# example_test.sh SERVER CLIENT: the client has all its lines counted by the server, which then ends in order.
set -euo pipefail
name=lines_$$
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
emulator=${TARVO_EMULATOR:-}

mkdir -p /dev/shm/velm/tarvo
: >"$scratch/server" # for tail, which may be quicker than the server
# shellcheck disable=SC2086 # an emulator may come with options
$emulator "$1" "$name" >"$scratch/server" 2>&1 &
server=$!
# Its first line says that it serves; tail ends with it.
grep -q -m 1 serving < <(tail -f -n +1 --pid="$server" "$scratch/server") || { cat "$scratch/server" && exit 1; }

status=0
# shellcheck disable=SC2086
$emulator "$2" "$name" >"$scratch/client" 2>&1 || status=$?
kill -TERM "$server"
wait "$server" || status=$?
cat "$scratch/server" "$scratch/client"
[[ $status -eq 0 ]]
grep -E '(1000 lines, 0 failed, 50500|100 lines, 5050) letters' "$scratch/client" >/dev/null
