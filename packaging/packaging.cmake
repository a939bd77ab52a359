# How Vistrel is installed and packaged: `cmake --install` lays out the platform's install (a
# prefix on Linux, Vistrel.app on macOS) and CPack turns it into the platform's package (.deb
# packages on Linux, a disk image on macOS).
#
# Components:
#   core  the executable, the application module and, on Linux, the desktop entry, icons,
#         AppStream metadata and the systemd user unit: everything a server needs, and no Qt.
#   ui    the user-interface module (target vistrel_ui) when the build has one; on Linux it is a
#         package of its own, so that a server installs the core without Qt.
#
# The executable looks for its modules beside itself, in ../Frameworks inside a bundle and in
# ../lib/vistrel, so the folders below are fixed rather than taken from GNUInstallDirs.

set(VISTREL_INSTALL_BINDIR bin)
set(VISTREL_INSTALL_MODULEDIR lib/vistrel)
set(VISTREL_PACKAGING_DIR ${CMAKE_CURRENT_LIST_DIR})

string(TIMESTAMP VISTREL_DEFAULT_RELEASE_DATE "%Y-%m-%d" UTC)
set(VISTREL_RELEASE_DATE "${VISTREL_DEFAULT_RELEASE_DATE}" CACHE STRING
    "Release date written into the AppStream metadata (YYYY-MM-DD)")
if(NOT VISTREL_RELEASE_DATE MATCHES "^[0-9][0-9][0-9][0-9]-[01][0-9]-[0-3][0-9]$")
  message(FATAL_ERROR "VISTREL_RELEASE_DATE must be YYYY-MM-DD, not \"${VISTREL_RELEASE_DATE}\"")
endif()

include(${CMAKE_CURRENT_LIST_DIR}/updater.cmake)
if(APPLE)
  include(${CMAKE_CURRENT_LIST_DIR}/macos/bundle.cmake)
else()
  include(${CMAKE_CURRENT_LIST_DIR}/linux/install.cmake)
endif()
include(${CMAKE_CURRENT_LIST_DIR}/cpack.cmake)

# Which update feed and key a build accepts, and how the bundle takes in the libraries it links:
# scripts that need no build, so they run with every test suite.
if(VISTREL_TESTS)
  add_test(NAME update_settings
    COMMAND ${CMAKE_COMMAND} -P ${CMAKE_CURRENT_LIST_DIR}/tests/update_settings_test.cmake)
  add_test(NAME deploy_bundle COMMAND ${CMAKE_CURRENT_LIST_DIR}/tests/deploy_bundle_test.sh)
  set_tests_properties(update_settings deploy_bundle PROPERTIES LABELS package)
endif()

# The installed layouts, checked by running what was installed (`make package-test`).
option(VISTREL_PACKAGE_TESTS "Register the tests of the built packages" OFF)
if(VISTREL_PACKAGE_TESTS)
  enable_testing()
  if(APPLE)
    add_test(NAME package_bundle
      COMMAND ${CMAKE_CURRENT_LIST_DIR}/tests/check_bundle.sh ${CMAKE_BINARY_DIR})
    set(package_tests package_bundle)
  else()
    add_test(NAME package_deb
      COMMAND ${CMAKE_CURRENT_LIST_DIR}/tests/check_deb.sh ${CMAKE_BINARY_DIR}/packages)
    add_test(NAME package_prefix
      COMMAND ${CMAKE_CURRENT_LIST_DIR}/tests/check_prefix.sh ${CMAKE_BINARY_DIR})
    set(package_tests package_deb package_prefix)
  endif()
  set_tests_properties(${package_tests} PROPERTIES LABELS package TIMEOUT 300)
endif()
