# Checks of an installed Vistrel, shared by check_deb.sh and check_prefix.sh (sourced, bash).
# Each check prints what it found wrong and counts it in $failures; nothing stops at the first.

failures=0

# with_timeout <seconds> <command...>: coreutils' timeout where there is one (Linux), else perl's
# alarm (macOS has no timeout command by default).
with_timeout() {
  local seconds=$1
  shift
  if command -v timeout >/dev/null 2>&1; then
    timeout "$seconds" "$@"
  else
    perl -e 'alarm shift; exec @ARGV or exit 127' "$seconds" "$@"
  fi
}
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}
pass() { echo "ok: $*"; }

# The files below <root>, one relative path a line, sorted (directories left out).
files_below() { (cd "$1" && find . -type f -o -type l | sed 's|^\./||' | LC_ALL=C sort); }

# expect_files <root> <expected paths...>: the tree holds exactly these files, nothing more.
expect_files() {
  local root=$1
  shift
  local expected actual
  expected=$(printf '%s\n' "$@" | LC_ALL=C sort)
  actual=$(files_below "$root")
  if [[ "$expected" == "$actual" ]]; then
    pass "exactly the expected $# files under ${root##*/}"
  else
    fail "files under $root differ from the expected ones (< expected, > found):"
    diff <(echo "$expected") <(echo "$actual") | grep '^[<>]' >&2
  fi
}

# expect_mode <file> <octal mode>
expect_mode() {
  local mode
  mode=$(stat -c '%a' "$1")
  [[ "$mode" == "$2" ]] && pass "${1##*/} has mode $2" || fail "$1 has mode $mode, not $2"
}

# expect_png_size <file> <pixels>: a PNG whose header says <pixels> x <pixels>.
expect_png_size() {
  local bytes
  bytes=$(od -An -tu1 -N24 "$1" | tr -s ' \n' ' ')
  read -r -a b <<<"$bytes"
  local w=$(((b[16] << 24) | (b[17] << 16) | (b[18] << 8) | b[19]))
  local h=$(((b[20] << 24) | (b[21] << 16) | (b[22] << 8) | b[23]))
  if [[ "${b[1]} ${b[2]} ${b[3]}" != "80 78 71" ]]; then
    fail "$1 is not a PNG"
  elif [[ $w -ne $2 || $h -ne $2 ]]; then
    fail "$1 is ${w}x${h}, not ${2}x${2}"
  else
    pass "${1#"$root"/} is ${2}x${2}"
  fi
}

# expect_no_runpath <elf>: nothing of the build folder is baked into an installed binary.
expect_no_runpath() {
  if readelf -d "$1" | grep -Eq '\((RPATH|RUNPATH)\)'; then
    fail "$1 carries a run path: $(readelf -d "$1" | grep -E 'RPATH|RUNPATH')"
  else
    pass "${1##*/} has no run path"
  fi
}

