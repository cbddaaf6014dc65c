#!/usr/bin/env bash
# Creates the Wine prefix PREFIX once (wineboot), waits for its server to end
# and touches STAMP. Safe to call concurrently: the first caller creates it.
set -eu
prefix=$1
stamp=$2
export WINEPREFIX=$prefix WINEARCH=win64 WINEDEBUG=-all
mkdir -p "$(dirname "$prefix")"
exec 9>"$prefix.lock"
flock 9
if [ ! -f "$prefix/system.reg" ]; then
  echo "Creating Wine prefix $prefix (once per build tree)"
  /usr/lib/wine/wine64 wineboot -i </dev/null >"$prefix.log" 2>&1 || { cat "$prefix.log" >&2; exit 1; }
  /usr/lib/wine/wineserver -w </dev/null >/dev/null 2>&1 || true
fi
touch "$stamp"
