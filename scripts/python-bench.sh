#!/usr/bin/env bash
# Compares the Python package with the messaging systems that the distribution has for asyncio.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

usage() {
    cat <<'TEXT'
Usage: scripts/python-bench.sh [OPTION...]

Measures calls one at a time, 64 calls under way and one-way requests, of this package, zmq, grpc.aio and dbus-next side
by side, each with a server and a client in processes of their own, in an order that is shuffled anew in every round.
Prints a table; leave the machine alone meanwhile (a minute and a half). Installs what is missing.

  --rounds N, --seconds S, --size BYTES, --seed N, --contestants NAMES, --scenarios NAMES, --json
                as bench/python/compare.py --help says
TEXT
}

if [[ ${1:-} == -h || ${1:-} == --help ]]; then
    usage
    exit 0
fi
scripts/install-deps.sh peers
in_sandbox /usr/bin/python3 bench/python/compare.py "$@"
