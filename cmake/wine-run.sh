#!/usr/bin/env bash
# Runs a Windows program under wine64 with the given prefix:
#   wine-run.sh PREFIX PROGRAM [ARGS...]
# The program's output goes to temporary files first and is printed when it
# ends. Wine's background processes (wineserver, services.exe) inherit the
# program's descriptors; with files instead of the caller's pipes they can
# never keep a caller such as ctest waiting. A persistent server for this
# prefix lingers 30 s after its last client so that back-to-back runs start
# fast; scripts/test.sh and scripts/run.sh stop it when they finish.
# PCP_WINE_TIMEOUT (seconds, default 110) bounds the run; a run that hits it
# is killed and ends with status 124. PCP_WINE_LIVE=1 shows the program's
# standard output while it runs (its errors still come at the end);
# PCP_WINE_MERGE=1 sends its errors into its output, in the order written
# (the runner and the plugin's log library write to one stream each).
# PCP_WINE_GTEST=1 (set for every test case by CTest) turns a GoogleTest
# program that ends with status 0 without its verdict into a failure.
set -u
prefix=$(realpath -m "$1")
shift
export WINEPREFIX=$prefix WINEARCH=win64 WINEDEBUG=${WINEDEBUG:--all}
wine=/usr/lib/wine/wine64
server=/usr/lib/wine/wineserver
limit=${PCP_WINE_TIMEOUT:-110}
if [ ! -f "$prefix/system.reg" ]; then
  echo "wine-run: no Wine prefix at $prefix (build the 'wineprefix' target first)" >&2
  exit 2
fi
"$server" -p30 </dev/null >/dev/null 2>&1
# The prefix's server runs in a folder named after the prefix's device and
# inode (".../server-<dev>-<inode>"). server_pid gives the oldest process in
# it: a "wineserver -p30" of another run that finds the server running lives
# there for a moment too.
server_folder=server-$(stat -c %D "$prefix")-$(printf %x "$(stat -c %i "$prefix")")
server_pid() {
  local p age oldest=-1 found=
  for p in $(pgrep wineserver); do
    [[ $(readlink "/proc/$p/cwd" 2>/dev/null) == */"$server_folder" ]] || continue
    age=$(ps -o etimes= -p "$p" 2>/dev/null) || continue
    [ "$age" -gt "$oldest" ] && oldest=$age found=$p
  done
  echo "$found"
}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
run() {
  : >"$tmp/out"
  : >"$tmp/err"
  # The server running now is the one the program connects to.
  ours=$(server_pid)
  if [ "${PCP_WINE_MERGE:-0}" = 1 ]; then
    timeout -k 5 "$limit" "$wine" "$@" </dev/null >"$tmp/out" 2>&1 &
  else
    timeout -k 5 "$limit" "$wine" "$@" </dev/null >"$tmp/out" 2>"$tmp/err" &
  fi
  pid=$!
  # timeout leads its own process group: take it down if we are stopped.
  trap 'kill -TERM -- -$pid 2>/dev/null; exit 143' INT TERM
  if [ "${PCP_WINE_LIVE:-0}" = 1 ]; then
    tail -c +1 -s 0.2 --pid=$pid -f "$tmp/out" | tr -d '\r' &
    shown=$!
  fi
  # Now and then the prefix's server ends while a program runs; the
  # program's threads then wait for it forever, even when another run has
  # started a new server meanwhile. The server running at the start (else
  # the one seen 2 s later) is the program's; seen gone twice in a row, 2 s
  # apart (or no server at all), it ends the run (status 125) instead of
  # waiting for the time limit.
  gone=0 rc=
  while [ -z "$rc" ]; do
    if timeout 2 tail --pid=$pid -s 0.1 -f /dev/null; then
      wait $pid
      rc=$?
      continue
    fi
    [ -n "$ours" ] || ours=$(server_pid)
    if [ -n "$ours" ] && [[ $(readlink "/proc/$ours/cwd" 2>/dev/null) == */"$server_folder" ]]; then
      gone=0
    elif [ $((gone += 1)) -ge 2 ]; then
      kill -KILL -- -$pid 2>/dev/null
      wait $pid 2>/dev/null
      rc=125
    fi
  done
}
# The program's server is still the prefix's.
server_alive() {
  [ -n "$ours" ] && [[ $(readlink "/proc/$ours/cwd" 2>/dev/null) == */"$server_folder" ]]
}
# A GoogleTest program that ends with status 0 without its verdict.
no_verdict() {
  [ "${PCP_WINE_GTEST:-0}" = 1 ] && [ $rc -eq 0 ] && ! grep -qE '^\[  (PASSED  |SKIPPED )\]' "$tmp/out"
}
run "$@"
# A run whose server ended under it runs once more, on a new server: one
# seen gone while the program ran (125), or one gone after a run that
# failed or broke off (a program whose server ends mostly ends at once,
# with status 0, in the middle of what it did). A GoogleTest program shows
# that by its missing verdict; any other, a benchmark's figures, cannot, so
# its status 0 is trusted only while its server lives.
if [ $rc -eq 125 ] || { { { [ $rc -ne 0 ] && [ $rc -ne 124 ]; } || no_verdict || { [ $rc -eq 0 ] && [ "${PCP_WINE_GTEST:-0}" != 1 ]; }; } && [ -n "$ours" ] && ! server_alive; }; then
  [ -n "${shown:-}" ] && wait "$shown"
  shown=
  "$server" -p30 </dev/null >/dev/null 2>&1
  run "$@"
  echo "wine-run: the Wine server of the prefix ended while $1 ran; it was run again" >>"$tmp/err"
fi
# PCP_WINE_GTEST=1: a GoogleTest program that ends with status 0 but never
# printed its verdict (the process ended in the middle of a case) failed.
# Under load Wine now and then ends a program at its start, before it has
# written anything (GoogleTest's first line comes before any case), with
# status 0 or another, its server still running: nothing of the test ran,
# so it runs once more.
if [ "${PCP_WINE_GTEST:-0}" = 1 ] && [ $rc -ne 124 ] && [ ! -s "$tmp/out" ]; then
  [ -n "${shown:-}" ] && wait "$shown"
  shown=
  first=$rc
  run "$@"
  echo "wine-run: $1 wrote nothing and ended with status $first at its first start; it was run again" >>"$tmp/err"
fi
[ $rc -eq 124 ] && echo "wine-run: $1 timed out after $limit s" >>"$tmp/err"
if no_verdict; then
  echo "wine-run: $1 ended with status 0 before GoogleTest gave its verdict" >>"$tmp/err"
  rc=1
fi
if [ -n "${shown:-}" ]; then
  wait "$shown"
else
  tr -d '\r' <"$tmp/out"
fi
tr -d '\r' <"$tmp/err" >&2
exit $rc
