# Takes the sources of tessel into this project, and fails when that changes anything for it.

# What the directory had before tessel came in, to see that it has it after. Parents set
# CMAKE_MODULE_PATH and the like: those variables cannot leak, but the cache and properties can.
get_directory_property(cache_before CACHE_VARIABLES)
set(watched_properties COMPILE_DEFINITIONS COMPILE_OPTIONS IMPORTED_TARGETS INCLUDE_DIRECTORIES
                       LINK_DIRECTORIES LINK_OPTIONS TESTS)
foreach(property ${watched_properties})
  get_directory_property(before_${property} ${property})
endforeach()

if(CONSUMER_FETCHES)
  # [fetch]
  include(FetchContent)
  FetchContent_Declare(tessel SOURCE_DIR ${TESSEL_SOURCES})
  FetchContent_MakeAvailable(tessel)
  # [fetch]
else()
  add_subdirectory(${TESSEL_SOURCES} tessel)
endif()

foreach(property ${watched_properties})
  get_directory_property(after ${property})
  if(NOT "${after}" STREQUAL "${before_${property}}")
    message(FATAL_ERROR "tessel changes the ${property} of its parent: ${after}")
  endif()
endforeach()

# Only names of its own, of the two packages that it looks for, and of CMake's own bookkeeping.
get_directory_property(cache_after CACHE_VARIABLES)
list(REMOVE_ITEM cache_after ${cache_before})
list(FILTER cache_after EXCLUDE REGEX "^(TESSEL_|tessel_|libzmq_|pkgcfg_lib_libzmq_)")
list(FILTER cache_after EXCLUDE REGEX "^(PKG_CONFIG_|__pkg_config_|prefix_result$|FETCHCONTENT_)")
list(FILTER cache_after EXCLUDE REGEX
     "^(CMAKE_HAVE_LIBC_PTHREAD|CMAKE_PROJECT_VERSION|FIND_PACKAGE_MESSAGE_DETAILS_)")
if(TESSEL_INSTALL)  # asked for, and then they are the places that the parent would install to, too
  list(FILTER cache_after EXCLUDE REGEX "^(CMAKE_INSTALL_|_GNUInstallDirs_)")
endif()
if(cache_after)
  message(FATAL_ERROR "tessel sets ${cache_after} for its parent")
endif()
