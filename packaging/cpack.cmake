# CPack: `cpack` in the build folder (or `make package`) writes the platform's package into
# <build>/packages.

set(VISTREL_PACKAGE_MAINTAINER "Vistrel developers <vistrel@brackwood.invalid>" CACHE STRING
    "Maintainer written into the Linux packages")

set(CPACK_PACKAGE_NAME vistrel)
set(CPACK_PACKAGE_VENDOR "Brackwood")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${VISTREL_PACKAGE_MAINTAINER}")
set(CPACK_OUTPUT_FILE_PREFIX ${CMAKE_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)

set(vistrel_components core)
if(TARGET vistrel_ui)
  list(APPEND vistrel_components ui)
endif()
set(CPACK_COMPONENTS_ALL ${vistrel_components})
# Files installed without a component would be left out of every package: say so at configure.
get_cmake_property(installed_components COMPONENTS)
if("Unspecified" IN_LIST installed_components)
  message(WARNING "Some install() rules name no COMPONENT; their files are in no package. "
                  "Give them COMPONENT core (headless) or ui (needs the interface).")
endif()

if(APPLE)
  # One disk image holding Vistrel.app and a link to /Applications to drag it onto.
  set(CPACK_GENERATOR DragNDrop)
  set(CPACK_DMG_VOLUME_NAME Vistrel)
  set(CPACK_DMG_FORMAT UDZO)
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "System monitor for machines that run coding agents")
  set(CPACK_PACKAGE_FILE_NAME Vistrel-${PROJECT_VERSION})
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
  set(CPACK_DEBIAN_PACKAGE_SECTION utils)
  set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
  # Each package depends on what its own files link: dpkg-shlibdeps reads them. The executable
  # carries its own C++ runtime and needs only the C library; the modules use the shared one.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

  set(CPACK_DEBIAN_CORE_PACKAGE_NAME vistrel)
  # The first line of each description is the package's synopsis; an empty line separates
  # paragraphs.
  set(CPACK_DEBIAN_CORE_DESCRIPTION
      "system monitor for machines that run coding agents
Vistrel watches the machine (CPU, memory, GPU, disk, network, temperatures)
and every process, grouped into apps; keeps a minute-by-minute history on the
machine; raises alerts when an app runs away with it; shows what Claude Code
and Codex are doing; and answers AI agents through an MCP server
(vistrel --mcp).

This package runs without a window, and as a systemd user service on a
server. The window and tray icon come with vistrel-ui.")
  set(CPACK_DEBIAN_UI_PACKAGE_NAME vistrel-ui)
  set(CPACK_DEBIAN_UI_DESCRIPTION
      "window and tray icon of the Vistrel system monitor (Qt)
The user interface of Vistrel, loaded by the application when a display is
there. Without it Vistrel runs headless.")
  set(vistrel_deb_version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
  set(CPACK_DEBIAN_UI_PACKAGE_DEPENDS "vistrel (= ${vistrel_deb_version})")
  if(TARGET vistrel_ui)
    # A desktop install gets the window by default; `apt install --no-install-recommends vistrel`
    # keeps a server free of Qt.
    set(CPACK_DEBIAN_CORE_PACKAGE_RECOMMENDS vistrel-ui)
  endif()
endif()

include(CPack)
cpack_add_component(core DISPLAY_NAME "Vistrel" REQUIRED)
if(TARGET vistrel_ui)
  cpack_add_component(ui DISPLAY_NAME "Vistrel user interface" DEPENDS core)
endif()
