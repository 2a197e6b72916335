# What every target of this project is compiled with, and users of the installed package are not.

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(SELINUX REQUIRED IMPORTED_TARGET libselinux)

add_library(tarvo_options INTERFACE)
target_compile_options(tarvo_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(TARVO_WERROR)
  target_compile_options(tarvo_options INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(tarvo_options INTERFACE -Wthread-safety)
endif()

if(TARVO_SANITIZE)
  add_compile_options(-fsanitize=${TARVO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${TARVO_SANITIZE})
  if(TARVO_SANITIZE MATCHES "address|thread" AND CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # As gcc does by itself: functions that a test program defines in front of the C library's pass calls on to the next
    # library, which must be the sanitizer's. In the program itself it would see nothing of the threads that they start.
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-resource-dir OUTPUT_VARIABLE resources
                    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    add_link_options(-shared-libsan LINKER:-rpath,${resources}/lib/linux)
  endif()
  if(TARVO_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_sources(tarvo_options INTERFACE
                   $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:${PROJECT_SOURCE_DIR}/cmake/tsan/init_first.cpp>)
  endif()
  if(TARVO_SANITIZE MATCHES "undefined")
    # This check looks at memory through a pipe(2) of its own, and takes every object for a wrong one in a process that
    # has run out of descriptors, as some tests do on purpose.
    add_compile_options(-fno-sanitize=vptr)
  endif()
endif()
