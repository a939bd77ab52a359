# Updates. On macOS a build that names an update feed and its public key gets Sparkle 2 (fetched
# and verified by scripts/install-deps): the feed, key and a daily automatic check go into the
# bundle's Info.plist, Sparkle.framework into the bundle, and the user interface links
# vistrel_updater. Without a feed there is no updater at all: no menu item, no check. On Linux the
# package manager updates Vistrel, so there is never an updater of our own.

set(VISTREL_UPDATE_FEED "" CACHE STRING
    "macOS: address (https) of the update feed; empty builds no updater")
set(VISTREL_UPDATE_PUBLIC_KEY "" CACHE STRING
    "macOS: the update feed's EdDSA public key, base64 (Sparkle's generate_keys prints it)")
set(VISTREL_SPARKLE_DIR "${PROJECT_SOURCE_DIR}/build/deps/Sparkle" CACHE PATH
    "Where scripts/install-deps unpacked Sparkle")

include(${CMAKE_CURRENT_LIST_DIR}/update_settings.cmake)
set(VISTREL_UPDATES OFF)
if(VISTREL_UPDATE_FEED OR VISTREL_UPDATE_PUBLIC_KEY)
  if(NOT APPLE)
    message(STATUS "Updates on Linux come from the package manager; the update feed is not used")
  else()
    vistrel_check_update_settings("${VISTREL_UPDATE_FEED}" "${VISTREL_UPDATE_PUBLIC_KEY}" problem)
    if(problem)
      message(FATAL_ERROR "${problem}")
    endif()
    set(VISTREL_SPARKLE_FRAMEWORK ${VISTREL_SPARKLE_DIR}/Sparkle.framework)
    if(NOT EXISTS ${VISTREL_SPARKLE_FRAMEWORK})
      message(FATAL_ERROR "An update feed needs Sparkle: ${VISTREL_SPARKLE_FRAMEWORK} is missing "
                          "(scripts/install-deps fetches it)")
    endif()
    set(VISTREL_UPDATES ON)
  endif()
endif()

if(VISTREL_UPDATES)
  add_library(vistrel_updater STATIC ${PROJECT_SOURCE_DIR}/src/app/macos/updater_macos.mm)
  target_compile_options(vistrel_updater PRIVATE -fobjc-arc "-F${VISTREL_SPARKLE_DIR}")
  # A framework named by its path links as -F<folder> -framework Sparkle.
  target_link_libraries(vistrel_updater PUBLIC "-framework AppKit" ${VISTREL_SPARKLE_FRAMEWORK})
  set(VISTREL_UPDATE_PLIST_KEYS
"	<key>SUFeedURL</key>
	<string>${VISTREL_UPDATE_FEED}</string>
	<key>SUPublicEDKey</key>
	<string>${VISTREL_UPDATE_PUBLIC_KEY}</string>
	<key>SUEnableAutomaticChecks</key>
	<true/>
	<key>SUScheduledCheckInterval</key>
	<integer>86400</integer>
")
else()
  add_library(vistrel_updater STATIC ${PROJECT_SOURCE_DIR}/src/app/updater_none.cpp)
  set(VISTREL_UPDATE_PLIST_KEYS "")
endif()
target_include_directories(vistrel_updater PUBLIC ${PROJECT_SOURCE_DIR}/src)

if(TARGET vistrel_ui)
  target_link_libraries(vistrel_ui PRIVATE vistrel_updater)
  if(VISTREL_UPDATES)
    # Sparkle.framework sits beside the module in the bundle's Frameworks folder; in the build
    # folder the module finds it where install-deps unpacked it.
    set_property(TARGET vistrel_ui APPEND PROPERTY BUILD_RPATH "@loader_path" "${VISTREL_SPARKLE_DIR}")
    set_property(TARGET vistrel_ui APPEND PROPERTY INSTALL_RPATH "@loader_path")
  endif()
endif()
