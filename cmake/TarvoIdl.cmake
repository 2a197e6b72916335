# tarvo_idl_types(NAME FILE.idl): a library of objects with the types of the topics in the file, and their header FILE.h.
# What is generated is C, which the caller enables, and not held to this project's warnings.
function(tarvo_idl_types name idl)
  get_filename_component(types ${idl} NAME_WE)
  set(generated ${CMAKE_CURRENT_BINARY_DIR}/generated)
  file(MAKE_DIRECTORY ${generated})
  add_custom_command(
    OUTPUT ${generated}/${types}.c ${generated}/${types}.h
    COMMAND ${TARVO_IDLC} -l c -o ${generated} ${idl}
    DEPENDS ${idl}
    VERBATIM)
  add_library(${name} OBJECT ${generated}/${types}.c)
  target_include_directories(${name} SYSTEM PUBLIC ${generated})
  target_link_libraries(${name} PUBLIC PkgConfig::TARVO_CYCLONEDDS)
  # Tables only; and the compiler of C may be another one, with other sanitizers.
  if(TARVO_SANITIZE)
    target_compile_options(${name} PRIVATE -fno-sanitize=all)
  endif()
endfunction()
