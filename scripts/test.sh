#!/usr/bin/env bash
# Builds, then runs every test with ctest (arguments go to ctest, e.g.
# -R Factory) twice: against the shipped build (clang, build/) and against
# the checked build (GCC with undefined behaviour trapping and libstdc++
# assertions, build-gcc/). PCP_CHECKED_SUITE=0 skips the second. Stops each
# tree's wineserver afterwards; exits with 0 when both suites passed.
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

# Cases start on a fresh Wine server: one left from an earlier run was once
# seen to run a test from before the rebuild.
stop_wineservers
cd "$root"
ctest --preset mingw "$@"
status=$?
if [ "${PCP_CHECKED_SUITE:-1}" != 0 ]; then
  echo "== the checked build (GCC, undefined behaviour trapping, libstdc++ assertions)"
  { [ -f build-gcc/build.ninja ] || cmake --preset gcc; } && cmake --build --preset gcc && ctest --preset gcc "$@"
  checked=$?
  [ $status -ne 0 ] || status=$checked
fi
exit $status
