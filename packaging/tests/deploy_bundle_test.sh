#!/usr/bin/env bash
# The bundle's deployment step (macOS) run here with stand-ins for otool and install_name_tool: a
# stand-in "binary" is a text file listing the libraries it links (its own install name on an
# "ID" line). Checks that libraries from outside the system are copied into
# Contents/Frameworks together with what they link in turn, that every reference to them is
# rewritten into the bundle while the system's are left alone, that the originals are never
# touched, and that a missing library stops the install with its name.
set -uo pipefail
here=$(cd "${0%/*}" && pwd)
source "$here/installed_checks.sh"
deploy=$here/../macos/deploy_bundle.cmake

work=$(mktemp -d /tmp/vistrel-deploy-XXXXXX)
trap 'rm -rf "$work"' EXIT
tools=$work/tools
mkdir -p "$tools"
cat >"$tools/otool" <<'TOOL'
#!/usr/bin/env bash
[[ "$1" == -L && -f "$2" ]] || exit 1
echo "$2:"
while read -r name; do
  printf '\t%s (compatibility version 1.0.0, current version 1.0.0)\n' "${name#ID }"
done <"$2"
TOOL
cat >"$tools/install_name_tool" <<'TOOL'
#!/usr/bin/env bash
case "$1" in
  -id) awk -v new="$2" '{ print (/^ID / ? "ID " new : $0) }' "$3" >"$3.new" && mv "$3.new" "$3" ;;
  -change) awk -v old="$2" -v new="$3" '{ print ($0 == old ? new : $0) }' "$4" >"$4.new" &&
    mv "$4.new" "$4" ;;
  *) exit 2 ;;
esac
TOOL
chmod +x "$tools/otool" "$tools/install_name_tool"

brew=$work/homebrew
simdjson=$brew/opt/simdjson/lib/libsimdjson.19.dylib
zstd=$brew/opt/zstd/lib/libzstd.1.dylib
# Homebrew's opt/ links point into its Cellar.
mkdir -p "$brew/Cellar/simdjson/3.9/lib" "$brew/Cellar/zstd/1.5/lib" "$brew/opt"
ln -s ../Cellar/simdjson/3.9 "$brew/opt/simdjson"
ln -s ../Cellar/zstd/1.5 "$brew/opt/zstd"
printf '%s\n' "ID $simdjson" "$zstd" /usr/lib/libc++.1.dylib >"$simdjson"
printf '%s\n' "ID $zstd" /usr/lib/libSystem.B.dylib >"$zstd"

# make_bundle <bundle> <extra library the module links, or "">
make_bundle() {
  local bundle=$1
  mkdir -p "$bundle/Contents/MacOS" "$bundle/Contents/Frameworks"
  printf '%s\n' /usr/lib/libSystem.B.dylib /usr/lib/libc++.1.dylib >"$bundle/Contents/MacOS/Vistrel"
  printf '%s\n' "$simdjson" /usr/lib/libsqlite3.dylib \
    /System/Library/Frameworks/Foundation.framework/Versions/C/Foundation ${2:+"$2"} \
    >"$bundle/Contents/Frameworks/libvistrel-application.so"
}
deploy() {
  PATH="$tools:$PATH" cmake -DVISTREL_BUNDLE="$1" -DVISTREL_MACDEPLOYQT= \
    -DVISTREL_CODESIGN_IDENTITY= -P "$deploy" >"$work/deploy.log" 2>&1
}

app=$work/ok/Vistrel.app
make_bundle "$app" ""
originals=$(cat "$simdjson" "$zstd")
if deploy "$app"; then pass "the deployment ran"; else fail "the deployment failed: $(cat "$work/deploy.log")"; fi
frameworks=$app/Contents/Frameworks
root=$work/ok
expect_files "$root" Vistrel.app/Contents/MacOS/Vistrel \
  Vistrel.app/Contents/Frameworks/libvistrel-application.so \
  Vistrel.app/Contents/Frameworks/libsimdjson.19.dylib \
  Vistrel.app/Contents/Frameworks/libzstd.1.dylib
expect_lines() {
  local file=$1
  shift
  if [[ "$(cat "$file")" == "$(printf '%s\n' "$@")" ]]; then
    pass "${file#"$work"/} links what it should"
  else
    fail "${file#"$work"/} holds:"$'\n'"$(cat "$file")"$'\n'"expected:"$'\n'"$(printf '%s\n' "$@")"
  fi
}
inside=@executable_path/../Frameworks
expect_lines "$frameworks/libvistrel-application.so" "$inside/libsimdjson.19.dylib" \
  /usr/lib/libsqlite3.dylib /System/Library/Frameworks/Foundation.framework/Versions/C/Foundation
expect_lines "$frameworks/libsimdjson.19.dylib" "ID $inside/libsimdjson.19.dylib" \
  "$inside/libzstd.1.dylib" /usr/lib/libc++.1.dylib
expect_lines "$frameworks/libzstd.1.dylib" "ID $inside/libzstd.1.dylib" /usr/lib/libSystem.B.dylib
expect_lines "$app/Contents/MacOS/Vistrel" /usr/lib/libSystem.B.dylib /usr/lib/libc++.1.dylib
[[ "$(cat "$simdjson" "$zstd")" == "$originals" ]] && pass "Homebrew's files are untouched" ||
  fail "the deployment changed the original libraries"

# A library that is not there: the install stops and names it.
broken=$work/broken/Vistrel.app
make_bundle "$broken" "$brew/opt/gone/lib/libgone.1.dylib"
if deploy "$broken"; then
  fail "the deployment accepted a missing library"
elif tr -s ' \n' ' ' <"$work/deploy.log" | grep -q 'libgone.1.dylib, which is not there'; then
  pass "a missing library stops the deployment with its name"
else
  fail "the deployment failed without naming the missing library: $(cat "$work/deploy.log")"
fi

if ((failures)); then
  echo "deploy_bundle_test: $failures check(s) failed" >&2
  exit 1
fi
echo "deploy_bundle_test: every check passed"
