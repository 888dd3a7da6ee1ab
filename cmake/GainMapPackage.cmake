# Installs the libraries, the headers, a CMake package (qelcam::gainmappool,
# qelcam::platform_host) and pkg-config files.
option(GAINMAP_INSTALL "Install the libraries, headers and package files" ${PROJECT_IS_TOP_LEVEL})
if(NOT GAINMAP_INSTALL)
  return()
endif()

include(CMakePackageConfigHelpers)
set(GAINMAP_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/qelcam)
set(GAINMAP_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/qelcam_gainmappool)

install(TARGETS qelcam_gainmappool qelcam_platform_host qelcam_platform_headers
        EXPORT qelcam_gainmappoolTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/IGainMapBufPool.h
              ${PROJECT_SOURCE_DIR}/platform/host/include/HostPlatform.h
        DESTINATION ${GAINMAP_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/camsys
        DESTINATION ${GAINMAP_INSTALL_INCLUDEDIR})

install(EXPORT qelcam_gainmappoolTargets NAMESPACE qelcam::
        DESTINATION ${GAINMAP_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/qelcam_gainmappoolConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/qelcam_gainmappoolConfig.cmake
                              INSTALL_DESTINATION ${GAINMAP_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qelcam_gainmappoolConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qelcam_gainmappoolConfig.cmake
              ${PROJECT_BINARY_DIR}/qelcam_gainmappoolConfigVersion.cmake
        DESTINATION ${GAINMAP_INSTALL_CMAKEDIR})

# The .pc files find the prefix from their own place, so that an installed tree can be moved.
file(RELATIVE_PATH GAINMAP_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" GAINMAP_PC_TO_PREFIX "${GAINMAP_PC_TO_PREFIX}")
foreach(pc qelcam_gainmappool qelcam_platform_host)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
