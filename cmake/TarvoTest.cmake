# tarvo_add_test(NAME source... [LIBS target...] [TIMEOUT seconds] [PORTABLE] [ONE_THREAD]
#                [COUNTED] [EACH_BUILD])
#
# A GoogleTest program over the library and the test support. CTest runs each of its tests in a process of its own, so
# that every test meets the process-wide objects of the library fresh. With TARVO_FORK_TESTS the program is one test of
# CTest's and forks those processes (tests/support/Main.cpp).
#
# PORTABLE puts it among the tests of what another processor may do otherwise (layouts, atomics, real processes), which
# each change must pass on arm64 too: the label `portable`, and the target `tests_portable`. A folder of such tests sets
# TARVO_TESTS_PORTABLE instead.
# Its sources are compiled several at a time, in half the time. A name that is each one's own in two of them clashes;
# write it once.
# ONE_THREAD: nothing that it tests runs on a second thread, so that ThreadSanitizer has nothing to say; it is not part of
# that build.
# COUNTED: coverage counts what it compiles in of src/, too. It is the place where parts are tested that the libraries use
# only some of.
# EACH_BUILD: what its sources compile to depends on the sanitizers, or on where this build is: no other build's objects
# will do.

# tarvo_test_objects(RESULT NAME source...)
#
# Of what a test program is linked: its sources or, with TARVO_OBJECTS_OF, what the build in that folder has made of them.
# Then the same programs are run with differently built libraries, and compiled once.
#
# Of code that it has not compiled the thread sanitizer sees the functions of the C library only. In its build this is
# therefore done for folders that set TARVO_TESTS_OUTSIDE: their tests meet the libraries at exported functions, and each
# other with the locks of the C library.

# tarvo_add_test_part(NAME source... [LIBS target...] [EACH_BUILD])
#
# What several test programs are linked of, besides their own sources. It is compiled as they are, and brings LIBS along.

# tarvo_test_options(target...)
#
# How everything is compiled that tests are made of: without optimisation, which would take most of the time that a change
# waits for its verdict, and tests nothing; by TARVO_TEST_COMPILER, if there is one, since clang takes two thirds of gcc's
# time. The library under test is built as the preset says. So are tests of what the public headers hold themselves, which
# their users compile: folders of them set TARVO_TESTS_OF_HEADERS.

# tarvo_skip_test(NAME reason)
#
# Stands for tests that cannot run in this build: CTest lists it as skipped, and scripts/test.sh prints the reason.

find_package(GTest REQUIRED)
include(GoogleTest)

# Each build links some hundred test programs. What ships is linked as everywhere.
include(CheckLinkerFlag)
check_linker_flag(CXX -fuse-ld=gold TARVO_HAS_GOLD)
set(TARVO_FAST_LINK "$<$<BOOL:${TARVO_HAS_GOLD}>:-fuse-ld=gold>")

add_custom_target(tests_portable)

# A process adds its counts to one of four files of each library, or program, when it ends, wherever it runs and whatever
# is left of its environment.
set(TARVO_PROFILE -fprofile-instr-generate=${PROJECT_BINARY_DIR}/profile/%4m.profraw)

if(TARVO_OBJECTS_OF AND NOT TARVO_SANITIZE MATCHES "thread")
  set(TARVO_TESTS_ELSEWHERE ON) # nearly all of them are compiled there
endif()

