#!/usr/bin/env bash
# Checks from the build machine that the shipped DLL can be symbolized with
# its PDB, as a crash dump from the field would be:
#   symbols_check.sh LLVM_BIN OBJDUMP DLL PDB
# - the PDB's GUID and age are the ones in the DLL's debug directory;
# - QmCreateObject's public address in the PDB is its export's;
# - the starts of QmCreateObject, CProductConfigurationPlg::Start and
#   CBootstrap::Init symbolize to those functions in their source files.
set -u
llvm=$1 objdump=$2 dll=$3 pdb=$4
# The debugger's view: the DLL, and beside it the PDB under the name that
# the DLL's debug directory gives.
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
cp "$dll" "$stage/ProductCfgPlg.dll" && cp "$pdb" "$stage/ProductCfgPlg.pdb" || exit 1
dll=$stage/ProductCfgPlg.dll pdb=$stage/ProductCfgPlg.pdb
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# Identity: the PDB is the one the DLL names.
. "$(dirname "${BASH_SOURCE[0]}")/pdb_identity.sh"
identity=$(pdb_identity "$llvm" "$dll" "$pdb") || fail "$identity"

# Addresses. A public is "addr = SECTION:OFFSET" (decimal offset) into the
# DLL's sections, numbered from 1 in their order.
image_base=$("$llvm/llvm-readobj" --file-headers "$dll" | sed -n 's/.*ImageBase: \(0x[0-9A-Fa-f]*\).*/\1/p')
mapfile -t section_rvas < <("$llvm/llvm-readobj" --sections "$dll" | sed -n 's/.*VirtualAddress: \(0x[0-9A-Fa-f]*\).*/\1/p')
publics=$("$llvm/llvm-pdbutil" dump --publics "$pdb")
rva_of() { # mangled name -> RVA in hex, or nothing
  local addr
  addr=$(grep -F -A1 "\`$1\`" <<<"$publics" | sed -n 's/.*addr = \([0-9]*\):\([0-9]*\).*/\1 \2/p' | head -1)
  [ -n "$addr" ] || return 0
  set -- $addr
  printf '%x\n' $((${section_rvas[$((10#$1 - 1))]} + 10#$2))
}

export_rva=$("$objdump" -p "$dll" | awk '/^Export Address Table --/ { t = 1; next } t && /\+base\[ *1\]/ { print $(NF - 2); exit }')
create_rva=$(rva_of QmCreateObject)
[ -n "$create_rva" ] && [ "$((16#$create_rva))" = "$((16#${export_rva:-0}))" ] ||
  fail "QmCreateObject is at RVA ${create_rva:-?} in the PDB, its export at ${export_rva:-?}"

check() { # mangled name, expected function, expected source file (Windows form)
  local rva out
  rva=$(rva_of "$1")
  if [ -z "$rva" ]; then
    fail "no public $1 in the PDB"
    return
  fi
  out=$("$llvm/llvm-symbolizer" --obj="$dll" "$(printf '0x%x' $((image_base + 16#$rva)))")
  local function file
  function=$(sed -n 1p <<<"$out")
  file=$(sed -n 2p <<<"$out")
  if [[ "$function" != "$2"* || "$file" != *"$3":* ]]; then
    fail "RVA 0x$rva ($1) symbolizes to '$function' at '$file', expected $2 in $3"
  else
    echo "ok: RVA 0x$rva -> $function at $file"
  fi
}
check QmCreateObject 'QmCreateObject' 'src\plugin\module.cpp'
check _ZN24CProductConfigurationPlg5StartEv 'CProductConfigurationPlg::Start()' 'src\plugin\product_cfg_plugin.cpp'
check _ZN10CBootstrap4InitEP9IServMain 'CBootstrap::Init(' 'src\bootstrap\bootstrap.cpp'

if [ $failures -ne 0 ]; then
  echo "$failures problem(s) with $3 and $4"
  exit 1
fi
echo "OK: $3 and $4 match (GUID and age $identity) and symbolize"
