#!/usr/bin/env bash
# Checks the built .deb packages as a machine would receive them: unpacks them with `dpkg -x` into
# a temporary root, checks every file and each package's dependencies, validates the desktop
# entry, metadata and service, and runs the installed executable: `--mcp`, the headless
# application, and the application without its module.
#
# Usage: check_deb.sh <folder holding the packages>
set -uo pipefail
here=$(cd "${0%/*}" && pwd)
source "$here/installed_checks.sh"

folder=${1:?usage: check_deb.sh <folder holding the .deb packages>}
shopt -s nullglob
core=("$folder"/vistrel_*.deb)
ui=("$folder"/vistrel-ui_*.deb)
if [[ ${#core[@]} -ne 1 ]]; then
  echo "check_deb: expected one vistrel_*.deb in $folder, found ${#core[@]} (run make package)" >&2
  exit 1
fi

scratch=$(mktemp -d /tmp/vistrel-deb-XXXXXX)
trap 'rm -rf "$scratch"' EXIT
root=$scratch/root

# direct_libraries <elf>: the files of the libraries it names itself (NEEDED), as the loader
# finds them; what those need in turn is their own packages' business.
direct_libraries() {
  local resolved soname
  resolved=$(ldd "$1")
  while read -r soname; do
    # ldd writes "name => path", or the dynamic loader by its path alone; "?<name>" when the
    # loader cannot find the library at all.
    awk -v name="$soname" '
      $1 == name && $2 == "=>" { found = 1; print ($3 ~ /^\// ? $3 : "?" name); next }
      $1 ~ /^\// { n = split($1, part, "/"); if (part[n] == name) { found = 1; print $1 } }
      END { if (!found) print "?" name }' <<<"$resolved"
  done < <(readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
}

# dependencies_cover <package file> <elf files...>: every shared library the files need belongs
# to a package named in Depends (dpkg-shlibdeps did its work), and no Qt package is named unless
# one of the files needs Qt.
dependencies_cover() {
  local deb=$1
  shift
  local depends names
  depends=$(dpkg-deb -f "$deb" Depends)
  # The package names alone, one a line: "libc6 (>= 2.36), libfoo | libbar" -> libc6 libfoo libbar
  names=$(tr ',|' '\n\n' <<<"$depends" | sed 's/(.*)//; s/^ *//; s/ *$//')
  local elf library owner candidate needs_qt=no before=$failures
  for elf in "$@"; do
    while read -r library; do
      [[ "$library" == *libQt* ]] && needs_qt=yes
      if [[ "$library" == \?* ]]; then
        fail "${elf##*/} needs ${library#\?}, which the loader cannot find here"
        continue
      fi
      # dpkg knows each file by the path its package gave it; with a merged /usr that may be the
      # /lib path ldd printed, the same under /usr, or the file the link points to.
      owner=""
      for candidate in "$library" "/usr$library" "$(readlink -f "$library")"; do
        owner=$(dpkg -S "$candidate" 2>/dev/null | head -1 | cut -d: -f1)
        [[ -n "$owner" ]] && break
      done
      if [[ -z "$owner" ]]; then
        fail "${elf##*/} needs $library, which no installed package holds"
      elif ! grep -qxF "$owner" <<<"$names"; then
        fail "${deb##*/} does not depend on $owner, which ${elf##*/} needs for $library"
      fi
    done < <(direct_libraries "$elf")
  done
  if [[ $needs_qt == no ]] && grep -qi '^libqt' <<<"$names"; then
    fail "${deb##*/} depends on Qt without needing it: $depends"
  fi
  ((failures == before)) && pass "${deb##*/} depends on what its files link: $depends"
}

mkdir -p "$root"
dpkg -x "${core[0]}" "$root"
expected=(
  usr/bin/vistrel
  usr/lib/vistrel/libvistrel-application.so
  usr/lib/systemd/user/vistrel.service
  usr/share/applications/org.brackwood.vistrel.desktop
  usr/share/metainfo/org.brackwood.vistrel.metainfo.xml
  usr/share/icons/hicolor/scalable/apps/org.brackwood.vistrel.svg
)
sizes=(16 24 32 48 64 128 256 512)
for size in "${sizes[@]}"; do
  expected+=("usr/share/icons/hicolor/${size}x${size}/apps/org.brackwood.vistrel.png")
done
expect_files "$root" "${expected[@]}"
expect_mode "$root/usr/bin/vistrel" 755
expect_mode "$root/usr/lib/vistrel/libvistrel-application.so" 644
for size in "${sizes[@]}"; do
  expect_png_size "$root/usr/share/icons/hicolor/${size}x${size}/apps/org.brackwood.vistrel.png" "$size"
done
expect_no_runpath "$root/usr/bin/vistrel"
expect_no_runpath "$root/usr/lib/vistrel/libvistrel-application.so"
# The executable carries its own C++ runtime, so the light modes never load the shared one.
if readelf -d "$root/usr/bin/vistrel" | grep -q 'NEEDED.*libstdc++'; then
  fail "the installed executable needs the shared libstdc++"
fi
dependencies_cover "${core[0]}" "$root/usr/bin/vistrel" "$root/usr/lib/vistrel/libvistrel-application.so"
[[ "$(dpkg-deb -f "${core[0]}" Package)" == vistrel ]] || fail "the core package is not named vistrel"

check_desktop_files "$root" /usr /usr/bin/vistrel
# Software centres show the metadata's newest release: it must be this package's version.
upstream=$(dpkg-deb -f "${core[0]}" Version)
upstream=${upstream%-*}
grep -q "<release version=\"$upstream\"" "$root/usr/share/metainfo/org.brackwood.vistrel.metainfo.xml" &&
  pass "the metadata's release is $upstream" || fail "the metadata does not name release $upstream"
check_runs "$root/usr/bin/vistrel" "$scratch"
check_missing_module "$root/usr/bin/vistrel" "$root/usr/lib/vistrel/libvistrel-application.so" "$scratch"

if [[ ${#ui[@]} -eq 1 ]]; then
  # The interface: one module beside the application's, depending on this very vistrel and on
  # the Qt it links; the core package recommends it rather than needing it.
  uiroot=$scratch/uiroot
  mkdir -p "$uiroot"
  dpkg -x "${ui[0]}" "$uiroot"
  expect_files "$uiroot" usr/lib/vistrel/libvistrel-ui.so
  expect_mode "$uiroot/usr/lib/vistrel/libvistrel-ui.so" 644
  expect_no_runpath "$uiroot/usr/lib/vistrel/libvistrel-ui.so"
  dependencies_cover "${ui[0]}" "$uiroot/usr/lib/vistrel/libvistrel-ui.so"
  version=$(dpkg-deb -f "${core[0]}" Version)
  grep -qF "vistrel (= $version)" <<<"$(dpkg-deb -f "${ui[0]}" Depends)" ||
    fail "vistrel-ui does not depend on vistrel (= $version)"
  grep -qw 'vistrel-ui' <<<"$(dpkg-deb -f "${core[0]}" Recommends)" ||
    fail "vistrel does not recommend vistrel-ui"
elif [[ ${#ui[@]} -gt 1 ]]; then
  fail "more than one vistrel-ui package in $folder"
else
  echo "note: no vistrel-ui package (this build has no user interface)"
fi

if ((failures)); then
  echo "check_deb: $failures check(s) failed" >&2
  exit 1
fi
echo "check_deb: every check passed"
