#!/usr/bin/env bash
# Compiles every source of the plugin with the second compiler, warnings as
# errors, so that code only one compiler accepts shows early:
#   second_compiler.sh CXX SOURCE_DIR BUILD_DIR
# CXX is the mingw-w64 GCC (x86_64-w64-mingw32-g++-posix) beside the clang
# build, or clang beside the GCC build; clang is pointed at the mingw-w64
# toolchain's libstdc++.
set -u
cxx=$1 source=$2 build=$3
flags=()
case $(basename "$cxx") in
  *clang*)
    lib=/usr/lib/gcc/x86_64-w64-mingw32/12-posix/include/c++
    [ -d "$lib" ] || lib=$(ls -d /usr/lib/gcc/x86_64-w64-mingw32/*-posix/include/c++ | head -1)
    flags=(--target=x86_64-w64-mingw32 --sysroot=/usr/x86_64-w64-mingw32 -nostdinc++
      -isystem "$lib" -isystem "$lib/x86_64-w64-mingw32" -isystem "$lib/backward")
    ;;
esac
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
failures=0 count=0
for file in "$source"/src/*/*.cpp; do
  count=$((count + 1))
  if ! "$cxx" "${flags[@]}" -std=c++17 -O2 -Wall -Wextra -Werror \
      -DUNICODE -D_UNICODE -DWIN32_LEAN_AND_MEAN -DNOMINMAX -D_WIN32_WINNT=0x0601 \
      -I"$source/src" -I"$source/include" -isystem "$build/deps/include" -I"$build/src/generated" \
      -c "$file" -o "$out/$(basename "$file").o"; then
    echo "FAIL: $file"
    failures=$((failures + 1))
  fi
done
echo "second_compiler: $("$cxx" --version | head -1): $count sources, $failures failed"
[ "$failures" -eq 0 ] && [ "$count" -gt 0 ]
