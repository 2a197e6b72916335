#!/usr/bin/env bash
# Writes what the fault tests find to docs/FAULTS.md.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

if [[ ${1:-} == -h || ${1:-} == --help ]]; then
    cat <<'TEXT'
Usage: scripts/faults-table.sh

Builds the fault tests (release), runs them (about a minute) and replaces the tables of docs/FAULTS.md
and docs/SECURITY.md by what was found (the latter needs root).
TEXT
    exit 0
fi
scripts/fifo-directory.sh
scripts/install-deps.sh base
mkdir -p build
if ! { configure release && cmake --build --preset release --target faults_calls faults_directory; } >build/faults-table.log 2>&1; then
    cat build/faults-table.log >&2
    exit 1
fi
export TARVO_FAULTS_UPDATE=1
build/release/tests/faults/faults_calls --gtest_brief=1
build/release/tests/faults/faults_directory --gtest_brief=1
