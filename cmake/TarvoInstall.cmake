# What `cmake --install` puts where, for users with CMake (find_package(tarvo), targets tarvo::tarvo, tarvo::loop and tarvo::stats)
# and with pkg-config.
# Components: library and loop (to run programs), development (to build them), tool (the command line tool).

include(CMakePackageConfigHelpers)

set(TARVO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tarvo)

install(TARGETS tarvo EXPORT tarvoTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
install(TARGETS tarvo_loop EXPORT tarvoTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT loop NAMELINK_COMPONENT development)
install(TARGETS tarvo_stats EXPORT tarvoTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
# systemd reads this folder below /usr and below /usr/local, whatever the architecture.
install(FILES packaging/tmpfiles.d/tarvo.conf DESTINATION lib/tmpfiles.d COMPONENT library)
install(FILES packaging/systemd/tarvo-example.service DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libtarvo1/examples
        COMPONENT library)

install(FILES include/tarvo.h include/tarvo.hpp include/tarvo_announcements.hpp include/tarvo_basics.hpp
              include/tarvo_client.hpp include/tarvo_coro.hpp include/tarvo_event_loop.hpp include/tarvo_link.hpp
              include/tarvo_link_handlers.hpp include/tarvo_link_view.hpp include/tarvo_loop.h include/tarvo_loop.hpp
              include/tarvo_loop_parts.hpp include/tarvo_names.hpp include/tarvo_owners.hpp include/tarvo_pipe.hpp
              include/tarvo_request.hpp include/tarvo_server.hpp include/tarvo_service.hpp include/tarvo_stats.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT tarvoTargets NAMESPACE tarvo:: DESTINATION ${TARVO_CMAKE_DIR} COMPONENT development)

configure_package_config_file(cmake/tarvoConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/tarvoConfig.cmake
                              INSTALL_DESTINATION ${TARVO_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tarvoConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarvoConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/tarvoConfigVersion.cmake
        DESTINATION ${TARVO_CMAKE_DIR} COMPONENT development)

# Relative to where the file is found, so that an installation can be moved.
file(RELATIVE_PATH TARVO_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(name IN ITEMS tarvo tarvo-loop tarvo-stats)
  configure_file(cmake/${name}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
          COMPONENT development)
endforeach()
