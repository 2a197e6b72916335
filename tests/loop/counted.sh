#!/usr/bin/env bash
# counted.sh PROGRAM TEST...: runs these tests, each in a process of its own that is counted; their numbers must agree.
set -euo pipefail
if [[ $EUID -ne 0 ]]; then
    echo "Skipped: only root can mount a directory for this test alone"
    exit 0
fi
program=$1
shift
for test in "$@"; do
    TARVO_TEST_STATS=1 "$program" --gtest_filter="$test"
done
