include(CMakePackageConfigHelpers)

install(TARGETS sharedlib EXPORT sharedlibTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Public headers keep their folder layout under include/sharedlib, so that
# <sharedlib.h> and its relative includes resolve from one include path.
install(DIRECTORY shared/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sharedlib
  FILES_MATCHING PATTERN "*.h"
  PATTERN "posix" EXCLUDE
  PATTERN "win32" EXCLUDE
  PATTERN "detail" EXCLUDE
  # Internal wrappers over system calls: no public header includes them.
  PATTERN "FileApi.h" EXCLUDE
  PATTERN "ProcessApi.h" EXCLUDE
  PATTERN "SocketApi.h" EXCLUDE
  PATTERN "NetIf.h" EXCLUDE
  PATTERN "PosixThread.h" EXCLUDE)

install(EXPORT sharedlibTargets NAMESPACE sharedlib::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/sharedlib)
configure_package_config_file(cmake/sharedlibConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/sharedlibConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/sharedlib)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/sharedlibConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/sharedlibConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/sharedlibConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/sharedlib)

configure_file(cmake/sharedlib.pc.in ${CMAKE_CURRENT_BINARY_DIR}/sharedlib.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/sharedlib.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
