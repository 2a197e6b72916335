# Trace points in the libraries (src/base/Probe.h). They need one header when the libraries are built, and nothing when
# they run: without a listener each is an instruction that does nothing.

include(CheckIncludeFileCXX)
check_include_file_cxx(sys/sdt.h TARVO_HAS_SDT_HEADER)
option(TARVO_PROBES "Build trace points into the libraries (needs sys/sdt.h)" ${TARVO_HAS_SDT_HEADER})
if(TARVO_PROBES AND NOT TARVO_HAS_SDT_HEADER)
  message(FATAL_ERROR "TARVO_PROBES needs the header sys/sdt.h, of Debian's package systemtap-sdt-dev")
elseif(TARVO_PROBES)
  message(STATUS "Trace points: built in")
elseif(TARVO_HAS_SDT_HEADER)
  message(STATUS "Trace points: left out, as TARVO_PROBES says")
else()
  message(STATUS "Trace points: left out, for there is no header sys/sdt.h (Debian's package systemtap-sdt-dev)")
endif()
if(TARVO_PROBES AND CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # The header passes a macro of variable arguments none, which clang tells of at each use.
  target_compile_options(tarvo_options INTERFACE -Wno-gnu-zero-variadic-macro-arguments)
endif()
