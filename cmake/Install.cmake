# Installation: the library and the default host with their headers, the tool and its
# sample, a CMake package (find_package(camfetch) -> camfetch::camfetch, camfetch::host),
# a pkg-config file, and a .deb through CPack.
include(CMakePackageConfigHelpers)

# Installed binaries find our libraries (and a bundled live555) next to themselves. An
# old-style RPATH also serves the libraries they load, which live555's own need.
set_target_properties(camfetch camfetch_host PROPERTIES
  INSTALL_RPATH "$ORIGIN;$ORIGIN/${CAMFETCH_LIVE555_INSTALL_SUBDIR}" EXPORT_NAME camfetch)
set_target_properties(camfetch_host PROPERTIES EXPORT_NAME host)
set_target_properties(camfetch_tool PROPERTIES
  INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR};$ORIGIN/../${CMAKE_INSTALL_LIBDIR}/${CAMFETCH_LIVE555_INSTALL_SUBDIR}")
target_link_options(camfetch_tool PRIVATE LINKER:--disable-new-dtags)

install(TARGETS camfetch camfetch_host EXPORT camfetchTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/camfetch)
install(TARGETS camfetch_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/camfetch
  FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_SOURCE_DIR}/tools/camfetch/sample/sample.264
              ${PROJECT_SOURCE_DIR}/tools/camfetch/sample/sample.aac
  DESTINATION ${CMAKE_INSTALL_DATADIR}/camfetch)

# live555 unpacked from Debian's archive is not on the target machine: ship it along, as the
# library's private copy in a directory of its own (where the library looks for it before it
# batches live555's socket reads).
if(LIVE555_FETCHED)
  file(GLOB _live555_sonames "${LIVE555_LIBRARY_DIR}/lib*.so.*")
  install(FILES ${_live555_sonames}
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/${CAMFETCH_LIVE555_INSTALL_SUBDIR})
endif()

install(EXPORT camfetchTargets NAMESPACE camfetch::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/camfetch)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/camfetchConfig.cmake.in
  ${PROJECT_BINARY_DIR}/camfetchConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/camfetch)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/camfetchConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/camfetchConfig.cmake
              ${PROJECT_BINARY_DIR}/camfetchConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/camfetch)

configure_file(${PROJECT_SOURCE_DIR}/cmake/camfetch.pc.in ${PROJECT_BINARY_DIR}/camfetch.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/camfetch.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(CPACK_PACKAGE_NAME camfetch)
set(CPACK_PACKAGE_VENDOR "camfetch developers")
set(CPACK_PACKAGE_CONTACT "camfetch developers <camfetch@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "IP-camera stream fetching library and tool")
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libjsoncpp25, libcurl4, libssl3, libstdc++6")
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
include(CPack)
