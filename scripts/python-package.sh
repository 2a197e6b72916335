#!/usr/bin/env bash
# Builds the wheel of the Python package, for installations without Debian packages: pip install tarvo-VERSION.whl.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
Usage: scripts/python-package.sh [FOLDER]

Builds the wheel in FOLDER (default: build/python) and prints its name. Nothing is downloaded but the distribution's
packages that it needs (scripts/install-deps.sh).
TEXT
}

if [[ ${1:-} == -h || ${1:-} == --help ]]; then
    usage
    exit 0
fi
folder=${1:-build/python}
scripts/install-deps.sh packages
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# The build leaves folders beside its sources.
mkdir -p "$folder" "$scratch/source"
cp -r python/pyproject.toml python/README.md "$scratch/source"
mkdir "$scratch/source/tarvo"
cp python/tarvo/*.py python/tarvo/py.typed "$scratch/source/tarvo"
version=$(sed -n 's/^project(tarvo VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
grep -qx "__version__ = \"$version\"" python/tarvo/_version.py ||
    { echo "python-package.sh: python/tarvo/_version.py is not $version" >&2 && exit 1; }
# A wheel is an archive with the times of its files: those of the last commit make equal sources equal wheels.
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || echo 1700000000)
export SOURCE_DATE_EPOCH
if ! PIP_DISABLE_PIP_VERSION_CHECK=1 /usr/bin/python3 -m pip wheel --quiet --no-index --no-deps --no-build-isolation \
    --wheel-dir "$folder" "$scratch/source" >"$scratch/log" 2>&1; then
    cat "$scratch/log" >&2
    exit 1
fi
echo "$folder/tarvo-$version-py3-none-any.whl"
