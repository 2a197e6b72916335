# tarvo_join_sources(target [APART source...])
#
# Under sanitizers, and with TARVO_JOIN, a library's sources are compiled many at a time, in a third of the time: most of
# it goes into what they include. What ships is compiled source by source. Each source has a LOG_TAG of its own; what else
# has a name that is each one's own in two of them stays APART.
function(tarvo_join_sources target)
  cmake_parse_arguments(arg "" "" "APART" ${ARGN})
  if(NOT TARVO_SANITIZE AND NOT TARVO_JOIN)
    return()
  endif()
  set_target_properties(
    ${target}
    PROPERTIES UNITY_BUILD ON
               UNITY_BUILD_BATCH_SIZE 20
               UNITY_BUILD_UNIQUE_ID TARVO_SOURCE
               UNITY_BUILD_CODE_BEFORE_INCLUDE "#undef TARVO_JOIN
#undef TARVO_NAME
#define TARVO_JOIN(a, b) a##b
#define TARVO_NAME(a, b) TARVO_JOIN(a, b)
#define LOG_TAG TARVO_NAME(LOG_TAG_, TARVO_SOURCE)"
               UNITY_BUILD_CODE_AFTER_INCLUDE "#undef LOG_TAG")
  set_source_files_properties(${arg_APART} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()
