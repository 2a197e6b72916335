#!/usr/bin/env bash
# Compares the binary interfaces of the public headers with those of the release that programs were built against.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
Usage: scripts/check-abi.sh [--update]

Compares what programs that were built against include/tarvo.h and include/tarvo_loop.h rely on (functions with their
parameters and results, and sizes, fields and values of the types; also include/tarvo_stats.h) with the baselines of this major version,
abi/libtarvo-1.0.abi and abi/libtarvo-loop-1.0.abi, and fails on every difference, also on additions: those go into the
baselines with --update, by a change of its own.

Then looks at the optimised libraries. The members of libtarvo's classes and its free functions, which programs may call
directly, must have their symbols: abi/members.list (scripts/check-members.sh). libtarvo-loop must show the functions of
its header and nothing else.

  --update   write the baselines anew, from the sources as they are

Installs abidiff when it is missing (scripts/install-deps.sh abi).
TEXT
}

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Names of the functions that a header declares.
functions() {
    sed -nE 's/^[A-Za-z_][A-Za-z0-9_ ]*[ *]([A-Za-z0-9_]+)\(.*/\1/p' "$1" | LC_ALL=C sort -u
}

# Everything but the functions of a header stays inside (ld's VERSION command). Overloads have mangled names.
write_exports() {
    local name
    echo '{ global:'
    for name in "$@"; do
        echo "$name; _Z${#name}$name*;"
    done
    echo 'local: *; };'
}

# The types of the C++ library are not described: their stability is that library's own promise. A field of such a type
# shows in the places of the fields behind it; its parameters are the compiler's to refuse, in the tests of the header.
write_suppressions() {
    cat <<'TEXT'
[suppress_type]
name_regexp = ^(std|__gnu_cxx|_).*
drop = yes
TEXT
}

# build LIBRARY FUNCTION...: the sources that define those functions, as a library of their own: the debug information of
# the others would make the baseline twenty times as large and says nothing about the interface.
build() {
    local library=$1 pattern sources jobs=() source objects=()
    shift
    pattern=$(IFS='|' && echo "$*")
    sources=$(grep -lE "^[A-Za-z_][A-Za-z0-9_ ]*[ *]($pattern)\(.*\{" -r src --include='*.cpp' | sort)
    # A symbol that is hidden in the library must come with it.
    for source in $sources src/base/Cancellation.cpp src/stats/Stats.cpp; do
        # shellcheck disable=SC2046 # a list of options
        ${CMAKE_CXX_COMPILER_LAUNCHER:-} g++ -std=c++17 -g -O0 -fPIC -Iinclude -Isrc $(pkg-config --cflags libselinux) \
            -c "$source" -o "$scratch/$library-${source//\//_}.o" &
        jobs+=($!)
        objects+=("$scratch/$library-${source//\//_}.o")
    done
    for job in "${jobs[@]}"; do
        wait "$job"
    done
    write_exports "$@" >"$scratch/exports"
    g++ -shared -Wl,-soname,"$library.so.1" -Wl,--version-script="$scratch/exports" -o "$scratch/$library.so" \
        "${objects[@]}"
}

# abidw writes a function even when it knows its type only; every one must be there.
check_complete() {
    local interface=$1 name missing=0
    shift
    for name in "$@"; do
        if ! grep -q "<function-decl name='$name' " "$interface"; then
            echo "check-abi.sh: $name is declared and not found in the library" >&2
            missing=1
        fi
    done
    return $missing
}

# check LIBRARY HEADER [FUNCTION...]: its interface, and those functions of other headers, against its baseline; or writes
# that anew.
check() {
    local library=$1 header=$2 baseline=abi/$1-1.0.abi now=$scratch/$1.abi names=() changes
    mapfile -t names < <(functions "$header")
    names+=("${@:3}")
    build "$library" "${names[@]}"
    abidw --headers-dir include --drop-private-types --exported-interfaces-only --suppressions "$scratch/suppressions" \
        --no-show-locs --no-corpus-path --no-comp-dir-path --no-elf-needed --type-id-style hash \
        --out-file "$now" "$scratch/$library.so"
    check_complete "$now" "${names[@]}" || return
    if $update; then
        cp "$now" "$baseline"
        echo "$baseline is written anew"
        return
    fi
    if ! changes=$(abidiff --no-architecture --no-redundant "$baseline" "$now"); then
        echo "$changes"
        echo "check-abi.sh: the binary interface has changed. Programs that were built against it break, unless something" \
            "was only added: then scripts/check-abi.sh --update" >&2
        return 1
    fi
    echo "the binary interface of ${#names[@]} functions is that of $baseline"
}

# check_exports LIBRARY HEADER [FUNCTION...]: programs can call what a library shows, and some day they do.
check_exports() {
    local library=$1 header=$2 differences
    if ! differences=$(diff <({ functions "$header" && printf '%s\n' "${@:3}"; } | LC_ALL=C sort) \
        <(nm --dynamic --defined-only --format=posix "$library" | cut -d ' ' -f 1 | LC_ALL=C sort)); then
        echo "$differences"
        echo "check-abi.sh: what $library shows (>) is not what $header declares (<)" >&2
        return 1
    fi
    echo "$library shows the functions of $header and nothing else"
}

main() {
    local update=false
    case ${1:-} in
    -h | --help) usage && return 0 ;;
    --update) update=true ;;
    '') ;;
    *) usage >&2 && return 2 ;;
    esac
    scripts/install-deps.sh base abi
    write_suppressions >"$scratch/suppressions"
    check libtarvo include/tarvo.h TarvoPipeStats
    check libtarvo-loop include/tarvo_loop.h TarvoLinkStats
    scripts/build-target.sh release tarvo_loop
    $update || scripts/check-members.sh build/release/src/libtarvo.so
    check_exports build/release/src/loop/libtarvo-loop.so include/tarvo_loop.h TarvoLinkStats
}

main "$@"
