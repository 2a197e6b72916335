#!/usr/bin/env bash
# counted.sh STATS_TRUTH COMMAND...: runs a storm in which every process is counted, in a /dev/shm of its own, and then
# holds the numbers that are left against each other.
set -euo pipefail
if [[ $EUID -ne 0 ]]; then
    echo "Skipped: only root can mount a directory for this test alone"
    exit 0
fi
if [[ ${COUNTED:-} != inside ]]; then
    COUNTED=inside exec unshare --mount "$0" "$@"
fi
truth=$1
shift
mount -t tmpfs -o mode=1777 tmpfs /dev/shm
mkdir -p /dev/shm/velm/tarvo
mkdir -m 2770 /dev/shm/velm/tarvo-stats
"$@"
"$truth"
