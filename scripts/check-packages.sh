#!/usr/bin/env bash
# Makes the Debian packages and checks them as their users meet them.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

usage() {
    cat <<'TEXT'
Usage: scripts/check-packages.sh [PRESET...]

Builds the library, the manual pages and the tool in the build tree of each preset (default: release; arm64 is the
other that ships), makes the Debian packages in build/PRESET/packages, and checks them: names, architecture, dependencies,
contents, lintian. Then installs them and builds and runs a consumer of the CMake package and one of the pkg-config file
against what was installed.

Packages of this machine's architecture are installed by dpkg into a copy of the running system that vanishes with the
script (an overlay file system; needs root). Without root, and for another architecture, they are only unpacked. Installs
the packages that it needs itself (scripts/install-deps.sh).
TEXT
}

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failed=0

fail() {
    echo "check-packages.sh: $*" >&2
    failed=1
}

version() {
    sed -n 's/^project(tarvo VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt
}

architecture_of() {
    case $1 in
    arm64) echo arm64 ;;
    *) dpkg --print-architecture ;;
    esac
}

make_packages() {
    local preset=$1 log=build/$1/packages.log
    mkdir -p "build/$preset"
    rm -rf "build/$preset/packages"
    # A tree may have been configured when the folder of the libraries was chosen in another way.
    if ! { configure "$preset" -U CMAKE_INSTALL_LIBDIR &&
        cmake --build --preset "$preset" --target packages; } >"$log" 2>&1; then
        cat "$log" >&2
        return 1
    fi
}

# expect_field PACKAGE_FILE NAME VALUE: the value as a pattern of the shell.
expect_field() {
    local value
    value=$(dpkg-deb --field "$1" "$2")
    # shellcheck disable=SC2053 # a pattern
    [[ $value == $3 ]] || fail "${1##*/}: $2 is '$value', not '$3'"
}

# expect_file PACKAGE_FILE PATTERN: a line of the listing, from its mode to its name.
expect_file() {
    grep -qE "$2" <<<"$(dpkg-deb --contents "$1")" || fail "${1##*/} holds nothing like $2"
}

