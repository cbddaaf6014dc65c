#!/usr/bin/env bash
# Reads the built DLL as a product's release checks read every binary it
# ships, from the build machine (llvm-readobj, llvm-pdbutil, windres):
#   binary_check.sh LLVM_BIN WINDRES DLL [PDB]
# and prints one row per property. It fails, naming the property, when:
# - DYNAMIC_BASE, HIGH_ENTROPY_VA or NX_COMPAT is missing;
# - GUARD_CF is missing, the guard's function table is empty or GuardFlags
#   lack CF_INSTRUMENTED;
# - no function checks a stack canary (__stack_chk_fail is not among the
#   PDB's symbols, or the DLL's without a PDB);
# - a section is both writable and executable;
# - the exports are other than QmCreateObject @1 and QmDestroyObject @2;
# - an import comes from anything but the Windows system DLLs below (the
#   runtime is linked statically: no libstdc++, libgcc or winpthread DLL);
# - the version resource lacks the file's name, description or version.
# Without PDB (the second compiler's build, which does not ship) the guard's
# rows are reported and not required.
set -u
llvm=$1 windres=$2 dll=$3 pdb=${4:-}
failures=0
row() { printf '  %-22s %s\n' "$1" "$2"; }
fail() { row "$1" "MISSING: $2"; failures=$((failures + 1)); }

headers=$("$llvm/llvm-readobj" --file-headers --coff-load-config "$dll" 2>&1) || { echo "FAIL: llvm-readobj cannot read $dll: $headers"; exit 1; }
echo "$(basename "$dll"):"
printf '  %-22s %s\n' "Property" "Found"

for flag in DYNAMIC_BASE HIGH_ENTROPY_VA NX_COMPAT; do
  if grep -q "IMAGE_DLL_CHARACTERISTICS_$flag " <<<"$headers"; then row "$flag" present; else fail "$flag" "not in DllCharacteristics"; fi
done

count=$(sed -n 's/^ *GuardCFFunctionCount: \([0-9]*\).*/\1/p' <<<"$headers")
flags=$(sed -n 's/^ *GuardFlags \[ (\(0x[0-9A-Fa-f]*\)).*/\1/p' <<<"$headers")
guard="GUARD_CF ${count:-0} targets, GuardFlags ${flags:-none}"
if ! grep -q "IMAGE_DLL_CHARACTERISTICS_GUARD_CF " <<<"$headers"; then
  if [ -n "$pdb" ]; then fail "Control Flow Guard" "no GUARD_CF in DllCharacteristics"; else row "Control Flow Guard" "not in this build (not shipped)"; fi
elif [ "${count:-0}" -eq 0 ]; then
  fail "Control Flow Guard" "$guard: the function table is empty"
elif [ $((${flags:-0} & 0x100)) -eq 0 ]; then
  fail "Control Flow Guard" "$guard: GuardFlags lack CF_INSTRUMENTED (0x100)"
else
  row "Control Flow Guard" "$guard"
fi

if [ -n "$pdb" ]; then
  symbols=$("$llvm/llvm-pdbutil" dump --publics "$pdb" 2>&1) || { echo "FAIL: llvm-pdbutil cannot read $pdb"; exit 1; }
  where="the PDB"
else
  symbols=$("$llvm/llvm-nm" "$dll" 2>&1)
  where="the DLL's symbols"
fi
if grep -qE '(`| )__stack_chk_fail(`|$)' <<<"$symbols" && grep -qE '(`| )__stack_chk_guard(`|$)' <<<"$symbols"; then
  row "Stack protection" "canary checks (__stack_chk_fail, __stack_chk_guard in $where)"
else
  fail "Stack protection" "no __stack_chk_fail or __stack_chk_guard in $where"
fi

# Section characteristics: IMAGE_SCN_MEM_EXECUTE 0x20000000, _MEM_WRITE 0x80000000.
sections=""
while read -r name characteristics; do
  (( (characteristics & 0x20000000) && (characteristics & 0x80000000) )) && sections+=" $name"
done < <("$llvm/llvm-readobj" --sections "$dll" | sed -n -e 's/^ *Name: \([^ ]*\).*/\1/p' \
           -e 's/^ *Characteristics \[ (\(0x[0-9A-Fa-f]*\)).*/\1/p' | paste - -)
if [ -z "$sections" ]; then row "W+X sections" none; else fail "W+X sections" "writable and executable:$sections"; fi

exports=$("$llvm/llvm-readobj" --coff-exports "$dll" | awk '/Ordinal:/ { o = $2 } /Name:/ && o != "" { printf "%s%s@%s", s, $2, o; s = " "; o = "" }')
if [ "$exports" = "QmCreateObject@1 QmDestroyObject@2" ]; then row Exports "$exports"; else fail Exports "expected QmCreateObject@1 QmDestroyObject@2 and nothing else, found: ${exports:-none}"; fi

system_dlls='^(kernel32|msvcrt|winmm|advapi32|user32|shell32|ole32|oleaut32|wtsapi32|userenv|shlwapi|version|ws2_32|crypt32|bcrypt|secur32|rpcrt4|ntdll|api-ms-win-.*)\.dll$'
imports=$("$llvm/llvm-readobj" --coff-imports "$dll" | awk '/^ *Name: / { print $2 }')
foreign=$(grep -viE "$system_dlls" <<<"$imports" | tr '\n' ' ')
if [ -z "$imports" ]; then fail Imports "none found"
elif [ -n "$foreign" ]; then fail Imports "not Windows system DLLs: $foreign"
else row Imports "$(echo $imports)"; fi

rc=$("$windres" -J coff -O rc -i "$dll" 2>&1)
missing=""
for value in '"OriginalFilename", "ProductCfgPlg.dll"' '"FileDescription", "' '"ProductName", "' '"FileVersion", "'; do
  grep -qF "VALUE $value" <<<"$rc" || missing+=" ${value%%,*}"
done
if [ -z "$missing" ]; then row "Version resource" "$(sed -n 's/.*VALUE "FileVersion", "\([^"]*\)".*/\1/p' <<<"$rc" | head -1)"; else fail "Version resource" "lacks$missing"; fi

if [ $failures -ne 0 ]; then
  echo "FAIL: $failures propert$([ $failures -eq 1 ] && echo y || echo ies) missing in $dll"
  exit 1
fi
echo "OK"
