#!/usr/bin/env bash
# Creates the Wine prefix PREFIX once (wineboot), waits for its server to end
# and touches STAMP:
#   wine-prefix.sh PREFIX STAMP
# Safe to call concurrently: the first caller creates it, the others wait.
# A failed creation leaves no prefix behind, so the next build tries again.
set -eu
prefix=$(realpath -m "$1")
stamp=$2
export WINEPREFIX=$prefix WINEARCH=win64 WINEDEBUG=-all
mkdir -p "$(dirname "$prefix")"
exec 9>"$prefix.lock"
flock 9
if [ ! -f "$prefix/system.reg" ]; then
  echo "Creating Wine prefix $prefix (once per build tree)"
  if ! timeout -k 10 300 /usr/lib/wine/wine64 wineboot -i </dev/null >"$prefix.log" 2>&1; then
    cat "$prefix.log" >&2
    /usr/lib/wine/wineserver -k </dev/null >/dev/null 2>&1 || true
    rm -rf "$prefix"
    echo "wine-prefix: wineboot failed" >&2
    exit 1
  fi
  /usr/lib/wine/wineserver -w </dev/null >/dev/null 2>&1 || true
fi
touch "$stamp"
