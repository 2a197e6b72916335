# Cross build for 64-bit Arm with the distribution's cross compiler (default) or with clang, by
# -DTARVO_ARM64_CLANG=ON. Headers and libraries are the distribution's arm64 packages, which are installed beside the
# machine's own.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

# Checks inside CMake read this file anew, without the variables of the command line.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TARVO_ARM64_CLANG)

set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
if(TARVO_ARM64_CLANG)
  set(CMAKE_CXX_COMPILER clang++)
  set(CMAKE_CXX_COMPILER_TARGET ${CMAKE_LIBRARY_ARCHITECTURE})
else()
  set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)
endif()
# For what is generated.
set(CMAKE_C_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-gcc)

# Otherwise pkg-config answers for the machine's own architecture.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:/usr/share/pkgconfig)

# Where the kernel starts the emulator by itself, a program under test sees its own name and may start others.
if(NOT CMAKE_HOST_SYSTEM_PROCESSOR STREQUAL "aarch64" AND NOT EXISTS /proc/sys/fs/binfmt_misc/qemu-aarch64)
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
endif()
