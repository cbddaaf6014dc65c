#!/usr/bin/env bash
# Builds, then runs every test with ctest (arguments go to ctest, e.g.
# -R Factory). Stops this tree's wineserver afterwards and exits with
# ctest's status.
set -uo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/build.sh" || exit

stop_wineserver() {
  WINEPREFIX="$root/build/wineprefix" /usr/lib/wine/wineserver -k </dev/null >/dev/null 2>&1 || true
}
trap stop_wineserver EXIT
trap 'exit 130' INT TERM

# Cases start on a fresh Wine server: one left from an earlier run was once
# seen to run a test from before the rebuild.
stop_wineserver
cd "$root"
ctest --preset mingw "$@"
