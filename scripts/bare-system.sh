#!/usr/bin/env bash
# Tries the first commands of a newcomer on a Debian system that has nothing but its base packages.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
Usage: scripts/bare-system.sh [--root DIRECTORY] [COMMAND...]

Makes a minimal Debian system in a new folder (debootstrap, from the mirror that apt is configured with here), clones the
committed sources into it, and runs each COMMAND there, as a newcomer would after cloning: from the sources' folder, with
a /proc and /dev/shm of its own. What they need they install themselves. Removes the system in the end.

  COMMAND           default: "scripts/demo.sh --short" and "scripts/test.sh"
  --root DIRECTORY  where to make it (default: a new folder below /var/tmp); keep it, and use the system that is there

Needs root, and network access to the mirror.
TEXT
}

# Of the first archive that apt knows here: its place and release.
mirror() {
    # shellcheck disable=SC2016 # names of apt's
    apt-get indextargets --format '$(REPO_URI) $(CODENAME)' 'Created-By: Packages' | awk 'NR == 1'
}

make_system() {
    local from uri release
    from=$(mirror)
    read -r uri release <<<"$from"
    [[ -n ${release:-} ]] || { echo "bare-system.sh: apt names no archive here" >&2 && return 1; }
    echo "Making a minimal system"
    if ! debootstrap --variant=minbase "$release" "$root" "$uri" >"$root.log" 2>&1; then
        tail -n 30 "$root.log" >&2
        return 1
    fi
    # The same archives and the way to them as here.
    cp -a /etc/apt/. "$root/etc/apt/"
    cp -L /etc/resolv.conf /etc/hosts "$root/etc/"
}

# With mounts that vanish with it: nothing of this machine's is seen there but its kernel, and its processes, without which
# the tool would not know who holds what.
enter() {
    # shellcheck disable=SC2016 # the inner shell's
    unshare --mount --propagation private -- bash -euo pipefail -c '
        root=$1
        shift
        # As on any system, the root is a mount, and that of its mount namespace: without that no program in there may have
        # mounts of its own, or come back from a namespace.
        mount --bind "$root" "$root"
        mount -t proc proc "$root/proc"
        mount -t tmpfs -o mode=755 tmpfs "$root/dev"
        for device in null zero full random urandom tty; do
            touch "$root/dev/$device"
            mount --bind "/dev/$device" "$root/dev/$device"
        done
        ln -s /proc/self/fd "$root/dev/fd"
        ln -s pts/ptmx "$root/dev/ptmx"
        mkdir "$root/dev/shm" "$root/dev/pts"
        mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
        mount -t devpts -o newinstance,ptmxmode=0666,mode=0620 devpts "$root/dev/pts"
        mount -t sysfs sysfs "$root/sys"
        cd "$root"
        mkdir -p outside
        pivot_root . outside
        cd /
        umount -l /outside
        rmdir /outside
        exec /usr/bin/env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
            HOME=/root TERM=dumb LANG=C.UTF-8 "$@"' -- "$root" "$@"
}

main() {
    local keep=false command failed=0
    root=''
    while [[ ${1:-} == -* ]]; do
        case $1 in
        -h | --help) usage && return 0 ;;
        --root) keep=true root=${2:?directory} && shift ;;
        *) usage >&2 && return 2 ;;
        esac
        shift
    done
    [[ $# -gt 0 ]] || set -- "scripts/demo.sh --short" "scripts/test.sh"
    [[ $EUID -eq 0 ]] || { echo "bare-system.sh: needs root" >&2 && return 1; }
    scripts/install-deps.sh bare
    $keep || root=$(mktemp -d /var/tmp/tarvo-bare.XXXXXX)
    # Its users other than root see it, too.
    mkdir -p "$root" && chmod 755 "$root"
    # No mount outlives the commands, so that nothing of this machine is below it.
    $keep || trap 'rm -rf "$root" "$root.log"' EXIT
    [[ -x $root/usr/bin/env ]] || make_system
    rm -rf "$root/root/tarvo"
    git clone --quiet --no-hardlinks . "$root/root/tarvo"
    for command in "$@"; do
        printf '\n-- %s\n' "$command"
        enter bash -c "cd /root/tarvo && $command" || { echo "bare-system.sh: failed: $command" >&2 && failed=1; }
    done
    return $failed
}

main "$@"
