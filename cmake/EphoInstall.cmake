# Install rules, the exported CMake package (find_package(kzdvpholibu) gives
# kzdvpholibu::kzdvpholibu and friends) and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS kzdvpholibu kzdvmodlibu kzdvrasteru EXPORT kzdvpholibuTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS epho RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/epho DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY platform/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kzdvrasteru)
install(DIRECTORY modlib/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kzdvrasteru OPTIONAL)

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
