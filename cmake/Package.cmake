# The Debian package (cpack --preset package): zepdiag, the library and the
# service, that is the Runtime component of the install. Build it from a tree
# configured with CMAKE_INSTALL_PREFIX=/usr (the `package` preset), so that
# the unit names the installed paths.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zepdiag)
set(CPACK_PACKAGE_VENDOR Quorin)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "ZEP diagnostics: the agent's diagnostics module as a Linux service")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "The diagnostics module of the ZEP device-management agent, with zepdiag: it\nruns scans on a device folder and, as the zepdiag service, takes the cloud's\nrequests from an MQTT broker and uploads the results over HTTPS.")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Quorin ZEP agent team <zep-agent@quorin.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# The settings survive upgrades; the shared library's cache is refreshed.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/conffiles
  ${PROJECT_SOURCE_DIR}/packaging/triggers ${PROJECT_SOURCE_DIR}/packaging/postinst ${PROJECT_SOURCE_DIR}/packaging/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_CMAKE_PROJECTS "${PROJECT_BINARY_DIR};${PROJECT_NAME};Runtime;/")
include(CPack)
