#!/usr/bin/env bash
# Checks `cmake --install` into a prefix of one's own (an /opt-style install): the core component
# alone gives a complete headless Vistrel whose desktop entry and service name the executable
# where it was installed, and the executable finds its module in <prefix>/lib/vistrel.
#
# Usage: check_prefix.sh <build folder>
set -uo pipefail
here=$(cd "${0%/*}" && pwd)
source "$here/installed_checks.sh"

build=${1:?usage: check_prefix.sh <build folder>}
scratch=$(mktemp -d /tmp/vistrel-prefix-XXXXXX)
trap 'rm -rf "$scratch"' EXIT
root=$scratch/root
prefix=/opt/vistrel
mkdir -p "$root"

# Into a staging root, as a package build would, with the prefix the files will live under.
if ! DESTDIR=$root cmake --install "$build" --prefix "$prefix" --component core >"$scratch/install.log" 2>&1; then
  cat "$scratch/install.log" >&2
  echo "check_prefix: cmake --install failed" >&2
  exit 1
fi
expected=(
  opt/vistrel/bin/vistrel
  opt/vistrel/lib/vistrel/libvistrel-application.so
  opt/vistrel/lib/systemd/user/vistrel.service
  opt/vistrel/share/applications/org.brackwood.vistrel.desktop
  opt/vistrel/share/metainfo/org.brackwood.vistrel.metainfo.xml
  opt/vistrel/share/icons/hicolor/scalable/apps/org.brackwood.vistrel.svg
)
for size in 16 24 32 48 64 128 256 512; do
  expected+=("opt/vistrel/share/icons/hicolor/${size}x${size}/apps/org.brackwood.vistrel.png")
done
expect_files "$root" "${expected[@]}"
check_desktop_files "$root" "$prefix" "$prefix/bin/vistrel"

# Run where it was staged: the module is found relative to the executable, not at the prefix.
check_runs "$root$prefix/bin/vistrel" "$scratch"
check_missing_module "$root$prefix/bin/vistrel" "$root$prefix/lib/vistrel/libvistrel-application.so" "$scratch"

# The interface component holds the interface module and nothing else.
uiroot=$scratch/uiroot
mkdir -p "$uiroot"
DESTDIR=$uiroot cmake --install "$build" --prefix "$prefix" --component ui >/dev/null 2>&1
if [[ -n "$(files_below "$uiroot")" ]]; then
  expect_files "$uiroot" opt/vistrel/lib/vistrel/libvistrel-ui.so
else
  echo "note: the ui component is empty (this build has no user interface)"
fi

if ((failures)); then
  echo "check_prefix: $failures check(s) failed" >&2
  exit 1
fi
echo "check_prefix: every check passed"
