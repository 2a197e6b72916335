# The other messaging systems, as far as they are installed.

# bench_peer(NAME SOURCE... PACKAGES package...): one that pkg-config knows
function(bench_peer name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "PACKAGES")
  list(GET arg_PACKAGES 0 first)
  pkg_check_modules(${name} QUIET IMPORTED_TARGET ${arg_PACKAGES})
  if(NOT ${name}_FOUND)
    message(STATUS "Benchmark peer not found: ${name}")
    return()
  endif()
  if(NOT ${name}_VERSION)
    set(${name}_VERSION ${${name}_${first}_VERSION})
  endif()
  bench_contestant(${name} ${arg_UNPARSED_ARGUMENTS} VERSION ${${name}_VERSION} LIBRARIES PkgConfig::${name})
endfunction()

bench_peer(zeromq ZeroMqPeer.cpp PACKAGES libzmq)
bench_peer(sd-bus SdBus.cpp SdBusPeer.cpp PACKAGES libsystemd)

find_program(DBUS_DAEMON dbus-daemon)
if(TARGET bench_sd-bus AND DBUS_DAEMON)
  bench_peer(dbus SdBus.cpp DbusPeer.cpp PACKAGES libsystemd)
  target_compile_definitions(bench_dbus PRIVATE BENCH_DBUS_DAEMON="${DBUS_DAEMON}")
else()
  message(STATUS "Benchmark peer not found: dbus")
endif()

find_package(nng CONFIG QUIET)
if(nng_FOUND)
  bench_contestant(nng NngPeer.cpp VERSION ${nng_VERSION} LIBRARIES nng::nng)
else()
  message(STATUS "Benchmark peer not found: nng")
endif()

# bench_generated_peer(NAME PEER_SOURCE PACKAGES package... GENERATED file... COMMAND command...): one whose interface is
# compiled first. What comes out does not keep to this project's warnings.
function(bench_generated_peer name source)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "INPUT" "PACKAGES;GENERATED;COMMAND")
  list(TRANSFORM arg_GENERATED PREPEND ${CMAKE_CURRENT_BINARY_DIR}/)
  add_custom_command(
    OUTPUT ${arg_GENERATED}
    COMMAND ${arg_COMMAND}
    DEPENDS ${arg_INPUT}
    WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
  bench_peer(${name} ${source} ${arg_GENERATED} PACKAGES ${arg_PACKAGES})
  if(TARGET bench_${name})
    target_include_directories(bench_${name} SYSTEM PRIVATE ${CMAKE_CURRENT_BINARY_DIR})
    target_compile_options(bench_${name} PRIVATE -w)
  endif()
endfunction()

find_program(CAPNP capnp)
if(CAPNP)
  bench_generated_peer(
    capnproto CapnProtoPeer.cpp
    INPUT echo.capnp
    PACKAGES capnp-rpc
    GENERATED echo.capnp.c++ echo.capnp.h
    COMMAND ${CAPNP} compile -oc++:${CMAKE_CURRENT_BINARY_DIR} echo.capnp)
endif()

find_program(PROTOC protoc)
find_program(GRPC_CPP_PLUGIN grpc_cpp_plugin)
if(PROTOC AND GRPC_CPP_PLUGIN)
  bench_generated_peer(
    grpc GrpcPeer.cpp
    INPUT echo.proto
    PACKAGES grpc++ protobuf
    GENERATED echo.pb.cc echo.grpc.pb.cc
    COMMAND ${PROTOC} -I ${CMAKE_CURRENT_SOURCE_DIR} --cpp_out=${CMAKE_CURRENT_BINARY_DIR}
            --grpc_out=${CMAKE_CURRENT_BINARY_DIR} --plugin=protoc-gen-grpc=${GRPC_CPP_PLUGIN} echo.proto)
endif()