# check_desktop_files <root> <prefix> <installed binary, as the desktop sees it>
check_desktop_files() {
  local root=$1 prefix=$2 binary=$3
  local desktop=$root$prefix/share/applications/org.brackwood.vistrel.desktop
  local metainfo=$root$prefix/share/metainfo/org.brackwood.vistrel.metainfo.xml
  local unit=$root$prefix/lib/systemd/user/vistrel.service

  if desktop-file-validate "$desktop"; then pass "desktop-file-validate"; else
    fail "desktop-file-validate $desktop"; fi
  if appstreamcli validate --no-net "$metainfo"; then pass "appstreamcli validate"; else
    fail "appstreamcli validate $metainfo"; fi

  local exec icon
  exec=$(sed -n 's/^Exec=//p' "$desktop")
  icon=$(sed -n 's/^Icon=//p' "$desktop")
  [[ "$exec" == "$binary" ]] && pass "the desktop entry starts $binary" ||
    fail "the desktop entry's Exec is '$exec', not '$binary'"
  [[ -f "$root$prefix/share/icons/hicolor/scalable/apps/$icon.svg" ]] &&
    pass "the desktop entry's icon '$icon' is installed" ||
    fail "the desktop entry's icon '$icon' is not in the hicolor theme"
  grep -q "<launchable type=\"desktop-id\">${desktop##*/}</launchable>" "$metainfo" &&
    pass "the metadata launches ${desktop##*/}" ||
    fail "the metadata does not name ${desktop##*/} as its launchable"
  grep -q '@[A-Z_]*@' "$desktop" "$metainfo" "$unit" &&
    fail "a template placeholder was left in the installed files"

  grep -qx "ExecStart=$binary" "$unit" && pass "the service starts $binary" ||
    fail "the service does not start $binary: $(grep ExecStart "$unit")"
  grep -qx 'Environment=VISTREL_HEADLESS=1' "$unit" && pass "the service runs headless" ||
    fail "the service does not ask for the headless application"
  grep -qx 'WantedBy=default.target' "$unit" && pass "the service can be enabled" ||
    fail "the service has no [Install] target"
  if command -v systemd-analyze >/dev/null 2>&1; then
    # Verified as installed, its executable resolved inside the root.
    local copy
    copy=$(mktemp -d)/vistrel.service
    sed "s|^ExecStart=$binary|ExecStart=$root$prefix/bin/vistrel|" "$unit" >"$copy"
    if XDG_RUNTIME_DIR=${copy%/*} systemd-analyze verify "$copy"; then
      pass "systemd-analyze verify"
    else
      fail "systemd-analyze verify $unit"
    fi
    rm -rf "${copy%/*}"
  fi
}

readonly kInitialize='{"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18","capabilities":{},"clientInfo":{"name":"package-test","version":"1"}}}'
readonly kInitialized='{"jsonrpc":"2.0","method":"notifications/initialized"}'
readonly kToolsList='{"jsonrpc":"2.0","id":2,"method":"tools/list"}'

# check_runs <binary> <scratch folder>: the installed executable serves MCP, runs the headless
# application from its installed module, and says clearly when the module is gone.
check_runs() {
  local binary=$1 scratch=$2
  local home=$scratch/home
  mkdir -p "$home"
  # No display, no inherited settings: what a server's service or an SSH session has.
  local -a env=(env -i "HOME=$home" "PATH=/usr/bin:/bin")

  local out
  out=$(printf '%s\n%s\n%s\n' "$kInitialize" "$kInitialized" "$kToolsList" |
    with_timeout 30 "${env[@]}" "$binary" --mcp 2>"$scratch/mcp.err")
  local status=$?
  [[ $status -eq 0 ]] && pass "--mcp ended cleanly" ||
    fail "--mcp exited with $status: $(cat "$scratch/mcp.err")"
  grep -q '"id":1' <<<"$out" && grep -q '"serverInfo"' <<<"$out" &&
    pass "--mcp answers initialize" || fail "--mcp did not answer initialize: $out"
  local tool
  for tool in status list_apps get_app history agents alerts quit_app; do
    grep -q "\"name\":\"$tool\"" <<<"$out" || fail "tools/list lacks $tool: $out"
  done
  grep -q '"id":2' <<<"$out" && pass "--mcp lists the seven tools" ||
    fail "--mcp did not answer tools/list"

  with_timeout 60 "${env[@]}" VISTREL_TEST_QUIT=1 VISTREL_HEADLESS=1 "$binary" \
    >"$scratch/app.out" 2>"$scratch/app.err" </dev/null
  status=$?
  [[ $status -eq 0 ]] && pass "the headless application ran and quit" ||
    fail "the headless application exited with $status: $(cat "$scratch/app.err")"
  grep -q 'running without a window' "$scratch/app.err" ||
    fail "the headless application did not say it runs: $(cat "$scratch/app.err")"
  local support=$home/.local/share/Vistrel
  [[ "$(uname -s)" == Darwin ]] && support="$home/Library/Application Support/Vistrel"
  [[ -f "$support/history.sqlite" ]] &&
    pass "the headless application kept its history in HOME" ||
    fail "no history.sqlite in $support"
}

# check_missing_module <binary> <module> <scratch>: with its module moved away, the application
# names where it looked (beside itself and ../lib/vistrel) and the light modes still work.
check_missing_module() {
  local binary=$1 module=$2 scratch=$3
  mv "$module" "$module.away"
  local err status
  err=$(with_timeout 30 env -i "HOME=$scratch/home" "PATH=/usr/bin:/bin" "$binary" 2>&1 </dev/null)
  status=$?
  mv "$module.away" "$module"
  [[ $status -eq 1 ]] && pass "without its module the application stops with status 1" ||
    fail "without its module the application exited with $status"
  local dir=${binary%/*}
  grep -qF "$dir/../lib/vistrel/${module##*/}: not there" <<<"$err" &&
    pass "the error names ../lib/vistrel" || fail "the error does not name ../lib/vistrel: $err"
}
