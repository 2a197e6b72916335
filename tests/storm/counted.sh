#!/usr/bin/env bash
# counted.sh STATS_TRUTH COMMAND...: runs a storm in which every process is counted, in a /dev/shm of its own, and then
# holds the numbers that are left against each other.
set -euo pipefail
if [[ ${COUNTED:-} != inside ]]; then
    if ! unshare --mount true 2>/dev/null; then
        echo "Skipped: needs the right to mount, which not even root has in most containers"
        exit 0
    fi
    COUNTED=inside exec unshare --mount "$0" "$@"
fi
truth=$1
shift
mount -t tmpfs -o mode=1777 tmpfs /dev/shm
mkdir -p /dev/shm/velm/tarvo
mkdir -m 2770 /dev/shm/velm/tarvo-stats
"$@"
"$truth"
