# Debian packages: the target `packages` makes libtarvo1, libtarvo-loop1, libtarvo-dev, libtarvo-doc, python3-tarvo and,
# where they are built, tarvo-tools and tarvo-bridge in the folder packages/ of the build tree. scripts/check-packages.sh
# makes and checks them.

set(TARVO_DEBIAN_DIR ${PROJECT_SOURCE_DIR}/packaging/debian)
set(TARVO_RUNTIME_PACKAGE libtarvo${PROJECT_VERSION_MAJOR})
set(TARVO_LOOP_PACKAGE libtarvo-loop${PROJECT_VERSION_MAJOR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarvo)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGE_CONTACT "The tarvo developers <tarvo@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                                WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Each package has its own first line; this one would stand above it.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/package/compress.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/package/finish.cmake)

# dpkg's names of the two architectures that differ from CMake's.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/package/cpack.cmake)

# What the programs of a package need is read off their links to shared libraries. The tool's links to ours are found in
# the build tree, which belongs to no package: these dependencies are stated, here and for the other library.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src ${PROJECT_BINARY_DIR}/src/loop)

# tarvo_package(COMPONENT NAME [SECTION name] [DEPENDS packages] [SUGGESTS packages] [EXTRA control files]
#               DESCRIPTION first line, then lines)
function(tarvo_package component name)
  cmake_parse_arguments(arg "" "SECTION;DEPENDS;SUGGESTS" "EXTRA;DESCRIPTION" ${ARGN})
  string(TOUPPER ${component} upper)
  list(JOIN arg_DESCRIPTION "\n" description)
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${description}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${arg_SECTION} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS ${arg_DEPENDS} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_SUGGESTS "${arg_SUGGESTS}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA "${arg_EXTRA}" PARENT_SCOPE)
  # Only packages carry these; other installations have them in the sources.
  install(FILES ${TARVO_DEBIAN_DIR}/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component}
          EXCLUDE_FROM_ALL)
  install(FILES ${PROJECT_SOURCE_DIR}/CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} RENAME changelog
          COMPONENT ${component} EXCLUDE_FROM_ALL)
endfunction()

set(TARVO_SAME_VERSION "${TARVO_RUNTIME_PACKAGE} (= ${PROJECT_VERSION})")
configure_file(${TARVO_DEBIAN_DIR}/shlibs.in ${PROJECT_BINARY_DIR}/packaging/shlibs @ONLY)

tarvo_package(
  library ${TARVO_RUNTIME_PACKAGE}
  SECTION libs
  DEPENDS adduser
  EXTRA ${TARVO_DEBIAN_DIR}/postinst ${TARVO_DEBIAN_DIR}/triggers ${PROJECT_BINARY_DIR}/packaging/shlibs
  DESCRIPTION "messaging between the processes of one Linux machine"
              "A process serves under a name. Others open pipes to it by that name, send"
              "one-way requests or make synchronous calls with a time-out, and have their"
              "callbacks run on threads of the library, at normal or real-time priority."
              ""
              "There is no broker and no configuration file: each pipe is a pair of FIFOs in"
              "shared memory. Members of the group tarvo may use them.")
configure_file(${TARVO_DEBIAN_DIR}/loop-shlibs.in ${PROJECT_BINARY_DIR}/packaging/loop/shlibs @ONLY)
tarvo_package(
  loop ${TARVO_LOOP_PACKAGE}
  SECTION libs
  DEPENDS ${TARVO_SAME_VERSION}
  EXTRA ${TARVO_DEBIAN_DIR}/triggers ${PROJECT_BINARY_DIR}/packaging/loop/shlibs
  DESCRIPTION "messaging between the processes of one Linux machine - for event loops"
              "Servers, pipes and asynchronous calls on the program's own thread: one"
              "descriptor for any event loop, and no thread of the library. It reaches the"
              "same processes as libtarvo does.")
