# The Debian package of the Python package: python3-tarvo. Included by TarvoPackage.cmake. Other installations of it are
# made from the wheel of scripts/python-package.sh.

set(python_folder lib/python3/dist-packages) # where Debian's Python looks, whatever its version
set(python_info ${python_folder}/tarvo-${PROJECT_VERSION}.dist-info)

tarvo_package(
  python python3-tarvo
  SECTION python
  DEPENDS "python3 (>= 3.11)"
  SUGGESTS "libtarvo-doc, tarvo-tools, python3-pytest"
  EXTRA ${TARVO_DEBIAN_DIR}/python/postinst ${TARVO_DEBIAN_DIR}/python/prerm
  DESCRIPTION "messaging between the processes of one Linux machine - for Python 3"
              "Clients, servers, links, calls with a time-out and requests in both directions,"
              "for asyncio and without it. It reaches the same processes as libtarvo does and"
              "needs none of the libraries. With it come a command line (python3 -m tarvo), a"
              "decoder of recorded frames, and fixtures for pytest that give each test a FIFO"
              "directory of its own.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
list(APPEND CPACK_COMPONENTS_ALL python)

install(DIRECTORY python/tarvo DESTINATION ${python_folder} COMPONENT python EXCLUDE_FROM_ALL
        FILES_MATCHING PATTERN "*.py" PATTERN py.typed PATTERN __pycache__ EXCLUDE)
configure_file(${TARVO_DEBIAN_DIR}/python/METADATA.in ${PROJECT_BINARY_DIR}/packaging/python/METADATA @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/python/METADATA ${TARVO_DEBIAN_DIR}/python/entry_points.txt
        DESTINATION ${python_info} COMPONENT python EXCLUDE_FROM_ALL)
