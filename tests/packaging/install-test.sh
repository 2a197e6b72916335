#!/usr/bin/env bash
# Installs a build into a scratch folder, and there builds and runs a user's program with CMake and with pkg-config.
#
#   install-test.sh BUILD_FOLDER CXX_COMPILER
set -euo pipefail
build=$1
cxx=$2
consumer=$(cd "$(dirname "$0")/consumer" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build" --prefix "$scratch/root" >/dev/null

cmake -S "$consumer" -B "$scratch/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/root" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$scratch/cmake" >/dev/null
"$scratch/cmake/consumer"
echo "a consumer of the CMake package runs"

pc=$(find "$scratch/root" -name tarvo.pc)
export PKG_CONFIG_PATH=${pc%/*}
libdir=$(pkg-config --variable=libdir tarvo)
# shellcheck disable=SC2046 # a list of options
"$cxx" -std=c++17 -o "$scratch/consumer" "$consumer/consumer.cpp" $(pkg-config --cflags --libs tarvo)
LD_LIBRARY_PATH=$libdir "$scratch/consumer"
[[ $(pkg-config --modversion tarvo) == 1.0.0 ]]
echo "a consumer of the pkg-config file runs"

soname=$(readelf -d "$libdir/libtarvo.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[[ $soname == libtarvo.so.1 ]]
echo "the library is $soname"
