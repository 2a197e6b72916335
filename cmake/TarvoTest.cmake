# tarvo_add_test(NAME source... [LIBS target...] [TIMEOUT seconds])
#
# A GoogleTest program over the library and the test support. CTest runs each of its tests in a process of its own, so
# that every test meets the process-wide objects of the library fresh.

# tarvo_skip_test(NAME reason)
#
# Stands for tests that cannot run in this build: CTest lists it as skipped, and scripts/test.sh prints the reason.

find_package(GTest REQUIRED)
include(GoogleTest)

function(tarvo_add_test name)
  cmake_parse_arguments(arg "" "TIMEOUT" "LIBS" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  if(CMAKE_CROSSCOMPILING)
    math(EXPR arg_TIMEOUT "${arg_TIMEOUT} * 3") # in an emulator
  endif()
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE tarvo_options tarvo tarvo_test_support ${arg_LIBS} GTest::gmock_main)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
  if(TARGET tarvo_test_precompiled)
    target_precompile_headers(${name} REUSE_FROM tarvo_test_precompiled)
  endif()
  # Optimising the tests would take most of the time that a change waits for its verdict, and tests nothing: the
  # library under test is built as the preset says.
  target_compile_options(${name} PRIVATE -O0)
  # The library must find the functions that the program defines in front of the C library's.
  set_target_properties(${name} PROPERTIES ENABLE_EXPORTS ON)
  gtest_discover_tests(${name} TEST_PREFIX ${name}. DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT ${arg_TIMEOUT})
endfunction()

function(tarvo_skip_test name reason)
  add_test(NAME ${name} COMMAND ${CMAKE_COMMAND} -E echo "Skipped: ${reason}")
  set_tests_properties(${name} PROPERTIES SKIP_REGULAR_EXPRESSION "Skipped: ")
endfunction()
