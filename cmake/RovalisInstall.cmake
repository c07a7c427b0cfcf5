# What `cmake --install` puts under the prefix: the public headers, the library, the device
# list, the tools that were built, a CMake package (find_package(RovalisSDK 0.2 CONFIG) gives
# RovalisSDK::rovalis) and rovalis.pc.
include(CMakePackageConfigHelpers)

set(ROVALIS_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/RovalisSDK)
get_target_property(rovalis_type rovalis TYPE)
if(rovalis_type STREQUAL "SHARED_LIBRARY")
  set(ROVALIS_SHARED ON)
else()
  set(ROVALIS_SHARED OFF)
endif()

install(TARGETS rovalis EXPORT RovalisSDKTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development)
install(FILES ${PROJECT_SOURCE_DIR}/data/DeviceList.json
  DESTINATION ${CMAKE_INSTALL_DATADIR}/rovalis COMPONENT Runtime)

install(EXPORT RovalisSDKTargets NAMESPACE RovalisSDK:: DESTINATION ${ROVALIS_PACKAGE_DIR}
  COMPONENT Development)
configure_package_config_file(cmake/RovalisSDKConfig.cmake.in
  ${PROJECT_BINARY_DIR}/RovalisSDKConfig.cmake
  INSTALL_DESTINATION ${ROVALIS_PACKAGE_DIR}
  PATH_VARS CMAKE_INSTALL_DATADIR)
# 0.x: a new minor version may break the interface, so 0.2 accepts 0.2.y only.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/RovalisSDKConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/RovalisSDKConfig.cmake ${PROJECT_BINARY_DIR}/RovalisSDKConfigVersion.cmake
  DESTINATION ${ROVALIS_PACKAGE_DIR} COMPONENT Development)

# rovalis.pc finds its prefix from its own place, so that an installation can move.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(ROVALIS_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH pc_to_prefix "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
  string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
  set(ROVALIS_PC_PREFIX "\${pcfiledir}/${pc_to_prefix}")
endif()
if(ROVALIS_SHARED)
  # The shared library resolves its own dependencies.
  set(ROVALIS_PC_LIBS_PRIVATE "")
else()
  # The static library's own dependencies, as their packages name them for linking. Not as
  # Requires.private: `pkg-config --static` would then also ask for the static archives of
  # libcurl's dependencies, which a host that links everything else dynamically does not have.
  pkg_check_modules(rovalis_pc_dependencies QUIET sqlite3 zlib libcurl uuid geographiclib)
  if(rovalis_pc_dependencies_FOUND)
    list(JOIN rovalis_pc_dependencies_LDFLAGS " " dependency_libs)
  else()
    set(dependency_libs "-lsqlite3 -lz -lcurl -luuid -lGeographicLib")
  endif()
  set(ROVALIS_PC_LIBS_PRIVATE "Libs.private: ${dependency_libs} -pthread -ldl -lstdc++")
endif()
configure_file(cmake/rovalis.pc.in ${PROJECT_BINARY_DIR}/rovalis.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/rovalis.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT Development)

# The C library of C hosts and the Python binding, built with the simulated device.
if(TARGET rovalis_c)
  install(TARGETS rovalis_c LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime
    NAMELINK_COMPONENT Development)
endif()

foreach(tool rovalis-collector rovalis-sim rovalis-tracegen rovalis-agent)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Tools)
  endif()
endforeach()
