#!/usr/bin/env bash
# Installs the distribution packages that the project is built and tested with. This is the only list of them.
set -euo pipefail

usage() {
    cat <<'TEXT'
Usage: scripts/install-deps.sh [--list] [GROUP...]

Installs what is missing of the named groups (default: base). Needs Debian 12, and root or sudo only when something is
missing; says nothing otherwise.

  base      build and test with gcc
  bridge    the bridge between machines and its tests
  clang     the presets with clang, its sanitizer and fuzzer runtimes, and coverage
  arm64     cross build for 64-bit Arm and its emulator
  tools     format, tidy, include and shell checks
  bench     the benchmarks
  tracing   the scripts that trace running processes
  plots     the plots of the benchmarks and of the soak
  peers     the messaging systems that the benchmarks compare with
  models    the models of what tests cannot reach
  man       the check of the manual pages
  packages  Debian packages and their checks, and those of the manual pages
  abi       the check of the binary interface
  bare      a bare system to try everything on
  all       everything above

  --list    print the packages of the groups and install nothing
TEXT
}

packages_of() {
    case $1 in
    base) echo g++ cmake ninja-build pkg-config libselinux1-dev libgtest-dev libgmock-dev libcli11-dev libfmt-dev \
        nlohmann-json3-dev python3 python3-prometheus-client libglib2.0-dev libasio-dev libsystemd-dev systemtap-sdt-dev \
        python3-pytest python3-pytest-asyncio python3-hypothesis python3-coverage ;;
    # What is built from its sources: types from an IDL, certificates for tests, machines as network namespaces.
    bridge) echo cyclonedds-dev cyclonedds-tools gcc iproute2 libsystemd-dev libtomlplusplus-dev openssl util-linux ;;
    clang) echo clang libclang-rt-14-dev llvm ;;
    # Only the cross compiler comes as a package of this machine's architecture. Headers and libraries come from the
    # foreign one, with the loader and the C++ runtime that the tests need under emulation.
    arm64) echo g++-aarch64-linux-gnu qemu-user-static libc6:arm64 libstdc++6:arm64 libselinux1-dev:arm64 \
        libgtest-dev:arm64 libgmock-dev:arm64 libfmt-dev:arm64 systemtap-sdt-dev:arm64 gcc-aarch64-linux-gnu \
        cyclonedds-dev:arm64 libsystemd-dev:arm64 libtomlplusplus-dev:arm64 ;;
    tools) echo clang-format clang-tidy python3 shellcheck mypy python3-pytest python3-flake8 ;;
    tracing) echo bpftrace ;;
    plots) echo python3-matplotlib ;;
    bench) echo libbenchmark-dev libcli11-dev nlohmann-json3-dev python3-numpy stress-ng rt-tests valgrind ;;
    peers) echo libzmq3-dev libnng-dev libsystemd-dev dbus-daemon libcapnp-dev capnproto libgrpc++-dev libprotobuf-dev \
        protobuf-compiler protobuf-compiler-grpc python3-dbus-next python3-zmq python3-grpcio ;;
    models) echo gcc spin tcc ;;
    man) echo binutils groff-base man-db mandoc ;;
    packages) packages_of man && echo adduser dpkg-dev file lintian systemd python3-pip python3-setuptools \
        python3-wheel ;;
    abi) echo abigail-tools ;;
    bare) echo debootstrap ;;
    all) for group in base bridge clang arm64 tools tracing bench plots peers models man packages abi bare; do packages_of "$group"; done ;;
    *)
        echo "install-deps.sh: no such group: $1" >&2
        usage >&2
        return 2
        ;;
    esac
}

# True when the package is installed, in the given architecture if one is named.
installed() {
    [[ $(dpkg-query -W -f '${db:Status-Status}\n' "$1" 2>/dev/null) == installed* ]]
}

as_root() {
    if [[ $EUID -eq 0 ]]; then
        env DEBIAN_FRONTEND=noninteractive "$@"
    elif command -v sudo >/dev/null; then
        sudo env DEBIAN_FRONTEND=noninteractive "$@"
    else
        echo "install-deps.sh: needs root or sudo to run: $*" >&2
        return 1
    fi
}

install() {
    local log
    log=$(mktemp)
    echo "Installing: $*"
    if [[ "$*" == *:arm64* ]] && ! dpkg --print-foreign-architectures | grep -x arm64 >/dev/null; then
        as_root dpkg --add-architecture arm64
    fi
    if ! { as_root apt-get update -q && as_root apt-get install -y -q --no-install-recommends "$@"; } >"$log" 2>&1; then
        cat "$log" >&2
        rm -f "$log"
        echo "install-deps.sh: could not install: $*" >&2
        return 1
    fi
    rm -f "$log"
}

main() {
    local list_only=false groups=() wanted=() missing=() names package
    for argument in "$@"; do
        case $argument in
        -h | --help) usage && return 0 ;;
        --list) list_only=true ;;
        *) groups+=("$argument") ;;
        esac
    done
    for group in "${groups[@]:-base}"; do
        names=$(packages_of "$group") || return 2
        # shellcheck disable=SC2206 # package names hold no blanks or patterns
        wanted+=($names)
    done
    if $list_only; then
        printf '%s\n' "${wanted[@]}"
        return 0
    fi
    if ! command -v apt-get >/dev/null; then
        echo "install-deps.sh: not a Debian system; install the counterparts of: ${wanted[*]}" >&2
        return 0
    fi
    for package in "${wanted[@]}"; do
        installed "$package" || missing+=("$package")
    done
    [[ ${#missing[@]} -eq 0 ]] || install "${missing[@]}"
}

main "$@"
