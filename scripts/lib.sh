# shellcheck shell=bash
# Functions that several scripts of this folder need; to be sourced.

# configure PRESET [OPTION...]: with a compiler cache, where there is one. In CI each file is compiled once, and
# precompiled headers, which a cache excludes, save more.
configure() {
    local cache=()
    [[ -n ${CI:-} ]] || ! command -v ccache >/dev/null || cache=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    cmake --preset "$1" "${cache[@]}" "${@:2}"
}

# The prefix for programs of a preset, a word a line. The sanitizers of this compiler generation cannot place their shadow
# memory when the kernel randomises more than 28 bits of a mapping's address; without randomisation they always can.
without_randomisation() {
    local bits
    bits=$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 28)
    [[ $1 =~ ^([at]san|checked)$ && $bits -gt 28 ]] && printf '%s\n' setarch -R
    return 0
}

# in_sandbox COMMAND...: runs it with a /dev/shm and FIFO directory of its own, so that what runs at the same time on this
# machine does not meet it, and as it is where the kernel does not allow that. As `tarvoctl sandbox` does, which not every
# build has.
in_sandbox() {
    local make='mount -t tmpfs -o mode=1777 tmpfs /dev/shm && install -d -m 0755 /dev/shm/velm &&
        install -d -m 1777 /dev/shm/velm/tarvo'
    local enter=(unshare --mount) as_before=()
    if [[ $EUID -ne 0 ]]; then
        # Only root of a namespace can mount; a second one makes the user himself again.
        enter=(unshare --user --map-root-user --mount)
        as_before=(unshare --user "--map-user=$EUID" "--map-group=$(id -g)")
    fi
    if "${enter[@]}" bash -c "$make && exec \"\$@\"" bash "${as_before[@]}" true 2>/dev/null; then
        "${enter[@]}" bash -c "$make && exec \"\$@\"" bash "${as_before[@]}" "$@"
    else
        echo "the kernel allows no sandbox here: what runs beside this meets it" >&2
        scripts/fifo-directory.sh && "$@"
    fi
}
