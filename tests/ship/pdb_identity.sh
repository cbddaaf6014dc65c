# Sourced by the checks of the shipped DLL. pdb_identity LLVM_BIN DLL PDB
# prints why the PDB is not the DLL's (GUID or age differ, or the DLL names
# no PDB) and fails, or prints the identity ("GUID age") and succeeds. The
# debug directory gives the GUID as its 16 bytes in file order, the PDB as
# text whose first three groups are those bytes little-endian.
pdb_identity() {
  local llvm=$1 dll=$2 pdb=$3 debug summary dll_guid="" dll_age pdb_guid pdb_age
  debug=$("$llvm/llvm-readobj" --coff-debug-directory "$dll") || { echo "llvm-readobj cannot read $dll"; return 1; }
  summary=$("$llvm/llvm-pdbutil" dump --summary "$pdb") || { echo "llvm-pdbutil cannot read $pdb"; return 1; }
  local -a b
  read -r -a b <<<"$(sed -n 's/.*PDBGUID: (\(.*\)).*/\1/p' <<<"$debug")"
  if [ ${#b[@]} -eq 16 ]; then
    dll_guid="{${b[3]}${b[2]}${b[1]}${b[0]}-${b[5]}${b[4]}-${b[7]}${b[6]}-${b[8]}${b[9]}-${b[10]}${b[11]}${b[12]}${b[13]}${b[14]}${b[15]}}"
  fi
  dll_age=$(sed -n 's/.*PDBAge: \([0-9]*\).*/\1/p' <<<"$debug")
  pdb_guid=$(sed -n 's/.*GUID: \({.*}\).*/\1/p' <<<"$summary")
  pdb_age=$(sed -n 's/^ *Age: \([0-9]*\).*/\1/p' <<<"$summary")
  if [ -z "$dll_guid" ]; then
    echo "the DLL has no PDB reference (RSDS record)"
    return 1
  fi
  if [ "$dll_guid" != "$pdb_guid" ] || [ "$dll_age" != "$pdb_age" ]; then
    echo "the DLL names PDB $dll_guid age $dll_age, the PDB is $pdb_guid age $pdb_age"
    return 1
  fi
  echo "$dll_guid $dll_age"
}
