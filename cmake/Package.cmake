# The installed C++ package: `find_package(zotdigest CONFIG REQUIRED)` gives
# zotdigest::quorix (the runtime, a shared library) and zotdigest::engine
# (the reproducible build and the digest files, a static library), with
# their headers under include/zotdigest, plus a pkg-config file. The module
# is a plug-in, loaded at run time from the module path: it is installed
# into its own directory, which the package names as zotdigest_MODULE_DIR.
include(CMakePackageConfigHelpers)

set(ZOTDIGEST_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zotdigest)
set(ZOTDIGEST_MODULE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/zotdigest)

install(TARGETS quorix EXPORT zotdigestTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(DIRECTORY runtime/include/quorix
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zotdigest COMPONENT dev)
if(TARGET zotdigest_engine)
  install(TARGETS zotdigest_engine EXPORT zotdigestTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
  install(DIRECTORY engine/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zotdigest/engine
    COMPONENT dev FILES_MATCHING PATTERN "*.h")
endif()
if(TARGET zotdigest)
  install(TARGETS zotdigest LIBRARY DESTINATION ${ZOTDIGEST_MODULE_INSTALL_DIR} COMPONENT dev)
endif()

install(EXPORT zotdigestTargets NAMESPACE zotdigest::
  DESTINATION ${ZOTDIGEST_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(cmake/templates/zotdigestConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/zotdigestConfig.cmake
  INSTALL_DESTINATION ${ZOTDIGEST_CMAKE_DIR}
  PATH_VARS ZOTDIGEST_MODULE_INSTALL_DIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zotdigestConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zotdigestConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/zotdigestConfigVersion.cmake
  DESTINATION ${ZOTDIGEST_CMAKE_DIR} COMPONENT dev)

# The pkg-config file finds the prefix from its own place, so an install
# with --prefix anywhere stays usable.
file(RELATIVE_PATH ZOTDIGEST_PC_TO_PREFIX /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
string(REGEX REPLACE "/$" "" ZOTDIGEST_PC_TO_PREFIX "${ZOTDIGEST_PC_TO_PREFIX}")
configure_file(cmake/templates/zotdigest.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zotdigest.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zotdigest.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
