#!/usr/bin/env bash
# The command line of the Python peer: help, both kinds of request, errors, and an end that leaves no file.
set -euo pipefail
root=$(cd "$(dirname "$0")/../../.." && pwd)
peer=$root/examples/python/peer.py
name=peer_cli_$$
"$root/scripts/fifo-directory.sh"
export PYTHONDONTWRITEBYTECODE=1

for words in "" serve call send; do
    # shellcheck disable=SC2086 # no word or one
    "$peer" $words --help | grep "^usage: peer.py" >/dev/null || { echo "no help of: $words" && exit 1; }
done

# Expects a refusal: the words of it, and the arguments.
refuses() {
    local why=$1 said
    shift
    if said=$("$peer" "$@" 2>&1); then
        echo "succeeds: $*" && exit 1
    fi
    [[ $said == *"$why"* ]] || { echo "says of $*: $said" && exit 1; }
}
refuses "nobody serves" call "$name" hello
refuses "not a valid name" call "a|b" hello
refuses "required" call "$name"

coproc SERVER { exec "$peer" serve "$name" --answer count --verbose; }
server=$SERVER_PID
exec {from_server}<&"${SERVER[0]}"
trap 'kill "$server" 2>/dev/null || true' EXIT

# Expects the server's next line.
says() {
    local line
    IFS= read -r -t 30 line <&"$from_server" || { echo "the server is silent; expected: $1" && exit 1; }
    # shellcheck disable=SC2053 # a pattern
    [[ $line == $1 ]] || { echo "the server says: $line" && exit 1; }
}
says "Serving $name. Ctrl-C ends it."

[[ $("$peer" call "$name" four --repeat 2) == $'4\n4' ]] || { echo "wrong answers" && exit 1; }
says "python_*: b'four'"
says "python_*: b'four'"
says "python_* has gone"
"$peer" send "$name" event --repeat 3 --wait --own sender
for _ in 1 2 3; do
    says "sender_*: b'event'"
done
says "sender_*: b'?'"
says "sender_* has gone"
refuses "1 to 4000 bytes" call "$name" "$(printf '%04001d' 0)"

kill -TERM "$server"
wait "$server"
trap - EXIT
if compgen -G "/dev/shm/velm/tarvo/*$name*" >/dev/null; then
    echo "files are left" && exit 1
fi
