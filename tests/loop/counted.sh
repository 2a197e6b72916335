#!/usr/bin/env bash
# counted.sh PROGRAM TEST...: runs these tests, each in a process of its own that is counted; their numbers must agree.
set -euo pipefail
if ! unshare --mount true 2>/dev/null; then
    echo "Skipped: needs the right to mount, which not even root has in most containers"
    exit 0
fi
program=$1
shift
for test in "$@"; do
    TARVO_TEST_STATS=1 "$program" --gtest_filter="$test"
done
