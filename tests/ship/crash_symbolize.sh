#!/usr/bin/env bash
# A crash inside the plugin, read back as support reads one from the field:
#   crash_symbolize.sh LLVM_BIN WINE_RUN PREFIX BIN_DIR
# OrbhubSim --crash-in-plugin hands Init a host pointer that cannot be read.
# Wine reports the faulting address and the DLL's load address; the offset
# between them, symbolized with llvm-symbolizer through the DLL's PDB, must
# name CProductConfigurationPlg::_Init in src/plugin/product_cfg_plugin.cpp;
# the PDB must be the one the DLL names, as a debugger requires.
set -u
llvm=$1 wine_run=$2 prefix=$3 bin=$4
out=$(PCP_WINE_TIMEOUT=60 PCP_WINE_MERGE=1 bash "$wine_run" "$prefix" "$bin/OrbhubSim.exe" --crash-in-plugin 2>&1)
status=$?
fail() {
  echo "FAIL: $*"
  echo "--- OrbhubSim --crash-in-plugin (status $status):"
  head -40 <<<"$out"
  echo "--- its last lines:"
  tail -5 <<<"$out"
  exit 1
}
# The crash is Wine's report of the unhandled exception. Under heavy load
# Wine was once seen to end the crashed process with status 0 after the
# report, so the status alone does not say whether it crashed.
grep -q '^Unhandled exception: ' <<<"$out" || fail "the run did not crash"
[ "$status" -ne 0 ] || echo "note: the crashed process ended with status 0"
# "Unhandled exception: page fault on read access to 0x... in 64-bit code (0x00000180001d46)."
fault=$(sed -n 's/^Unhandled exception: .* in 64-bit code (\(0x[0-9a-fA-F]*\)).*/\1/p' <<<"$out" | head -1)
# "PE	0000000180000000-00000001801a9000	PDB	productcfgplg"
base=$(awk 'tolower($NF) == "productcfgplg" && $2 ~ /-/ { split($2, r, "-"); print "0x" r[1]; exit }' <<<"$out")
[ -n "$fault" ] || fail "Wine wrote no faulting address"
[ -n "$base" ] || fail "Wine listed no load address of productcfgplg"
rva=$((fault - base))
[ "$rva" -gt 0 ] && [ "$rva" -lt $((16#10000000)) ] || fail "the fault at $fault is not inside productcfgplg at $base"

# The DLL and its PDB as a debugger pairs them, without Wine's help.
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
cp "$bin/ProductCfgPlg.dll" "$bin/ProductCfgPlg.pdb" "$stage/" || exit 1
. "$(dirname "${BASH_SOURCE[0]}")/pdb_identity.sh"
identity=$(pdb_identity "$llvm" "$stage/ProductCfgPlg.dll" "$stage/ProductCfgPlg.pdb") || fail "$identity"
image_base=$("$llvm/llvm-readobj" --file-headers "$stage/ProductCfgPlg.dll" | sed -n 's/.*ImageBase: \(0x[0-9A-Fa-f]*\).*/\1/p')
symbol=$("$llvm/llvm-symbolizer" --obj="$stage/ProductCfgPlg.dll" "$(printf '0x%x' $((image_base + rva)))")
function=$(sed -n 1p <<<"$symbol")
file=$(sed -n 2p <<<"$symbol")
if [[ "$function" != "CProductConfigurationPlg::_Init("* || "$file" != *'src\plugin\product_cfg_plugin.cpp:'* ]]; then
  fail "RVA $(printf '0x%x' $rva) symbolizes to '$function' at '$file'"
fi
echo "OK: the fault at $fault (RVA $(printf '0x%x' $rva)) is $function at $file"
