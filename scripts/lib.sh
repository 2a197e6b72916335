# Functions that several scripts of this folder need; to be sourced.

# The CMake option for a compiler cache, where there is one. In CI each file is compiled once, and precompiled headers,
# which a cache excludes, save more.
cache_option() {
    [[ -z ${CI:-} ]] && command -v ccache >/dev/null && echo -DCMAKE_CXX_COMPILER_LAUNCHER=ccache
    return 0
}

# The prefix for programs of a preset. The sanitizers of this compiler generation cannot place their shadow memory when
# the kernel randomises more than 28 bits of a mapping's address; without randomisation they always can.
without_randomisation() {
    local bits
    bits=$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 28)
    [[ $1 =~ ^([at]san|fuzz)$ && $bits -gt 28 ]] && echo setarch -R
    return 0
}
