#!/usr/bin/env bash
# Builds, then runs every test with ctest (arguments go to ctest, e.g.
# -R Factory) twice: against the shipped build (clang, build/) and against
# the checked build (GCC with undefined behaviour trapping and libstdc++
# assertions, build-gcc/). PCP_CHECKED_SUITE=0 skips the second. Stops each
# tree's wineserver afterwards; exits with 0 when both suites passed.
# Each suite runs on one Wine server that this script starts and owns: a
# server that ends before the suite does is reported with its status.
set -uo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/build.sh" || exit

stop_wineservers() {
  for tree in build build-gcc; do
    WINEPREFIX="$root/$tree/wineprefix" /usr/lib/wine/wineserver -k </dev/null >/dev/null 2>&1 || true
  done
}
trap stop_wineservers EXIT
trap 'exit 130' INT TERM

# Starts the tree's server in the foreground of a background job (-f) and
# persistent (-p), so that it lives from the suite's first case to its last
# and its end, if it comes early, has a status to show.
start_wineserver() {
  WINEPREFIX="$root/$1/wineprefix" /usr/lib/wine/wineserver -f -p </dev/null >"$root/$1/wineserver.log" 2>&1 &
  server_pid=$!
}
# After a suite: says so when its server ended under it.
check_wineserver() {
  if ! kill -0 "$server_pid" 2>/dev/null; then
    wait "$server_pid"
    echo "test: the Wine server of $1/ ended during the suite with status $? (its output: $1/wineserver.log)" >&2
  fi
}

# Cases start on a fresh Wine server: one left from an earlier run was once
# seen to run a test from before the rebuild.
stop_wineservers
cd "$root"
start_wineserver build
ctest --preset mingw "$@"
status=$?
check_wineserver build
if [ "${PCP_CHECKED_SUITE:-1}" != 0 ]; then
  echo "== the checked build (GCC, undefined behaviour trapping, libstdc++ assertions)"
  server_pid=
  { [ -f build-gcc/build.ninja ] || cmake --preset gcc; } && cmake --build --preset gcc && start_wineserver build-gcc && ctest --preset gcc "$@"
  checked=$?
  [ -z "${server_pid:-}" ] || check_wineserver build-gcc
  [ $status -ne 0 ] || status=$checked
fi
exit $status
