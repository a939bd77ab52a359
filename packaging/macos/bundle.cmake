# Vistrel.app: the same executable as `vistrel`, built a second time as a bundle so that the plain
# build-folder executable (and every test that runs it) stays as it is.
#
#   Vistrel.app/Contents/Info.plist            bundle id, version, accessory app, minimum system
#   Vistrel.app/Contents/MacOS/Vistrel         the executable (all three modes)
#   Vistrel.app/Contents/Frameworks/           libvistrel-application.so, libvistrel-ui.so, Qt's
#                                              frameworks (installed bundle), Sparkle.framework
#   Vistrel.app/Contents/Resources/Vistrel.icns
#
# The build folder's bundle already runs (the modules are copied in after each build); the
# installed one (`cmake --install`, and so the disk image) also carries Qt's frameworks and is
# signed, ad hoc unless VISTREL_CODESIGN_IDENTITY names a real identity.

# The login item needs macOS 13's service management. The declared minimum must not be below what
# the binaries were built for: the deployment target when the build sets one.
if(CMAKE_OSX_DEPLOYMENT_TARGET)
  set(minimum_default ${CMAKE_OSX_DEPLOYMENT_TARGET})
else()
  set(minimum_default 13.0)
endif()
set(VISTREL_MACOS_MINIMUM "${minimum_default}" CACHE STRING
    "Oldest macOS the bundle declares (LSMinimumSystemVersion)")
set(VISTREL_CODESIGN_IDENTITY "-" CACHE STRING
    "codesign identity for the installed bundle; \"-\" signs ad hoc, empty does not sign")
set(VISTREL_BUNDLE_BUILD "${PROJECT_VERSION}" CACHE STRING
    "CFBundleVersion of the bundle; the updater compares it, so it must grow with each release")

set(VISTREL_BUNDLE_EXECUTABLE Vistrel)
set(icns ${VISTREL_PACKAGING_DIR}/icons/Vistrel.icns)
configure_file(${VISTREL_PACKAGING_DIR}/macos/Info.plist.in
  ${CMAKE_BINARY_DIR}/packaging/Info.plist @ONLY)

add_executable(vistrel_bundle MACOSX_BUNDLE ${PROJECT_SOURCE_DIR}/src/main.cpp ${icns})
target_link_libraries(vistrel_bundle PRIVATE vistrel_launcher vistrel_agent_bridge vistrel_mcp)
set_source_files_properties(${icns} PROPERTIES MACOSX_PACKAGE_LOCATION Resources)
set_target_properties(vistrel_bundle PROPERTIES
  OUTPUT_NAME ${VISTREL_BUNDLE_EXECUTABLE}
  MACOSX_BUNDLE_INFO_PLIST ${CMAKE_BINARY_DIR}/packaging/Info.plist)

set(bundle_modules $<TARGET_FILE:vistrel_application>)
add_dependencies(vistrel_bundle vistrel_application)
if(TARGET vistrel_ui)
  list(APPEND bundle_modules $<TARGET_FILE:vistrel_ui>)
  add_dependencies(vistrel_bundle vistrel_ui)
endif()
set(frameworks_dir $<TARGET_BUNDLE_CONTENT_DIR:vistrel_bundle>/Frameworks)
add_custom_command(TARGET vistrel_bundle POST_BUILD
  COMMAND ${CMAKE_COMMAND} -E make_directory ${frameworks_dir}
  COMMAND ${CMAKE_COMMAND} -E copy_if_different ${bundle_modules} ${frameworks_dir}/
  COMMENT "Copying the modules into Vistrel.app"
  VERBATIM)

# Installed: the bundle at the top of the prefix (a disk image's root, or /Applications).
install(TARGETS vistrel_bundle BUNDLE DESTINATION . COMPONENT core)
install(TARGETS vistrel_application
  LIBRARY DESTINATION Vistrel.app/Contents/Frameworks COMPONENT core)
if(TARGET vistrel_ui)
  install(TARGETS vistrel_ui LIBRARY DESTINATION Vistrel.app/Contents/Frameworks COMPONENT core)
endif()
if(VISTREL_UPDATES)
  install(DIRECTORY ${VISTREL_SPARKLE_FRAMEWORK}
    DESTINATION Vistrel.app/Contents/Frameworks USE_SOURCE_PERMISSIONS COMPONENT core)
endif()

# Qt's frameworks and plugins for the interface module, then the signature. macdeployqt comes
# with Qt; it is only needed once the build has a user interface.
set(VISTREL_MACDEPLOYQT "")
if(TARGET vistrel_ui)
  find_program(VISTREL_MACDEPLOYQT_PROGRAM macdeployqt
    HINTS ${Qt6_DIR}/../../../bin ${QT_DIR}/../../../bin)
  if(NOT VISTREL_MACDEPLOYQT_PROGRAM)
    message(FATAL_ERROR "macdeployqt not found: it puts Qt's frameworks into Vistrel.app")
  endif()
  set(VISTREL_MACDEPLOYQT ${VISTREL_MACDEPLOYQT_PROGRAM})
endif()
install(CODE "
  set(VISTREL_BUNDLE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/Vistrel.app\")
  set(VISTREL_MACDEPLOYQT \"${VISTREL_MACDEPLOYQT}\")
  set(VISTREL_CODESIGN_IDENTITY \"${VISTREL_CODESIGN_IDENTITY}\")
" COMPONENT core)
install(SCRIPT ${VISTREL_PACKAGING_DIR}/macos/deploy_bundle.cmake COMPONENT core)
