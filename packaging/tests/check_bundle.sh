#!/usr/bin/env bash
# Checks Vistrel.app as `cmake --install` lays it out and as the disk image carries it (macOS):
# the Info.plist is well formed and says what the bundle is, the executable, modules and icon are
# where the executable looks for them, the signature verifies, and the bundled executable serves
# MCP and runs the application headless from inside the bundle.
#
# Usage: check_bundle.sh <build folder>   (after cpack wrote <build>/packages/*.dmg)
set -uo pipefail
here=$(cd "${0%/*}" && pwd)
source "$here/installed_checks.sh"

build=${1:?usage: check_bundle.sh <build folder>}
scratch=$(mktemp -d /tmp/vistrel-bundle-XXXXXX)
mounted=""
cleanup() {
  [[ -n "$mounted" ]] && hdiutil detach -quiet "$mounted"
  rm -rf "$scratch"
}
trap cleanup EXIT

# check_app <Vistrel.app>
check_app() {
  local app=$1
  local plist=$app/Contents/Info.plist
  plutil -lint "$plist" >/dev/null && pass "plutil -lint" || fail "plutil -lint $plist"
  local key want got
  while read -r key want; do
    got=$(plutil -extract "$key" raw -o - "$plist" 2>/dev/null)
    [[ "$got" == "$want" ]] && pass "$key is $want" || fail "$key is '$got', not '$want'"
  done <<EOT
CFBundleIdentifier org.brackwood.vistrel
CFBundleExecutable Vistrel
CFBundlePackageType APPL
LSUIElement true
CFBundleIconFile Vistrel
EOT
  for key in CFBundleShortVersionString CFBundleVersion LSMinimumSystemVersion; do
    [[ -n "$(plutil -extract "$key" raw -o - "$plist" 2>/dev/null)" ]] || fail "$key is missing"
  done
  # Without a configured feed the bundle must not ask Sparkle for anything.
  if plutil -extract SUFeedURL raw -o - "$plist" >/dev/null 2>&1; then
    [[ -d "$app/Contents/Frameworks/Sparkle.framework" ]] ||
      fail "the bundle names an update feed but carries no Sparkle.framework"
  fi

  [[ -x "$app/Contents/MacOS/Vistrel" ]] && pass "Contents/MacOS/Vistrel" ||
    fail "no executable at Contents/MacOS/Vistrel"
  [[ -f "$app/Contents/Frameworks/libvistrel-application.so" ]] &&
    pass "the application module is in Contents/Frameworks" ||
    fail "no application module in Contents/Frameworks"
  [[ -f "$app/Contents/Resources/Vistrel.icns" ]] && pass "the icon is in Contents/Resources" ||
    fail "no Vistrel.icns in Contents/Resources"
  # Nothing in the bundle may point back into the build machine's folders.
  local file
  while IFS= read -r -d '' file; do
    if otool -L "$file" 2>/dev/null | tail -n +2 | grep -Eq "$build|/opt/homebrew|/usr/local/(opt|Cellar)"; then
      fail "${file#"$app"/} links outside the bundle: $(otool -L "$file" | grep -E "$build|homebrew|/usr/local/")"
    fi
  done < <(find "$app/Contents" -type f \( -name '*.so' -o -name '*.dylib' -o -perm -u+x \) -print0)

  if codesign --verify --deep --strict --verbose=2 "$app"; then pass "codesign --verify"; else
    fail "codesign --verify $app"; fi
}

if ! cmake --install "$build" --prefix "$scratch/installed" >"$scratch/install.log" 2>&1; then
  cat "$scratch/install.log" >&2
  echo "check_bundle: cmake --install failed" >&2
  exit 1
fi
app=$scratch/installed/Vistrel.app
check_app "$app"
check_runs "$app/Contents/MacOS/Vistrel" "$scratch"

shopt -s nullglob
images=("$build"/packages/*.dmg)
if [[ ${#images[@]} -ne 1 ]]; then
  fail "expected one disk image in $build/packages, found ${#images[@]}"
else
  mounted=$scratch/volume
  mkdir -p "$mounted"
  if hdiutil attach -quiet -readonly -nobrowse -mountpoint "$mounted" "${images[0]}"; then
    [[ -d "$mounted/Vistrel.app" ]] && pass "the disk image holds Vistrel.app" ||
      fail "no Vistrel.app at the top of the disk image"
    [[ -L "$mounted/Applications" ]] && pass "the disk image links /Applications" ||
      fail "no Applications link in the disk image"
    [[ -d "$mounted/Vistrel.app" ]] && check_app "$mounted/Vistrel.app"
  else
    mounted=""
    fail "hdiutil could not attach ${images[0]}"
  fi
fi

if ((failures)); then
  echo "check_bundle: $failures check(s) failed" >&2
  exit 1
fi
echo "check_bundle: every check passed"
