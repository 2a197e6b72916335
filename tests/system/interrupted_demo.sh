#!/usr/bin/env bash
# interrupted_demo.sh PROGRAMS: the demo, ended in the middle, leaves no process and no file behind.
set -euo pipefail
cd "$(dirname "$0")/../.."

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkfifo "$work/lines"
scripts/demo.sh --short --programs "$1" >"$work/lines" 2>&1 &
demo=$!
exec 3<"$work/lines"
while read -r line <&3; do
    case $line in
    *'serves as '*) server=${line##* } process=${line#*process } process=${process%% *} ;;
    *'They talk for'*) break ;;
    esac
done
kill -TERM "$demo"
cat <&3 >"$work/rest"
status=0
wait "$demo" || status=$?
[[ $status -eq 143 ]] || { echo "the demo ended with $status"; exit 1; }
! kill -0 "$process" 2>/dev/null || { echo "the server still runs"; exit 1; }
left=$(find /dev/shm/velm/tarvo -name "*$server*")
[[ -z $left ]] || { echo "left behind: $left"; exit 1; }
