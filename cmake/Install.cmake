# What `cmake --install` puts in place. Two components:
#   Runtime      the shared library, zepdiag, its systemd unit and settings
#                (what the Debian package holds);
#   Development  the public headers, the CMake package
#                (find_package(DiagnosticScanner) -> DiagnosticScanner::DiagnosticScanner)
#                and a pkg-config file, for hosts that build against the module.
include(CMakePackageConfigHelpers)

set(ZEP_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/DiagnosticScanner)

install(TARGETS DiagnosticScanner EXPORT DiagnosticScannerTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development)
install(DIRECTORY include/DiagnosticScanner DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development)
install(EXPORT DiagnosticScannerTargets NAMESPACE DiagnosticScanner::
  DESTINATION ${ZEP_CMAKE_PACKAGE_DIR} COMPONENT Development)
configure_package_config_file(cmake/DiagnosticScannerConfig.cmake.in
  ${PROJECT_BINARY_DIR}/DiagnosticScannerConfig.cmake INSTALL_DESTINATION ${ZEP_CMAKE_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/DiagnosticScannerConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/DiagnosticScannerConfig.cmake
  ${PROJECT_BINARY_DIR}/DiagnosticScannerConfigVersion.cmake
  DESTINATION ${ZEP_CMAKE_PACKAGE_DIR} COMPONENT Development)
configure_file(cmake/DiagnosticScanner.pc.in ${PROJECT_BINARY_DIR}/DiagnosticScanner.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/DiagnosticScanner.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

install(TARGETS zepdiag RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)
configure_file(packaging/zepdiag.service.in ${PROJECT_BINARY_DIR}/zepdiag.service @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zepdiag.service DESTINATION lib/systemd/system COMPONENT Runtime)
install(FILES packaging/zepdiag.conf DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/zep COMPONENT Runtime)
