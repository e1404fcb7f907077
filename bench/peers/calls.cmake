# Peers that have remote calls.

# What a peer's compiler makes of its interface is a library by itself, so that nobody warns of it:
# the target NAME_echo. COMMAND runs in bench/peers and writes OUTPUTS into the folder NAME of the
# build.
function(tessel_peer_interface name source)
  cmake_parse_arguments(PARSE_ARGV 2 its "" "" "COMMAND;OUTPUTS;LIBRARIES")
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/${name})
  file(MAKE_DIRECTORY ${folder})
  list(TRANSFORM its_OUTPUTS PREPEND ${folder}/)
  add_custom_command(OUTPUT ${its_OUTPUTS} COMMAND ${its_COMMAND} ${source} DEPENDS ${source}
    WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR} VERBATIM)
  add_library(${name}_echo STATIC ${its_OUTPUTS})
  target_include_directories(${name}_echo SYSTEM PUBLIC ${folder})
  target_compile_features(${name}_echo PUBLIC cxx_std_17)
  target_link_libraries(${name}_echo PUBLIC ${its_LIBRARIES})
endfunction()

pkg_check_modules(grpc++ QUIET IMPORTED_TARGET grpc++)
find_package(Protobuf QUIET)
find_program(TESSEL_PROGRAM_grpc_cpp_plugin grpc_cpp_plugin)
if(grpc++_FOUND AND Protobuf_FOUND AND TESSEL_PROGRAM_grpc_cpp_plugin)
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/grpc)
  tessel_peer_interface(grpc echo.proto
    COMMAND protobuf::protoc --cpp_out=${folder} --grpc_out=${folder}
            --plugin=protoc-gen-grpc=${TESSEL_PROGRAM_grpc_cpp_plugin}
    OUTPUTS echo.pb.cc echo.grpc.pb.cc
    LIBRARIES PkgConfig::grpc++ protobuf::libprotobuf)
endif()

# By pkg-config: the package file for CMake that Debian 12 has gives up for want of libatomic.
pkg_check_modules(capnp-rpc QUIET IMPORTED_TARGET capnp-rpc)
find_program(TESSEL_PROGRAM_capnp capnp)
if(capnp-rpc_FOUND AND TESSEL_PROGRAM_capnp)
  tessel_peer_interface(capnp echo.capnp
    COMMAND ${TESSEL_PROGRAM_capnp} compile --output=c++:${CMAKE_CURRENT_BINARY_DIR}/capnp
    OUTPUTS echo.capnp.c++
    LIBRARIES PkgConfig::capnp-rpc)
endif()

find_package(Ice QUIET COMPONENTS Ice++11)
if(Ice_FOUND)
  tessel_peer_interface(ice echo.ice
    COMMAND ${Ice_SLICE2CPP_EXECUTABLE} --output-dir=${CMAKE_CURRENT_BINARY_DIR}/ice
            -I${Ice_SLICE_DIR}
    OUTPUTS echo.cpp
    LIBRARIES Ice::Ice++11)
  target_compile_definitions(ice_echo PUBLIC ICE_CPP11_MAPPING)
endif()

foreach(peer capnp grpc ice)
  tessel_peer_bench(${peer} TARGETS ${peer}_echo)
endforeach()
