#!/usr/bin/env bash
# Builds, then plays a scenario with the runner under Wine:
#   run.sh [--json FILE] [SCENARIO]    (default: scenarios/default.json of this tree)
# A relative SCENARIO or FILE is taken from the current directory; --json also
# writes the run as one JSON document to FILE. Stops this tree's
# wineserver afterwards and exits with the runner's status.
# The runner's account and the plugin's log (from log.dll, beside the plugin)
# come out interleaved, in the order they were written.
# PCP_RUN_TIMEOUT (seconds, default 600) bounds the run.
set -uo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
json=()
if [ "${1:-}" = "--json" ]; then
  if [ -z "${2:-}" ]; then
    echo "run: --json needs a file" >&2
    exit 2
  fi
  report=$(realpath -m "$2")
  json=(--json "Z:${report//\//\\}")
  shift 2
fi
scenario=$(realpath -m "${1:-$root/scenarios/default.json}")
if [ ! -f "$scenario" ]; then
  echo "run: no scenario file $scenario" >&2
  exit 2
fi
bash "$root/scripts/build.sh" || exit

runner=$root/build/bin/OrbhubSim.exe
if [ ! -f "$runner" ]; then
  echo "run: $runner was not built" >&2
  exit 1
fi

stop_wineserver() {
  WINEPREFIX="$root/build/wineprefix" /usr/lib/wine/wineserver -k </dev/null >/dev/null 2>&1 || true
}
trap stop_wineserver EXIT
trap 'exit 130' INT TERM

# The prefix maps drive Z: to /, so the scenario is handed over as Z:\...
PCP_WINE_TIMEOUT=${PCP_RUN_TIMEOUT:-600} PCP_WINE_LIVE=1 PCP_WINE_MERGE=1 \
  "$root/cmake/wine-run.sh" "$root/build/wineprefix" "$runner" "${json[@]}" "Z:${scenario//\//\\}"
