#!/usr/bin/env bash
# Runs the README's example as it says: one process serves, another calls. Arguments: the program, with what runs it.
set -euo pipefail

coproc SERVER { exec "$@" serve; }
# Lost once the server has ended.
server=$SERVER_PID
exec {from_server}<&"${SERVER[0]}" {to_server}>&"${SERVER[1]}"

IFS= read -r line <&"$from_server"
[[ $line == "Serving. Enter ends it." ]] || { echo "the server says: $line" && exit 1; }

answer=$("$@" Ada)
[[ $answer == "Hello, Ada!" ]] || { echo "the answer is: $answer" && exit 1; }

echo >&"$to_server"
wait "$server"

# Nobody serves any more.
if "$@" Ada 2>/dev/null; then
    echo "a call without a server succeeds" && exit 1
fi
