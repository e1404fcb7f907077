# The library, its headers, and what CMake and pkg-config find it by. The runtime component is all
# that a program needs to run.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(tessel_config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tessel)

install(TARGETS tessel EXPORT tesselTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(EXPORT tesselTargets NAMESPACE tessel:: DESTINATION ${tessel_config_dir} COMPONENT dev)

if(BUILD_SHARED_LIBS)
  set(tessel_is_static FALSE)
  set(tessel_pc_cflags "")
else()
  set(tessel_is_static TRUE)
  set(tessel_pc_cflags " -DTESSEL_STATIC")
endif()
configure_package_config_file(cmake/tesselConfig.cmake.in tesselConfig.cmake
                              INSTALL_DESTINATION ${tessel_config_dir})
write_basic_package_version_file(tesselConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tesselConfig.cmake
              ${PROJECT_BINARY_DIR}/tesselConfigVersion.cmake
        DESTINATION ${tessel_config_dir} COMPONENT dev)

# Found from where the file lies, so an installed tree can be moved as a whole.
file(RELATIVE_PATH tessel_pc_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/tessel.pc.in tessel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tessel.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
