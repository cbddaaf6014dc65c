#!/usr/bin/env bash
# The long fault sweep: every call of every fallible import of the plugin,
# the allocator's included, failed in turn, transient and persistent, one
# whole life each (CI runs a sample). Prints each function's calls in a life
# and the lives run; exits with the test's status. The prefix's wineserver
# ends by itself half a minute after the run.
set -uo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/build.sh" || exit
cd "$root/build/bin"
PCP_FAULT_SWEEP=full PCP_WINE_TIMEOUT=${PCP_WINE_TIMEOUT:-7200} \
  bash "$root/cmake/wine-run.sh" "$root/build/wineprefix" ./fault_sweep_test.exe --gtest_also_run_disabled_tests
