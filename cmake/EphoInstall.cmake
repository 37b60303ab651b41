# Install rules, the exported CMake package (find_package(kzdvpholibu) gives
# kzdvpholibu::kzdvpholibu and friends) and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS kzdvpholibu kzdvmodlibu kzdvrasteru EXPORT kzdvpholibuTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS epho RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# Only the public headers: the module interfaces (the error frame, the UTF-8
# helpers, heap holders) live beside their code and are never installed.
install(DIRECTORY include/epho DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY platform/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kzdvrasteru
        FILES_MATCHING PATTERN "*.h")
install(DIRECTORY modlib/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kzdvrasteru OPTIONAL
        FILES_MATCHING PATTERN "*.h")

install(EXPORT kzdvpholibuTargets NAMESPACE kzdvpholibu::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kzdvpholibu)
configure_package_config_file(cmake/kzdvpholibuConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/kzdvpholibuConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kzdvpholibu)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kzdvpholibuConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kzdvpholibuConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/kzdvpholibuConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kzdvpholibu)
configure_file(cmake/kzdvpholibu.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kzdvpholibu.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kzdvpholibu.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
