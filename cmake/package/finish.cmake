# Run by cpack over the finished packages: what this generation of cpack cannot say.
#
#  - Multi-Arch (the packages of several architectures beside each other), which cross builds need of the libraries; the
#    programs serve every architecture.
#  - Only the trigger runs ldconfig; the scripts that cpack adds for the removal, and for the installation where the
#    package has none of its own, would run it once more.

foreach(package IN LISTS CPACK_PACKAGE_FILES)
  set(tree ${CPACK_TEMPORARY_DIRECTORY}/finish)
  file(REMOVE_RECURSE ${tree})
  execute_process(COMMAND dpkg-deb --raw-extract ${package} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  foreach(script postinst postrm)
    if(EXISTS ${tree}/DEBIAN/${script})
      file(READ ${tree}/DEBIAN/${script} text)
      if(text MATCHES "ldconfig")
        file(REMOVE ${tree}/DEBIAN/${script})
      endif()
    endif()
  endforeach()
  file(READ ${tree}/DEBIAN/control control)
  string(REGEX REPLACE "\n+$" "\n" control "${control}")
  if(control MATCHES "\nSection: lib")
    string(APPEND control "Multi-Arch: same\n")
  else()
    string(APPEND control "Multi-Arch: foreign\n")
  endif()
  file(WRITE ${tree}/DEBIAN/control "${control}")
  execute_process(COMMAND dpkg-deb --root-owner-group -Zxz --build ${tree} ${package}
                  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
