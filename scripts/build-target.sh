#!/usr/bin/env bash
# Builds single targets of a preset, for the scripts that run them. Says nothing unless that fails.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

usage() {
    echo "Usage: scripts/build-target.sh PRESET TARGET..."
}

case ${1:-} in
-h | --help) usage && exit 0 ;;
esac
[[ $# -ge 2 ]] || { usage >&2 && exit 2; }
preset=$1
shift
scripts/install-deps.sh base
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { configure "$preset" && cmake --build --preset "$preset" --target "$@"; } >"$log" 2>&1; then
    cat "$log" >&2
    exit 1
fi
