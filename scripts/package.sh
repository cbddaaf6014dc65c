#!/usr/bin/env bash
# Builds the shipped DLL (clang and lld, with its PDB) and writes
# dist/ProductCfgPlg-VERSION-x64.zip: the DLL, its PDB, SHA256SUMS and
# README.txt (version, compilers, mitigations, exports). The DLL is not
# signed here; a DLL that fails the binary check is not packaged.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/deps.sh"
cd "$root"
[ -f build/build.ninja ] || cmake --preset mingw
cmake --build --preset mingw --target ProductCfgPlg

bin=build/bin
version=$(sed -n 's/^#define PCP_VERSION_TEXT "\(.*\)"$/\1/p' build/src/generated/version.h)
[ -n "$version" ] || { echo "package: no version in build/src/generated/version.h" >&2; exit 1; }
name=ProductCfgPlg-$version-x64
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
mkdir "$stage/$name"
cp "$bin/ProductCfgPlg.dll" "$bin/ProductCfgPlg.pdb" "$stage/$name/"

llvm=/usr/lib/llvm-16/bin
mitigations=$(bash tests/ship/binary_check.sh "$llvm" x86_64-w64-mingw32-windres "$bin/ProductCfgPlg.dll" "$bin/ProductCfgPlg.pdb") ||
  { echo "$mitigations" >&2; echo "package: the DLL fails the binary check" >&2; exit 1; }
compiler=$(sed -n 's/^set(CMAKE_CXX_COMPILER "\(.*\)")$/\1/p' build/CMakeFiles/*/CMakeCXXCompiler.cmake | head -1)
{
  echo "ProductCfgPlg $version for 64-bit Windows"
  echo
  echo "ProductCfgPlg.dll  the Orbhub plugin"
  echo "ProductCfgPlg.pdb  its symbols (CodeView), matching the DLL's debug directory"
  echo "SHA256SUMS         checksums of both"
  echo
  echo "Built with:"
  echo "  $("$compiler" --version | head -1) for x86_64-w64-mingw32"
  echo "  $("$llvm/ld.lld" --version | head -1)"
  echo "  libstdc++ of $(x86_64-w64-mingw32-g++-posix --version | head -1), linked statically"
  echo "  -fstack-protector-strong and -mguard=cf on every object of the plugin"
  echo
  echo "Mitigations, as tests/ship/binary_check.sh reads them from the DLL and its PDB:"
  sed -n '/^  Property/,/^  Imports/p' <<<"$mitigations" | grep -vE '^  (Property|Exports|Imports) '
  echo
  echo "Exports:"
  x86_64-w64-mingw32-objdump -p "$bin/ProductCfgPlg.dll" |
    awk '/^\[Ordinal\/Name Pointer\] Table/ { t = 1; next } t && /^[ \t]*$/ { t = 0 } t { gsub(/[][]/, " "); print "  @" $1 + 1, $2 }'
  echo
  echo "PDB identity:"
  "$llvm/llvm-pdbutil" dump --summary "$bin/ProductCfgPlg.pdb" | sed -n 's/^ *\(GUID\|Age\): /  \1: /p'
  "$llvm/llvm-readobj" --coff-debug-directory "$bin/ProductCfgPlg.dll" | sed -n 's/^ *PDBFileName: /  named by the DLL as: /p'
  echo
  echo "The DLL is not signed: signing belongs to the suite's release pipeline."
} >"$stage/$name/README.txt"
(cd "$stage/$name" && sha256sum ProductCfgPlg.dll ProductCfgPlg.pdb >SHA256SUMS)

mkdir -p dist
rm -f "dist/$name.zip"
# One fixed time on every entry and no extra fields (-X: no access or change
# times, no owners), so that the archive depends on its content only.
touch -d '2000-01-01 00:00:00 UTC' "$stage/$name" "$stage/$name"/*
(cd "$stage" && TZ=UTC zip -q -X -D "$root/dist/$name.zip" \
  "$name/ProductCfgPlg.dll" "$name/ProductCfgPlg.pdb" "$name/SHA256SUMS" "$name/README.txt")
echo "dist/$name.zip:"
(cd "$stage/$name" && ls -l --time-style=+ ProductCfgPlg.dll ProductCfgPlg.pdb SHA256SUMS README.txt | awk '{ print "  " $NF, $5 " bytes" }')
