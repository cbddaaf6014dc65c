#!/usr/bin/env bash
# Compiles every source of the plugin with a second compiler, clang for
# x86_64-w64-mingw32 on the mingw-w64 toolchain's libstdc++, warnings as
# errors, so that code only GCC accepts shows early:
#   second_compiler.sh CLANG SOURCE_DIR BUILD_DIR
set -u
clang=$1 source=$2 build=$3
cxx=/usr/lib/gcc/x86_64-w64-mingw32/12-posix/include/c++
[ -d "$cxx" ] || cxx=$(ls -d /usr/lib/gcc/x86_64-w64-mingw32/*-posix/include/c++ | head -1)
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
failures=0 count=0
for file in "$source"/src/*/*.cpp; do
  count=$((count + 1))
  if ! "$clang" --target=x86_64-w64-mingw32 --sysroot=/usr/x86_64-w64-mingw32 -nostdinc++ \
      -isystem "$cxx" -isystem "$cxx/x86_64-w64-mingw32" -isystem "$cxx/backward" \
      -std=c++17 -O1 -Wall -Wextra -Werror \
      -DUNICODE -D_UNICODE -DWIN32_LEAN_AND_MEAN -DNOMINMAX -D_WIN32_WINNT=0x0601 \
      -I"$source/src" -I"$source/include" -isystem "$build/deps/include" -I"$build/src/generated" \
      -c "$file" -o "$out/$(basename "$file").o"; then
    echo "FAIL: $file"
    failures=$((failures + 1))
  fi
done
echo "second_compiler: $count sources, $failures failed"
[ "$failures" -eq 0 ] && [ "$count" -gt 0 ]
