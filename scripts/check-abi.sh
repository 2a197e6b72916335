#!/usr/bin/env bash
# Compares the binary interface of the public header with that of the release that programs were built against.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
Usage: scripts/check-abi.sh [--update]

Compares what programs that were built against include/tarvo.h rely on (functions with their parameters and results, and
sizes, fields and values of the types) with the baseline of this major version, abi/libtarvo-1.0.abi, and fails on every
difference, also on additions: those go into the baseline with --update, by a change of its own. Then sees that the
members of the library's classes and its free functions, which programs may call directly, have their symbols in the
optimised library: abi/members.list (scripts/check-members.sh).

  --update   write the baseline anew, from the sources as they are

Installs abidiff when it is missing (scripts/install-deps.sh abi).
TEXT
}

baseline=abi/libtarvo-1.0.abi
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Names of the functions that the header declares.
functions() {
    sed -nE 's/^[A-Za-z_][A-Za-z0-9_ ]*[ *]([A-Za-z0-9_]+)\(.*/\1/p' include/tarvo.h | sort -u
}

# Everything but the functions of the header stays inside (ld's VERSION command). Overloads have mangled names.
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

# The sources that define those functions, as a library of their own: the debug information of the others would make the
# baseline twenty times as large and says nothing about the interface.
build() {
    local pattern sources jobs=() source
    pattern=$(IFS='|' && echo "$*")
    sources=$(grep -lE "^[A-Za-z_][A-Za-z0-9_ ]*[ *]($pattern)\(.*\{" -r src --include='*.cpp' | sort)
    # A symbol that is hidden in the library must come with it.
    for source in $sources src/base/Cancellation.cpp; do
        # shellcheck disable=SC2046 # a list of options
        ${CMAKE_CXX_COMPILER_LAUNCHER:-} g++ -std=c++17 -g -O0 -fPIC -Iinclude -Isrc $(pkg-config --cflags libselinux) \
            -c "$source" -o "$scratch/${source//\//_}.o" &
        jobs+=($!)
    done
    for job in "${jobs[@]}"; do
        wait "$job"
    done
    write_exports "$@" >"$scratch/exports"
    g++ -shared -Wl,-soname,libtarvo.so.1 -Wl,--version-script="$scratch/exports" -o "$scratch/libtarvo.so" "$scratch"/*.o
}

# abidw writes a function even when it knows its type only; every one must be there.
check_complete() {
    local name missing=0
    for name in "$@"; do
        if ! grep -q "<function-decl name='$name' " "$scratch/now.abi"; then
            echo "check-abi.sh: $name is declared and not found in the library" >&2
            missing=1
        fi
    done
    return $missing
}

main() {
    local update=false names=() changes
    case ${1:-} in
    -h | --help) usage && return 0 ;;
    --update) update=true ;;
    '') ;;
    *) usage >&2 && return 2 ;;
    esac
    scripts/install-deps.sh base abi
    mapfile -t names < <(functions)
    build "${names[@]}"
    write_suppressions >"$scratch/suppressions"
    abidw --headers-dir include --drop-private-types --exported-interfaces-only --suppressions "$scratch/suppressions" \
        --no-show-locs --no-corpus-path --no-comp-dir-path --no-elf-needed --type-id-style hash \
        --out-file "$scratch/now.abi" "$scratch/libtarvo.so"
    check_complete "${names[@]}"
    if $update; then
        cp "$scratch/now.abi" "$baseline"
        echo "$baseline is written anew"
        return 0
    fi
    if ! changes=$(abidiff --no-architecture --no-redundant "$baseline" "$scratch/now.abi"); then
        echo "$changes"
        echo "check-abi.sh: the binary interface has changed. Programs that were built against it break, unless something" \
            "was only added: then scripts/check-abi.sh --update" >&2
        return 1
    fi
    echo "the binary interface of ${#names[@]} functions is that of $baseline"
    scripts/build-target.sh release tarvo
    scripts/check-members.sh build/release/src/libtarvo.so
}

main "$@"
