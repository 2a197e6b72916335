#!/bin/sh
# compile-by.sh COMPILER OTHER ARGUMENT...: compiles with COMPILER what CMake has prepared for another one.
compiler=$1
shift 2
exec "$compiler" "$@"
