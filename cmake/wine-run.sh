#!/usr/bin/env bash
# Runs a Windows program under wine64 with the given prefix:
#   wine-run.sh PREFIX PROGRAM [ARGS...]
# The program's output goes to temporary files first and is printed when it
# ends. Wine's background processes (wineserver, services.exe) inherit the
# program's descriptors; with files instead of the caller's pipes they can
# never keep a caller such as ctest waiting. A persistent server for this
# prefix lingers 30 s after its last client so that back-to-back runs start
# fast. PCP_WINE_TIMEOUT (seconds, default 110) bounds the run.
set -u
prefix=$1
shift
export WINEPREFIX=$prefix WINEARCH=win64 WINEDEBUG=${WINEDEBUG:--all}
wine=/usr/lib/wine/wine64
server=/usr/lib/wine/wineserver
if [ ! -f "$prefix/system.reg" ]; then
  echo "wine-run: no Wine prefix at $prefix (build the 'wineprefix' target first)" >&2
  exit 2
fi
"$server" -p30 </dev/null >/dev/null 2>&1
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
timeout -k 5 "${PCP_WINE_TIMEOUT:-110}" "$wine" "$@" </dev/null >"$tmp/out" 2>"$tmp/err"
rc=$?
[ $rc -eq 124 ] && echo "wine-run: $1 timed out after ${PCP_WINE_TIMEOUT:-110} s" >>"$tmp/err"
tr -d '\r' <"$tmp/out"
tr -d '\r' <"$tmp/err" >&2
exit $rc