tarvo_package(
  development libtarvo-dev
  SECTION libdevel
  DEPENDS "${TARVO_SAME_VERSION}, ${TARVO_LOOP_PACKAGE} (= ${PROJECT_VERSION})"
  SUGGESTS "libtarvo-doc, tarvo-tools"
  DESCRIPTION "messaging between the processes of one Linux machine - development files"
              "Headers, the CMake package (find_package(tarvo)), the pkg-config file and the"
              "manual pages of the functions of libtarvo and libtarvo-loop, and the archive"
              "libtarvo-stats.a, which reads the statistics of running processes.")
tarvo_package(
  documentation libtarvo-doc
  SECTION doc
  SUGGESTS "libtarvo-dev, python3-tarvo"
  DESCRIPTION "messaging between the processes of one Linux machine - pages and examples"
              "Getting started, guarantees and limits, errors, threads and locks, real-time,"
              "troubleshooting, security, the wire format and more, and the examples: servers"
              "and clients in C++, and a program in Python. Links between the pages lead to"
              "files of this package.")
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SHLIBDEPS OFF)
set(CPACK_COMPONENTS_ALL library loop development documentation)

# As in the sources, so that the pages find what they refer to. Other installations have them there.
set(doc_folder ${CMAKE_INSTALL_DATADIR}/doc/libtarvo-doc)
install(FILES README.md CONTRIBUTING.md CHANGELOG.md DESTINATION ${doc_folder} COMPONENT documentation EXCLUDE_FROM_ALL)
install(DIRECTORY docs include DESTINATION ${doc_folder} COMPONENT documentation EXCLUDE_FROM_ALL
        FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.h" PATTERN "*.hpp" PATTERN docs/man EXCLUDE)
install(DIRECTORY examples DESTINATION ${doc_folder} COMPONENT documentation EXCLUDE_FROM_ALL
        PATTERN CMakeLists.txt EXCLUDE PATTERN __pycache__ EXCLUDE)

include(cmake/TarvoPythonPackage.cmake)

if(TARGET tarvoctl)
  tarvo_package(
    tool tarvo-tools
    SECTION utils
    DEPENDS "${TARVO_SAME_VERSION}, ${TARVO_LOOP_PACKAGE} (= ${PROJECT_VERSION})"
    SUGGESTS "libtarvo-doc, bpftrace"
    DESCRIPTION "messaging between the processes of one Linux machine - command line tool"
                "tarvoctl serves, calls, measures, lists and diagnoses processes that talk"
                "through libtarvo, without a line of code. With it come manual pages of every"
                "error of the library and of every line that it writes to the system log, and"
                "scripts for bpftrace that show where messages are.")
  list(APPEND CPACK_COMPONENTS_ALL tool)
endif()

if(TARGET tarvo-bridge)
  set(bridge_files ${PROJECT_SOURCE_DIR}/packaging/bridge)
  tarvo_package(
    bridge tarvo-bridge
    SECTION net
    DEPENDS "${TARVO_SAME_VERSION}, adduser"
    SUGGESTS "tarvo-tools, libtarvo-doc, openssl"
    EXTRA ${bridge_files}/postinst ${bridge_files}/prerm ${bridge_files}/postrm ${bridge_files}/conffiles
    DESCRIPTION "messaging between the processes of one Linux machine - between machines"
                "A bridge on each machine makes servers of the one reachable under their names"
                "on the other, over Cyclone DDS. Programs do not change: requests, responses,"
                "time-outs and ends are those of one machine. With it come a service and its"
                "configuration, and what others need to speak with bridges.")
  list(APPEND CPACK_COMPONENTS_ALL bridge)
endif()

include(CPack)

# The target of cpack's own module would build the tests, too.
add_custom_target(packages COMMAND ${CMAKE_CPACK_COMMAND} --config ${PROJECT_BINARY_DIR}/CPackConfig.cmake
                  WORKING_DIRECTORY ${PROJECT_BINARY_DIR} USES_TERMINAL VERBATIM)
add_dependencies(packages tarvo tarvo_loop)
foreach(optional IN ITEMS tarvoctl tarvo_man tarvo-bridge)
  if(TARGET ${optional})
    add_dependencies(packages ${optional})
  endif()
endforeach()
