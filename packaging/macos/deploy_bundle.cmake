# Runs when Vistrel.app is installed (and so when CPack builds the disk image): puts Qt's
# frameworks and plugins into the bundle for the interface module, then signs the bundle from the
# inside out. Expects VISTREL_BUNDLE, VISTREL_MACDEPLOYQT (empty: no interface module) and
# VISTREL_CODESIGN_IDENTITY (empty: leave unsigned; "-": ad hoc).

if(NOT IS_DIRECTORY "${VISTREL_BUNDLE}/Contents/MacOS")
  message(FATAL_ERROR "deploy_bundle: ${VISTREL_BUNDLE} is not an installed bundle")
endif()
set(frameworks "${VISTREL_BUNDLE}/Contents/Frameworks")

function(run_checked what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "deploy_bundle: ${what} failed (${status}): ${ARGN}")
  endif()
endfunction()

if(VISTREL_MACDEPLOYQT)
  # The executable links no Qt; the interface module does, so it is the one to deploy for.
  run_checked("macdeployqt" "${VISTREL_MACDEPLOYQT}" "${VISTREL_BUNDLE}"
    "-executable=${frameworks}/libvistrel-ui.so" -always-overwrite -verbose=1)
endif()

if(VISTREL_CODESIGN_IDENTITY)
  set(sign codesign --force --timestamp=none --sign "${VISTREL_CODESIGN_IDENTITY}")
  # Nested code first: a bundle's signature seals the signatures of what it holds.
  file(GLOB_RECURSE plugins "${VISTREL_BUNDLE}/Contents/PlugIns/*.dylib")
  file(GLOB loose "${frameworks}/*.so" "${frameworks}/*.dylib")
  file(GLOB bundled LIST_DIRECTORIES true "${frameworks}/*.framework")
  foreach(item IN LISTS plugins loose)
    run_checked("signing ${item}" ${sign} "${item}")
  endforeach()
  foreach(item IN LISTS bundled)
    run_checked("signing ${item}" ${sign} --deep "${item}")
  endforeach()
  run_checked("signing the bundle" ${sign} "${VISTREL_BUNDLE}")
  run_checked("verifying the signature" codesign --verify --deep --strict "${VISTREL_BUNDLE}")
endif()