# Whoever does not use the bridge gets nothing of its DDS.
expect_no_dds() {
    local relations
    [[ ${1##*/} != tarvo-bridge_* ]] || return 0
    relations=$(dpkg-deb --field "$1" Pre-Depends Depends Recommends Suggests)
    [[ $relations != *ddsc* && $relations != *cyclonedds* ]] || fail "${1##*/} wants the DDS: $relations"
}

check_library() {
    local deb=$1 libdir=$2 major=${3%%.*}
    expect_field "$deb" Multi-Arch same
    expect_field "$deb" Depends '*adduser*libc6 (>= *libselinux1 (>= *libstdc++6 (>= *'
    expect_file "$deb" "^-rw-r--r-- root/root .* \./$libdir/libtarvo\.so\.$3\$"
    expect_file "$deb" "^lrwxrwxrwx root/root .* \./$libdir/libtarvo\.so\.$major -> libtarvo\.so\.$3\$"
    expect_file "$deb" "^-rw-r--r-- root/root .* \./usr/lib/tmpfiles\.d/tarvo\.conf\$"
    expect_file "$deb" "^-rw-r--r-- root/root .* \./usr/share/doc/libtarvo$major/examples/tarvo-example\.service\$"
    dpkg-deb --control "$deb" "$scratch/control"
    grep -qx 'activate-noawait ldconfig' "$scratch/control/triggers" || fail "${deb##*/} does not trigger ldconfig"
    check_postinst "$scratch/control/postinst"
    rm -rf "$scratch/control"
}

# What the package says where no systemd makes the directory, and that it says nothing where there is one.
check_postinst() {
    local postinst=$1 stubs=$scratch/stubs said
    mkdir "$stubs"
    printf '#!/bin/sh\nexit 0\n' | tee "$stubs/getent" "$stubs/addgroup" >"$stubs/systemd-tmpfiles"
    chmod +x "$stubs"/*
    said=$(PATH=$stubs /bin/sh "$postinst" configure)
    [[ -z $said ]] || fail "the postinst says with systemd: $said"
    rm "$stubs/systemd-tmpfiles"
    said=$(PATH=$stubs /bin/sh "$postinst" configure)
    [[ $said == *"no systemd here to make /dev/shm/velm/tarvo"*"tarvoctl init"* ]] ||
        fail "the postinst says nothing of the directory without systemd: $said"
    rm -r "$stubs"
}

check_loop() {
    local deb=$1 libdir=$2 major=${3%%.*}
    expect_field "$deb" Multi-Arch same
    expect_field "$deb" Depends "libtarvo$major (= $3), libc6 (>= *libstdc++6 (>= *"
    expect_file "$deb" "^-rw-r--r-- root/root .* \./$libdir/libtarvo-loop\.so\.$3\$"
    expect_file "$deb" "^lrwxrwxrwx root/root .* \./$libdir/libtarvo-loop\.so\.$major -> libtarvo-loop\.so\.$3\$"
}

check_development() {
    local deb=$1 libdir=$2 major=${3%%.*} file
    expect_field "$deb" Multi-Arch same
    expect_field "$deb" Depends "libtarvo$major (= $3), libtarvo-loop$major (= $3)"
    for file in libtarvo libtarvo-loop; do
        expect_file "$deb" "^lrwxrwxrwx root/root .* \./$libdir/$file\.so -> $file\.so\.$major\$"
    done
    for file in include/*; do
        expect_file "$deb" "^-rw-r--r-- root/root .* \./usr/include/${file##*/}\$"
    done
    for file in "$libdir"/{pkgconfig/tarvo.pc,pkgconfig/tarvo-loop.pc,pkgconfig/tarvo-stats.pc,libtarvo-stats.a,cmake/tarvo/tarvoConfig.cmake} usr/share/man/man3/Tarvo{Open,LinkCall}.3.gz; do
        expect_file "$deb" "^-rw-r--r-- root/root .* \./$file\$"
    done
}

check_tool() {
    local deb=$1 major=${3%%.*} file
    expect_field "$deb" Multi-Arch foreign
    expect_field "$deb" Depends "libtarvo$major (= $3), libtarvo-loop$major (= $3), libc6 (>= *"
    expect_file "$deb" "^-rwxr-xr-x root/root .* \./usr/bin/tarvoctl\$"
    for file in share/man/man1/tarvoctl.1.gz share/man/man7/tarvo{,-errors,-log,-loop}.7.gz \
        share/bash-completion/completions/tarvoctl share/tarvo/bpftrace/tarvo-{drops,latency,queues}.bt; do
        expect_file "$deb" "^-rw-r--r-- root/root .* \./usr/$file\$"
    done
}

check_bridge() {
    local deb=$1 version=$2 major=${2%%.*} file
    expect_field "$deb" Multi-Arch foreign
    expect_field "$deb" Depends "libtarvo$major (= $version), adduser, *libddsc*"
    expect_file "$deb" "^-rwxr-xr-x root/root .* \./usr/bin/tarvo-bridge\$"
    for file in etc/tarvo/bridge.conf usr/lib/systemd/system/tarvo-bridge.service usr/share/man/man8/tarvo-bridge.8.gz \
        usr/share/tarvo-bridge/tarvo_bridge.idl; do
        expect_file "$deb" "^-rw-r--r-- root/root .* \./$file\$"
    done
    dpkg-deb --control "$deb" "$scratch/control"
    grep -qx /etc/tarvo/bridge.conf "$scratch/control/conffiles" || fail "${deb##*/}: its configuration is no conffile"
    for file in postinst prerm postrm; do
        [[ -x $scratch/control/$file ]] || fail "${deb##*/} has no $file"
    done
    rm -rf "$scratch/control"
}

# Every page and every example, and no link that leads out of them into nothing.
check_documentation() {
    local deb=$1 file page target root=$scratch/documentation folder
    expect_field "$deb" Architecture all
    expect_field "$deb" Depends ''
    dpkg-deb --extract "$deb" "$root"
    folder=$root/usr/share/doc/libtarvo-doc
    for file in README.md docs/*.md docs/*.svg examples/*.cpp examples/*.h examples/loop/*.cpp examples/loop/*.h examples/python/*.py; do
        cmp "$file" "$folder/$file" || fail "${deb##*/}: $file is missing or differs"
    done
    for page in "$folder"/docs/*.md; do
        while read -r target; do
            # The manual pages are in the packages of what they tell of.
            [[ ${target%/} == man || -e ${page%/*}/$target ]] || fail "${deb##*/}: ${page##*/} refers to $target"
        done < <(grep -oE '\]\([^)#: ]+[)#]' "$page" | sed 's/^](\(.*\).$/\1/')
    done
    rm -r "$root"
}

check_python() {
    local deb=$1 file root=$scratch/python folder
    expect_field "$deb" Architecture all
    expect_field "$deb" Depends 'python3 (>= 3.11)'
    dpkg-deb --extract "$deb" "$root"
    folder=$root/usr/lib/python3/dist-packages
    diff <(cd python && ls tarvo/*.py tarvo/py.typed) <(cd "$folder" && ls tarvo/*) || fail "${deb##*/}: other modules"
    for file in python/tarvo/*; do
        [[ -d $file ]] || cmp "$file" "$folder/tarvo/${file##*/}" || fail "${deb##*/}: $file differs"
    done
    [[ -e $folder/tarvo-$3.dist-info/METADATA ]] || fail "${deb##*/} does not tell its version"
    rm -r "$root"
}

# Errors and warnings of lintian. Not taken as such:
lintian_tags() {
    # The changelog is the project's; there are no revisions of the packages between its versions to tell of.
    echo syntax-error-in-debian-changelog
    # The packages name no address: who asks turns to the place that they came from.
    echo bogus-mail-host
}

check_with_lintian() {
    lintian --allow-root --fail-on error,warning --suppress-tags "$(lintian_tags | paste -sd,)" "$@" ||
        fail "lintian has complaints"
}

# In a copy of the running system: everything as on a machine where somebody types `apt install`.
install_and_use() {
    local root=$scratch/machine
    mkdir "$root" "$scratch/layers"
    cp tests/packaging/installed.sh packaging/systemd/tarvo-example.service "$scratch/inside/"
    # shellcheck disable=SC2016 # the inner shell's
    unshare --mount --propagation private -- bash -euo pipefail -c '
        root=$1 layers=$2 inside=$3
        mount -t tmpfs tmpfs "$layers"
        mkdir "$layers/upper" "$layers/work"
        mount -t overlay overlay -o "lowerdir=/,upperdir=$layers/upper,workdir=$layers/work" "$root"
        mount --bind /proc "$root/proc"
        mount --bind /dev "$root/dev"
        mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
        mount -t tmpfs tmpfs "$root/mnt"
        cp -r "$inside/." "$root/mnt"
        chroot "$root" /usr/bin/env -i PATH=/usr/local/bin:/usr/bin:/usr/sbin:/bin:/sbin HOME=/root TERM=dumb \
            bash /mnt/installed.sh' -- "$root" "$scratch/layers" "$scratch/inside"
}

can_overlay() {
    # shellcheck disable=SC2016 # the inner shell's
    [[ $EUID -eq 0 ]] && mkdir -p "$scratch/try" &&
        unshare --mount --propagation private -- bash -euo pipefail -c '
            mount -t tmpfs tmpfs "$1" && mkdir "$1/upper" "$1/work" "$1/root" &&
            mount -t overlay overlay -o "lowerdir=/,upperdir=$1/upper,workdir=$1/work" "$1/root"' \
            -- "$scratch/try" 2>/dev/null
}

# Consumers against the unpacked files.
unpack_and_use() {
    local preset=$1 root=$scratch/unpacked libdir deb options=() cxx=g++ run=()
    for deb in "$scratch"/inside/*.deb; do
        dpkg-deb --extract "$deb" "$root"
    done
    libdir=$(dirname "$(find "$root" -name libtarvo.so)")
    if [[ $preset == arm64 ]]; then
        options=(-DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/arm64.cmake")
        cxx=aarch64-linux-gnu-g++
        [[ $(uname -m) == aarch64 ]] || run=(qemu-aarch64-static)
    fi
    cmake -S tests/packaging/consumer -B "$scratch/cmake" -DCMAKE_PREFIX_PATH="$root/usr" "${options[@]}" >/dev/null
    cmake --build "$scratch/cmake" >/dev/null
    LD_LIBRARY_PATH=$libdir "${run[@]}" "$scratch/cmake/consumer"
    LD_LIBRARY_PATH=$libdir "${run[@]}" "$scratch/cmake/loop_consumer"
    "${run[@]}" "$scratch/cmake/stats_consumer"
    # shellcheck disable=SC2046 # a list of options
    "$cxx" -std=c++17 -o "$scratch/consumer" tests/packaging/consumer/consumer.cpp \
        $(PKG_CONFIG_LIBDIR=$libdir/pkgconfig pkg-config --cflags --libs tarvo)
    LD_LIBRARY_PATH=$libdir "${run[@]}" "$scratch/consumer"
    # shellcheck disable=SC2046
    "$cxx" -std=c++17 -o "$scratch/loop_consumer" tests/packaging/consumer/loop_consumer.cpp \
        $(PKG_CONFIG_LIBDIR=$libdir/pkgconfig pkg-config --cflags --libs tarvo-loop)
    LD_LIBRARY_PATH=$libdir "${run[@]}" "$scratch/loop_consumer"
    PYTHONPATH=$root/usr/lib/python3/dist-packages python3 -B -m tarvo --version
    rm -rf "$root" "$scratch/cmake"
    echo "$preset: consumers of the CMake package and of the pkg-config file run"
}

check() {
    local preset=$1 arch multiarch libdir version deb packages
    arch=$(architecture_of "$preset")
    multiarch=$(dpkg-architecture --host-arch "$arch" --query DEB_HOST_MULTIARCH 2>/dev/null)
    libdir=usr/lib/$multiarch
    version=$(version)
    packages=build/$preset/packages
    make_packages "$preset"
    for deb in "$packages"/*.deb; do
        [[ $deb == *_all.deb ]] || expect_field "$deb" Architecture "$arch"
        expect_field "$deb" Version "$version"
        expect_no_dds "$deb"
    done
    check_library "$packages/libtarvo${version%%.*}_${version}_$arch.deb" "$libdir" "$version"
    check_loop "$packages/libtarvo-loop${version%%.*}_${version}_$arch.deb" "$libdir" "$version"
    check_development "$packages/libtarvo-dev_${version}_$arch.deb" "$libdir" "$version"
    check_documentation "$packages/libtarvo-doc_${version}_all.deb"
    check_python "$packages/python3-tarvo_${version}_all.deb" "$libdir" "$version"
    [[ ! -d tools/tarvoctl ]] || check_tool "$packages/tarvo-tools_${version}_$arch.deb" "$libdir" "$version"
    [[ ! -d bridge ]] || check_bridge "$packages/tarvo-bridge_${version}_$arch.deb" "$version"
    check_with_lintian "$packages"/*.deb
    tests/packaging/man-test.sh "build/$preset/man" "build/$preset/src/libtarvo.so" \
        "build/$preset/src/loop/libtarvo-loop.so"

    rm -rf "$scratch/inside"
    mkdir "$scratch/inside"
    cp -r "$packages"/*.deb tests/packaging/consumer "$scratch/inside"
    scripts/python-package.sh "$scratch/inside"
    if [[ $arch != "$(dpkg --print-architecture)" ]]; then
        unpack_and_use "$preset"
    elif can_overlay; then
        install_and_use
    else
        echo "$preset: unpacked only: installing needs root and an overlay file system"
        unpack_and_use "$preset"
    fi
    (cd "$packages" && ls -sh1 -- *.deb)
}

main() {
    local presets=()
    while [[ $# -gt 0 ]]; do
        case $1 in
        -h | --help) usage && return 0 ;;
        -*) usage >&2 && return 2 ;;
        *) presets+=("$1") ;;
        esac
        shift
    done
    scripts/install-deps.sh base bridge packages
    for preset in "${presets[@]:-release}"; do
        [[ $preset != arm64 ]] || scripts/install-deps.sh arm64
        check "$preset"
    done
    return $failed
}

main "$@"
