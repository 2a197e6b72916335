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
# The loader finds the library below the loop's only where it searches by itself, or is told to.
LD_LIBRARY_PATH=$(dirname "$(find "$scratch/root" -name libtarvo.so.1)") "$scratch/cmake/loop_consumer"
"$scratch/cmake/stats_consumer"
echo "a consumer of the CMake package runs"

pc=$(find "$scratch/root" -name tarvo.pc)
export PKG_CONFIG_PATH=${pc%/*}
libdir=$(pkg-config --variable=libdir tarvo)
# shellcheck disable=SC2046 # a list of options
"$cxx" -std=c++17 -o "$scratch/consumer" "$consumer/consumer.cpp" $(pkg-config --cflags --libs tarvo)
LD_LIBRARY_PATH=$libdir "$scratch/consumer"
# shellcheck disable=SC2046 # a list of options
"$cxx" -std=c++17 -o "$scratch/loop_consumer" "$consumer/loop_consumer.cpp" $(pkg-config --cflags --libs tarvo-loop)
LD_LIBRARY_PATH=$libdir "$scratch/loop_consumer"
# shellcheck disable=SC2046 # a list of options
cc -std=c11 -o "$scratch/loop_consumer_c" "$consumer/loop_consumer.c" $(pkg-config --cflags --libs tarvo-loop)
LD_LIBRARY_PATH=$libdir "$scratch/loop_consumer_c"
# shellcheck disable=SC2046 # a list of options
cc -std=c11 -o "$scratch/stats_consumer" "$consumer/stats_consumer.c" $(pkg-config --cflags --libs tarvo-stats)
"$scratch/stats_consumer"
[[ $(pkg-config --modversion tarvo tarvo-loop) == $'1.0.0\n1.0.0' ]]
echo "a consumer of the pkg-config file runs"

for library in libtarvo libtarvo-loop; do
    soname=$(readelf -d "$libdir/$library.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
    [[ $soname == $library.so.1 ]]
    echo "the library is $soname"
done
