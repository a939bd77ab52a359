# The Linux install layout under the prefix (/usr for the packages):
#   bin/vistrel
#   lib/vistrel/libvistrel-application.so, lib/vistrel/libvistrel-ui.so (ui component)
#   share/applications/org.brackwood.vistrel.desktop
#   share/icons/hicolor/{scalable,<n>x<n>}/apps/org.brackwood.vistrel.{svg,png}
#   share/metainfo/org.brackwood.vistrel.metainfo.xml
#   lib/systemd/user/vistrel.service

install(TARGETS vistrel RUNTIME DESTINATION ${VISTREL_INSTALL_BINDIR} COMPONENT core)
install(TARGETS vistrel_application LIBRARY DESTINATION ${VISTREL_INSTALL_MODULEDIR} COMPONENT core)
if(TARGET vistrel_ui)
  install(TARGETS vistrel_ui LIBRARY DESTINATION ${VISTREL_INSTALL_MODULEDIR} COMPONENT ui)
endif()

set(icons ${VISTREL_PACKAGING_DIR}/icons)
install(FILES ${icons}/org.brackwood.vistrel.svg
  DESTINATION share/icons/hicolor/scalable/apps COMPONENT core)
foreach(size 16 24 32 48 64 128 256 512)
  install(FILES ${icons}/org.brackwood.vistrel-${size}.png
    DESTINATION share/icons/hicolor/${size}x${size}/apps
    RENAME org.brackwood.vistrel.png COMPONENT core)
endforeach()

configure_file(${VISTREL_PACKAGING_DIR}/linux/org.brackwood.vistrel.metainfo.xml
  ${CMAKE_BINARY_DIR}/packaging/org.brackwood.vistrel.metainfo.xml @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/org.brackwood.vistrel.metainfo.xml
  DESTINATION share/metainfo COMPONENT core)

# The desktop entry and the service name the installed executable by its full path, which is only
# known when installing (CPack installs with its own prefix), so they are written then.
install(CODE "
  set(VISTREL_INSTALLED_BINARY \"\${CMAKE_INSTALL_PREFIX}/${VISTREL_INSTALL_BINDIR}/vistrel\")
  set(staged \"${CMAKE_BINARY_DIR}/packaging/installed\")
  configure_file(\"${VISTREL_PACKAGING_DIR}/linux/org.brackwood.vistrel.desktop.in\"
    \"\${staged}/org.brackwood.vistrel.desktop\" @ONLY)
  configure_file(\"${VISTREL_PACKAGING_DIR}/linux/vistrel.service.in\"
    \"\${staged}/vistrel.service\" @ONLY)
  file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/share/applications\" TYPE FILE
    FILES \"\${staged}/org.brackwood.vistrel.desktop\")
  file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/lib/systemd/user\" TYPE FILE
    FILES \"\${staged}/vistrel.service\")
" COMPONENT core)
