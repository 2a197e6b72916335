# tarvo_precompile(target)
#
# What most sources of a target include of the C++ library is read once for all of them, which takes half the time. They
# compile to the same code, byte for byte, and each still includes what it uses.
#
# Not under a compiler cache: the precompiled file differs from build tree to build tree, so that no object made with it
# would ever be found in the cache again. Nor where sources are joined anyway (TarvoJoined.cmake), nor for a target whose
# objects are asked for by $<TARGET_OBJECTS>, which would take the precompiled file for one of them.
if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(TARVO_PRECOMPILE ON)
endif()

function(tarvo_precompile target)
  if(TARVO_PRECOMPILE AND NOT TARVO_SANITIZE AND NOT TARVO_JOIN)
    target_precompile_headers(
      ${target}
      PRIVATE <algorithm>
              <array>
              <atomic>
              <cerrno>
              <cstddef>
              <cstdint>
              <cstring>
              <functional>
              <memory>
              <new>
              <string>
              <string_view>
              <utility>
              <vector>)
  endif()
endfunction()
