#!/usr/bin/env bash
# Builds the project and runs its tests: one command from a fresh clone to CTest's verdict.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

usage() {
    cat <<'TEXT'
Usage: scripts/test.sh [--part NAME] [--build-only | --tests-only] [--objects-of PRESET] [--joined] [--forked]
                       [--tests-by COMPILER] [PRESET...] [-- CTEST_ARGUMENT...]

Installs what is missing, configures, builds and tests each preset (default: release): release, debug, checked, asan,
tsan, clang, arm64. Arguments after -- go to ctest, whose output is then shown whole.

  --part NAME   build and run one part of the tests: portable, what another processor may do otherwise
  --build-only  leave the tests for later
  --tests-only  run what --build-only has built
  --objects-of PRESET
                link most test programs of what that preset, which is built, has compiled: the libraries differ only
  --joined      compile many sources of a library at a time, which is faster; what ships is not
  --tests-by COMPILER
                compile the tests with another compiler than the libraries; clang++ is faster
  --forked      start each test program once and fork a process for each of its tests, which is faster where programs
                start slowly: under a sanitizer, in an emulator

Where the kernel allows it, tests get a FIFO directory of their own, and several of these runs do not meet.

  scripts/test.sh tsan -- -R unit_fifo --repeat until-fail:100
TEXT
}

groups_of() {
    case $1 in
    checked | clang) echo base clang man ;;
    tsan) echo base bridge clang man ;;
    arm64) echo base bridge arm64 man ;;
    *) echo base bridge man ;;
    esac
}

# Lets the kernel run arm64 programs through the emulator, as a booted system with systemd does by itself: tests start
# other programs. CTest needs no such help for the tests themselves, so a machine that refuses it runs most of them.
prepare_emulation() {
    local misc=/proc/sys/fs/binfmt_misc as_root=()
    [[ $(uname -m) != aarch64 && ! -e $misc/qemu-aarch64 ]] || return 0
    [[ $EUID -eq 0 ]] || as_root=(sudo -n)
    if [[ -e $misc/register ]] || "${as_root[@]}" mount -t binfmt_misc binfmt_misc $misc 2>/dev/null; then
        "${as_root[@]}" tee $misc/register </usr/lib/binfmt.d/qemu-aarch64.conf >/dev/null 2>&1 && return 0
    fi
    echo "test.sh: the kernel does not start arm64 programs here; tests that start others will fail" >&2
}

# Runs a command that matters only when it fails: its output goes to a file, and from there to the terminal.
quietly() {
    local log=$1
    shift
    if ! "$@" >"$log" 2>&1; then
        cat "$log" >&2
        return 1
    fi
}

configure_and_build() {
    local preset=$1 target=()
    [[ -z $part ]] || target=(--target "tests_$part")
    mkdir -p "build/$preset"
    quietly "build/$preset/configure.log" configure "$preset" "-DTARVO_OBJECTS_OF=${objects_of:+$PWD/build/$objects_of}" \
        -DTARVO_JOIN=$joined -DTARVO_FORK_TESTS=$forked "-DTARVO_TEST_COMPILER=$tests_by" ||
        return 1
    if [[ -t 1 ]]; then
        cmake --build --preset "$preset" "${target[@]}"
    else
        quietly "build/$preset/build.log" cmake --build --preset "$preset" "${target[@]}"
    fi
}

run_tests() {
    local preset=$1 prefix label=()
    shift
    [[ -z $part ]] || label=(-L "^$part\$")
    mapfile -t prefix < <(without_randomisation "$preset")
    if [[ $# -gt 0 ]]; then
        in_sandbox "${prefix[@]}" ctest --preset "$preset" "${label[@]}" "$@"
    elif [[ -t 1 ]]; then
        in_sandbox "${prefix[@]}" ctest --preset "$preset" "${label[@]}" --progress
    else
        # Whatever is not the start or the success of one test: failures with their output, and the closing lines.
        in_sandbox "${prefix[@]}" ctest --preset "$preset" "${label[@]}" 2>&1 |
            awk '!/^ *Start +[0-9]+: / && !/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: .* +Passed +[0-9.]+ sec$/ && NF'
    fi
}

main() {
    local presets=() failed=0 groups build=true tests=true
    part='' objects_of='' joined=OFF forked=OFF tests_by=''
    while [[ $# -gt 0 ]]; do
        case $1 in
        -h | --help) usage && return 0 ;;
        --part) part=${2:?name} && shift ;;
        --build-only) tests=false ;;
        --tests-only) build=false ;;
        --objects-of) objects_of=${2:?preset} && shift ;;
        --joined) joined=ON ;;
        --forked) forked=ON ;;
        --tests-by) tests_by=${2:?compiler} && shift ;;
        --)
            shift
            break
            ;;
        -*) usage >&2 && return 2 ;;
        *) presets+=("$1") ;;
        esac
        shift
    done
    for preset in "${presets[@]:-release}"; do
        read -ra groups < <(groups_of "$preset")
        scripts/install-deps.sh "${groups[@]}"
        [[ $preset != arm64 ]] || prepare_emulation
        ! $build || configure_and_build "$preset"
        $tests || continue
        run_tests "$preset" "$@" || failed=$?
        scripts/test-log.py "build/$preset/Testing/Temporary/LastTest.log" || failed=1
        [[ $failed -eq 0 ]] || return $failed
    done
}

main "$@"
