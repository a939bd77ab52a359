# vistrel_check_update_settings(<feed> <public key> <error variable>): sets the error variable to
# why the pair cannot configure an updater, or to "" when it can (both empty means no updater).
function(vistrel_check_update_settings feed key error_var)
  set(error "")
  if(feed STREQUAL "" AND key STREQUAL "")
    # No updater: nothing to check.
  elseif(feed STREQUAL "" OR key STREQUAL "")
    set(error "an update feed needs both VISTREL_UPDATE_FEED and VISTREL_UPDATE_PUBLIC_KEY")
  elseif(NOT feed MATCHES "^https://[A-Za-z0-9._~:/?#!()*+,;=%-]+$")
    # Nothing that XML or the Info.plist template would read as markup or a variable.
    set(error "VISTREL_UPDATE_FEED must be an https address without quotes, spaces, '<', '&', "
              "'$' or '@', not \"${feed}\"")
  else()
    # An Ed25519 public key is 32 bytes: 43 base64 characters and one '='.
    string(LENGTH "${key}" key_length)
    if(NOT key_length EQUAL 44 OR NOT key MATCHES "^[A-Za-z0-9+/]+=$")
      set(error "VISTREL_UPDATE_PUBLIC_KEY must be the feed's base64 EdDSA public key "
                "(44 characters), as Sparkle's generate_keys prints it")
    endif()
  endif()
  string(CONCAT error ${error})
  set(${error_var} "${error}" PARENT_SCOPE)
endfunction()
