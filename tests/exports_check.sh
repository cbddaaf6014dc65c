#!/usr/bin/env bash
# Checks the built plugin DLL from the build machine, without Wine:
#   exports_check.sh OBJDUMP WINDRES DLL
# - exactly two exports: QmCreateObject at ordinal 1, QmDestroyObject at 2;
# - imports only from Windows system DLLs (the runtime is linked statically,
#   so no libstdc++, libgcc or winpthread DLL may appear);
# - a version resource naming the file, its description and version.
set -u
objdump=$1 windres=$2 dll=$3
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

dump=$("$objdump" -p "$dll") || { echo "FAIL: $objdump -p $dll"; exit 1; }

# Export table: "Ordinal Base N", the count of the address table, then the
# "[Ordinal/Name Pointer] Table" lines "[ i] name" with ordinal = base + i.
base=$(awk '/^Ordinal Base/ { print $3; exit }' <<<"$dump")
count=$(awk '/^Number in:/ { n = 1; next } n && /Export Address Table/ { print $4; exit }' <<<"$dump")
count=$((16#${count:-0}))
exports=$(awk -v base="${base:-0}" '
  /^\[Ordinal\/Name Pointer\] Table/ { t = 1; next }
  t && /^[ \t]*$/ { exit }
  t { gsub(/[][]/, " "); print base + $1, $2 }' <<<"$dump")
expected=$'1 QmCreateObject\n2 QmDestroyObject'
[ "$count" = 2 ] || fail "export address table has $count entries, expected 2"
if [ "$exports" != "$expected" ]; then
  fail "exports (ordinal name) are:"
  echo "${exports:-  (none)}"
fi

# Imports: every "DLL Name:" must be a Windows system DLL.
system_dlls='^(kernel32|msvcrt|winmm|advapi32|user32|shell32|ole32|oleaut32|wtsapi32|userenv|shlwapi|version|ws2_32|crypt32|bcrypt|secur32|rpcrt4|ntdll|api-ms-win-.*)\.dll$'
imports=$(awk '/DLL Name:/ { print $3 }' <<<"$dump")
[ -n "$imports" ] || fail "no imports found"
for name in $imports; do
  grep -qiE "$system_dlls" <<<"$name" || fail "imports from $name, which is not a Windows system DLL"
done

# Version resource, decompiled by windres.
rc=$("$windres" -J coff -O rc -i "$dll" 2>&1) || fail "windres cannot read the resources: $rc"
for value in '"OriginalFilename", "ProductCfgPlg.dll"' '"FileDescription", "' '"ProductName", "' '"FileVersion", "'; do
  grep -qF "VALUE $value" <<<"$rc" || fail "version resource lacks VALUE $value"
done

if [ $failures -ne 0 ]; then
  echo "$failures problem(s) in $dll"
  exit 1
fi
echo "OK: $dll exports QmCreateObject@1 QmDestroyObject@2, imports only $(echo $imports), has a version resource"
