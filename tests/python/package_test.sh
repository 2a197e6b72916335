#!/usr/bin/env bash
# The tests of the Python package, and how much of it they reach: 95 % of the lines at least.
set -euo pipefail
python=$1 build=$2
shift 2
cd "$(dirname "$0")/../../python"

for module in pytest pytest_asyncio hypothesis coverage; do
    "$python" -c "import $module" 2>/dev/null || { echo "Skipped: $python has no module $module" && exit 0; }
done
export TARVO_BUILD=$build PYTHONDONTWRITEBYTECODE=1 PYTHONPATH=$PWD
COVERAGE_FILE=$(mktemp -d)/data
export COVERAGE_FILE
trap 'rm -rf "${COVERAGE_FILE%/*}"' EXIT

"$python" -m coverage run -m pytest -q -p no:cacheprovider "$@"
"$python" -m coverage combine -q
"$python" -m coverage report --fail-under 95
