#!/usr/bin/env bash
# Installs what is missing, configures build/ with the mingw preset (once)
# and builds the DLL, the runner, the tests and the Wine prefix.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/deps.sh"
cd "$root"
[ -f build/build.ninja ] || cmake --preset mingw
cmake --build --preset mingw
