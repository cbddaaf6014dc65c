#!/usr/bin/env bash
# Builds the shipped DLL and its PDB twice from scratch, from two copies of
# the checkout at different paths, and compares the bytes:
#   reproducible_check.sh SOURCE_DIR
# Same sources, same bytes: no timestamp, no random GUID, no path of the
# checkout or of the build folder in either file.
set -u
source=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
places=("$work/one/ProductCfgPlg" "$work/second/place/Plugin")
for place in "${places[@]}"; do
  mkdir -p "$place"
  tar -C "$source" --exclude=./build --exclude='./build-*' --exclude=./dist --exclude=./.git -cf - . |
    tar -C "$place" -xf - || exit 1
  if ! cmake -G Ninja -S "$place" -B "$place/build" -DCMAKE_TOOLCHAIN_FILE="$place/cmake/clang-mingw-w64-x86_64.cmake" \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPCP_WARNINGS_AS_ERRORS=ON -DBUILD_TESTING=OFF >"$work/configure.log" 2>&1 ||
    ! cmake --build "$place/build" --target ProductCfgPlg >"$work/build.log" 2>&1; then
    echo "FAIL: the build in $place failed"
    tail -20 "$work/configure.log" "$work/build.log"
    exit 1
  fi
done
failures=0
for file in ProductCfgPlg.dll ProductCfgPlg.pdb; do
  first=${places[0]}/build/bin/$file second=${places[1]}/build/bin/$file
  if cmp -s "$first" "$second"; then
    echo "same: $file, $(stat -c %s "$first") bytes, sha256 $(sha256sum <"$first" | cut -c1-16)"
  else
    echo "FAIL: $file differs between the builds in ${places[0]} and ${places[1]}:"
    cmp -l "$first" "$second" | head -5
    failures=$((failures + 1))
  fi
done
[ $failures -eq 0 ]
