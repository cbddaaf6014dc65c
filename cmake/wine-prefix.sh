#!/usr/bin/env bash
# Creates the Wine prefix PREFIX once (wineboot), waits for its server to end
# and touches STAMP:
#   wine-prefix.sh PREFIX STAMP
# Safe to call concurrently: the first caller creates it, the others wait.
# A failed creation is tried again up to three times and leaves no prefix
# behind, so the next build tries again too.
set -eu
prefix=$(realpath -m "$1")
stamp=$2
export WINEPREFIX=$prefix WINEARCH=win64 WINEDEBUG=-all
mkdir -p "$(dirname "$prefix")"
exec 9>"$prefix.lock"
flock 9
if [ ! -f "$prefix/system.reg" ]; then
  echo "Creating Wine prefix $prefix (once per build tree)"
  # "wine64 wineboot -i" runs as start.exe /exec wineboot -i once the new
  # prefix is booted. Now and then start.exe's CreateProcess of wineboot.exe
  # fails with STATUS_INTERNAL_ERROR ("ShellExecuteEx failed: Internal
  # error"): Wine's answer when the new process ended before it was up. The
  # "failed to open ...syswow64\rundll32.exe" line before it comes with every
  # creation (no 32-bit Wine). A new attempt on an empty folder succeeds.
  # Three attempts at most.
  for attempt in 1 2 3; do
    if timeout -k 10 300 /usr/lib/wine/wine64 wineboot -i </dev/null >"$prefix.log" 2>&1; then
      break
    fi
    cat "$prefix.log" >&2
    /usr/lib/wine/wineserver -k </dev/null >/dev/null 2>&1 || true
    rm -rf "$prefix"
    if [ "$attempt" = 3 ]; then
      echo "wine-prefix: wineboot failed three times" >&2
      exit 1
    fi
    echo "wine-prefix: wineboot failed (attempt $attempt of 3), trying again" >&2
  done
  /usr/lib/wine/wineserver -w </dev/null >/dev/null 2>&1 || true
fi
touch "$stamp"
