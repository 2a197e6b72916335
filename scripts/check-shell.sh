#!/usr/bin/env bash
# Runs shellcheck over every script for a shell, which is known by its first line.
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ ${1:-} == -h || ${1:-} == --help ]]; then
    echo "Usage: scripts/check-shell.sh"
    exit 0
fi
scripts=()
while IFS= read -r -d '' file; do
    [[ -f $file ]] || continue
    IFS= read -r -n 100 first <"$file" || true
    [[ ! $first =~ ^'#'(!.*[/ ](ba|da|)sh($|' ')|' shellcheck shell=') ]] || scripts+=("$file")
done < <(git ls-files -z)
shellcheck --external-sources "${scripts[@]}"
echo "shellcheck finds nothing in ${#scripts[@]} scripts"
