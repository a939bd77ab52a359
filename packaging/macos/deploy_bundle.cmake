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
    "-executable=${frameworks}/libvistrel-ui.so"
    "-executable=${frameworks}/libvistrel-application.so" -always-overwrite -verbose=1)
endif()

# Libraries from outside the system (Homebrew's simdjson, say) go into Contents/Frameworks, and
# every reference to them becomes @executable_path/../Frameworks/<name>: a person's Mac has only
# the system's own libraries. Whatever a copied library links from outside follows it the same
# way.
set(in_bundle "@executable_path/../Frameworks")

# outside_references(<binary> <variable>): the absolute library paths the binary names that are
# neither the system's (/usr/lib, /System) nor already in the bundle.
function(outside_references binary out_var)
  execute_process(COMMAND otool -L "${binary}" OUTPUT_VARIABLE listing RESULT_VARIABLE status
                  ERROR_QUIET)
  set(found "")
  if(status EQUAL 0)
    string(REPLACE "\n" ";" lines "${listing}")
    foreach(line IN LISTS lines)
      if(line MATCHES "^[ \t]+(/[^ ]+) \\(")
        set(name "${CMAKE_MATCH_1}")
        if(NOT name MATCHES "^/(usr/lib|System)/")
          list(APPEND found "${name}")
        endif()
      endif()
    endforeach()
  endif()
  set(${out_var} "${found}" PARENT_SCOPE)
endfunction()

file(GLOB queue "${VISTREL_BUNDLE}/Contents/MacOS/*" "${frameworks}/*.so" "${frameworks}/*.dylib")
while(queue)
  list(POP_FRONT queue binary)
  outside_references("${binary}" names)
  foreach(name IN LISTS names)
    get_filename_component(base "${name}" NAME)
    set(copy "${frameworks}/${base}")
    if(NOT EXISTS "${copy}")
      get_filename_component(real "${name}" REALPATH)
      if(NOT EXISTS "${real}")
        message(FATAL_ERROR "deploy_bundle: ${binary} needs ${name}, which is not there")
      endif()
      file(COPY_FILE "${real}" "${copy}")
      file(CHMOD "${copy}" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
      run_checked("naming ${base}" install_name_tool -id "${in_bundle}/${base}" "${copy}")
      list(APPEND queue "${copy}")
    endif()
    run_checked("pointing ${binary} at ${base}"
      install_name_tool -change "${name}" "${in_bundle}/${base}" "${binary}")
  endforeach()
endwhile()

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
