#!/usr/bin/env bash
# The long fault sweep: every call of every fallible import of the plugin,
# the allocator's included, failed in turn, transient and persistent, one
# whole life each (the CI run takes a sample of the allocator's calls).
# Prints each function's calls in a life and lives run; exits with the
# test's status.
set -uo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/build.sh" || exit
stop_wineserver() {
  WINEPREFIX="$root/build/wineprefix" /usr/lib/wine/wineserver -k </dev/null >/dev/null 2>&1 || true
}
trap stop_wineserver EXIT
cd "$root/build/bin"
PCP_FAULT_SWEEP=full PCP_WINE_TIMEOUT=${PCP_WINE_TIMEOUT:-7200} \
  bash "$root/cmake/wine-run.sh" "$root/build/wineprefix" ./fault_sweep_test.exe --gtest_also_run_disabled_tests
