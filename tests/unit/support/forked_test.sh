#!/usr/bin/env bash
# Tests that their program forks fail alone, and make it fail. Takes the command that runs forked_sample.
set -euo pipefail

fail() {
    echo "forked_test.sh: $*" >&2
    exit 1
}
# says PATTERN: a whole line of the output.
says() { grep -qxE "$1" <<<"$output" || fail "nothing says '$1':"$'\n'"$output"; }
says_not() { ! grep -qE "$1" <<<"$output" || fail "something says '$1':"$'\n'"$output"; }

output=$("$@" --each-forked 2>&1) || fail "ended with $?:"$'\n'"$output"
says 'Tests forked: 7, failed: 0'
says '\[       OK \] Two/Each.MeetsAFreshProcess/1 \([0-9]+ ms of processor time\)'
says 'no reason'
says_not '^tag ' # of a test that has passed

status=0
output=$(FORKED_SAMPLE=bad "$@" --each-forked 2>&1) || status=$?
[[ $status -eq 1 ]] || fail "ended with $status although tests have failed"
says 'Tests forked: 7, failed: 3'
says '\[  FAILED  \] Alone.MayFail \(.*'
says 'on purpose'
says 'Alone.MayCrash: ended by signal 6'
says 'Alone.MayEndTheProcess: ended with 3'
says '\[       OK \] Alone.HasNamesOfItsOwn \(.*'

# GoogleTest leaves them to another process, and is content.
! output=$(GTEST_TOTAL_SHARDS=2 GTEST_SHARD_INDEX=1 "$@" --each-forked 2>&1) || fail "tests passed that did not run"
says 'Tests forked: 7, failed: 7'
