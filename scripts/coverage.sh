#!/usr/bin/env bash
# Runs the tests in the coverage preset and prints what of src/ they reach: a line for each file, then the totals.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
Usage: scripts/coverage.sh [--line PERCENT] [--branch PERCENT] [--html FILE]

  --line PERCENT, --branch PERCENT  fail when fewer of the lines or branches of src/ are reached
  --html FILE                       write a report with the sources, FILE being its first page
TEXT
}

report=()
while [[ $# -gt 0 ]]; do
    case $1 in
    -h | --help) usage && exit 0 ;;
    --line) report+=(--fail-under-line "${2:?}") ;;
    --branch) report+=(--fail-under-branch "${2:?}") ;;
    --html) report+=(--html-details "$(realpath -m "${2:?}")") && mkdir -p "$(dirname "$2")" ;;
    *) usage >&2 && exit 2 ;;
    esac
    shift 2
done

# Counts of an earlier run would be added to those of this one.
find build/coverage -name '*.gcda' -delete 2>/dev/null || true
scripts/test.sh coverage

# Branches that only an exception takes, and those of code that the compiler found unreachable, are not the sources'.
# Processes that end while their threads run write counts that do not add up, and a branch that is computed from others
# may then be negative, which gcovr takes for an unknown line; such a branch is left out.
gcovr --root . --filter src/ --exclude-throw-branches --exclude-unreachable-branches --gcov-ignore-parse-errors \
    --txt --print-summary "${report[@]}" build/coverage