function(tarvo_test_objects result name)
  set(found ${ARGN})
  if(TARVO_TESTS_ELSEWHERE OR (TARVO_OBJECTS_OF AND TARVO_TESTS_OUTSIDE))
    file(RELATIVE_PATH folder ${PROJECT_BINARY_DIR} ${CMAKE_CURRENT_BINARY_DIR})
    file(GLOB_RECURSE found ${TARVO_OBJECTS_OF}/${folder}/CMakeFiles/${name}.dir/*.o)
    if(NOT found)
      message(FATAL_ERROR "${TARVO_OBJECTS_OF} has no objects of ${name}: build it first")
    endif()
  endif()
  set(${result} ${found} PARENT_SCOPE)
endfunction()

function(tarvo_test_options)
  foreach(target ${ARGN})
    target_compile_options(${target} PRIVATE -O0)
    if(TARVO_TEST_COMPILER AND NOT TARVO_TESTS_OF_HEADERS)
      set_target_properties(${target} PROPERTIES CXX_COMPILER_LAUNCHER
                                                 "${PROJECT_SOURCE_DIR}/cmake/compile-by.sh;${TARVO_TEST_COMPILER}")
      target_compile_options(${target} PRIVATE -Wno-gnu-zero-variadic-macro-arguments) # as in cmake/TarvoProbes.cmake
    endif()
    if(TARVO_SANITIZE MATCHES "undefined" AND CMAKE_CXX_COMPILER_ID MATCHES "Clang")
      # For the same reason: it is the library whose arithmetic and casts are looked at.
      target_compile_options(${target} PRIVATE -fno-sanitize=undefined)
    endif()
    if(TARVO_OBJECTS_OF)
      # In CI a report names the lines of the libraries, and of tests the functions. Whoever looks closer builds by himself.
      target_compile_options(${target} PRIVATE -g0)
    endif()
  endforeach()
endfunction()

function(tarvo_add_test_part name)
  cmake_parse_arguments(arg "EACH_BUILD" "" "LIBS" ${ARGN})
  set(objects ${arg_UNPARSED_ARGUMENTS})
  if(NOT arg_EACH_BUILD)
    tarvo_test_objects(objects ${name} ${objects})
  endif()
  if(objects STREQUAL arg_UNPARSED_ARGUMENTS)
    add_library(${name} OBJECT ${objects})
    target_link_libraries(${name} PUBLIC tarvo_options ${arg_LIBS} GTest::gtest)
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
    set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 20)
    if(TARGET tarvo_test_precompiled)
      target_precompile_headers(${name} REUSE_FROM tarvo_test_precompiled)
    endif()
    tarvo_test_options(${name})
  else()
    add_library(${name} INTERFACE)
    target_sources(${name} INTERFACE ${objects})
    target_link_libraries(${name} INTERFACE ${arg_LIBS})
  endif()
endfunction()

function(tarvo_add_test name)
  cmake_parse_arguments(arg "PORTABLE;ONE_THREAD;COUNTED;EACH_BUILD" "TIMEOUT" "LIBS" ${ARGN})
  if(arg_ONE_THREAD AND TARVO_SANITIZE MATCHES "thread")
    return()
  endif()
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  if(CMAKE_CROSSCOMPILING)
    math(EXPR arg_TIMEOUT "${arg_TIMEOUT} * 3") # in an emulator
  endif()
  set(objects ${arg_UNPARSED_ARGUMENTS})
  if(NOT arg_EACH_BUILD AND NOT (arg_COUNTED AND TARVO_COVERAGE))
    tarvo_test_objects(objects ${name} ${objects})
  endif()
  add_executable(${name} ${objects})
  target_link_libraries(${name} PRIVATE tarvo_options tarvo tarvo_test_support ${arg_LIBS} tarvo_test_main)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
  target_link_options(${name} PRIVATE ${TARVO_FAST_LINK})
  if(TARGET tarvo_test_precompiled AND NOT (arg_COUNTED AND TARVO_COVERAGE) AND NOT (TARVO_TEST_COMPILER
                                                                                     AND TARVO_TESTS_OF_HEADERS))
    target_precompile_headers(${name} REUSE_FROM tarvo_test_precompiled)
  endif()
  tarvo_test_options(${name})
  if(arg_COUNTED AND TARVO_COVERAGE)
    target_compile_options(${name} PRIVATE ${TARVO_PROFILE} -fcoverage-mapping)
    target_link_options(${name} PRIVATE ${TARVO_PROFILE})
  endif()
  # The library must find the functions that the program defines in front of the C library's.
  set_target_properties(${name} PROPERTIES ENABLE_EXPORTS ON UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 8 LINKER_LANGUAGE CXX)
  set(labels "")
  if(arg_PORTABLE OR TARVO_TESTS_PORTABLE)
    set(labels LABELS portable)
    add_dependencies(tests_portable ${name})
  endif()
  if(TARVO_FORK_TESTS)
    # Each test has a watchdog of its own (tests/support/Watchdog.h).
    add_test(NAME ${name} COMMAND ${name} --each-forked)
    set_tests_properties(${name} PROPERTIES TIMEOUT 1800 PROCESSORS 2 ${labels})
    return()
  endif()
  gtest_discover_tests(${name} TEST_PREFIX ${name}. DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT ${arg_TIMEOUT} ${labels})
endfunction()

function(tarvo_skip_test name reason)
  add_test(NAME ${name} COMMAND ${CMAKE_COMMAND} -E echo "Skipped: ${reason}")
  set_tests_properties(${name} PROPERTIES SKIP_REGULAR_EXPRESSION "Skipped: ")
endfunction()
