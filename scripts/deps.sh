#!/usr/bin/env bash
# Installs what the build and the tests need and is missing, on Debian 12
# (as root). Does nothing, not even apt-get update, when all is present.
set -euo pipefail

packages=(
  cmake ninja-build
  clang-16 lld-16 llvm-16       # the shipped build: clang, ld.lld writing the PDB, llvm-pdbutil,
                                # llvm-symbolizer; also the host built for Microsoft's C++ ABI
  g++-mingw-w64-x86-64-posix    # libstdc++ and headers for the build; GCC, the second compiler
  binutils-mingw-w64-x86-64     # x86_64-w64-mingw32-windres, -objdump
  mingw-w64-x86-64-dev          # Windows headers and import libraries
  wine64                        # /usr/lib/wine/wine64, wineserver
  picojson-dev googletest
  coreutils util-linux          # timeout, realpath, mktemp; flock
  zip                           # scripts/package.sh
  python3                       # cmake/coff_code_section_symbols.py, run on the build's copy of libstdc++.a
)

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
  [ "$status" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "deps: missing ${missing[*]}; run this script as root to install them" >&2
  exit 1
fi
echo "deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends "${missing[@]}"
