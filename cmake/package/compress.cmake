# Run by cpack over the files of each package: manual pages and changelogs are compressed, as Debian packages have them.

foreach(name IN ITEMS "share/man/man?/*.?" "share/doc/*/changelog")
  file(GLOB found ${CPACK_TEMPORARY_DIRECTORY}/*/usr/${name} ${CPACK_TEMPORARY_DIRECTORY}/usr/${name})
  list(APPEND documents ${found})
endforeach()
if(documents)
  # Without name and time of the file, so that equal contents make equal packages.
  execute_process(COMMAND gzip --best --no-name --force ${documents} COMMAND_ERROR_IS_FATAL ANY)
endif()
