#!/usr/bin/env bash
# Checks the Python package: types (mypy --strict), and style with what the distribution has. Where ruff is installed it
# checks what pyproject.toml asks of it, too.
set -euo pipefail
cd "$(dirname "$0")/../python"

if [[ ${1:-} == -h || ${1:-} == --help ]]; then
    echo "Usage: scripts/check-python.sh"
    exit 0
fi
cache=$(mktemp -d)
trap 'rm -rf "$cache"' EXIT
/usr/bin/python3 -m mypy --cache-dir "$cache"
/usr/bin/python3 -m flake8 .
! command -v ruff >/dev/null || ruff check --no-cache .
echo "the Python package is clean"
