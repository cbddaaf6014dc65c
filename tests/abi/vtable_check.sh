#!/usr/bin/env bash
# Checks, on the build machine, that the boundary headers give the host's
# tables under both kinds of compiler:
#   vtable_check.sh CLANG INCLUDE_DIR SOURCE TABLES
# SOURCE uses every boundary interface once. clang lays it out twice, for
# Microsoft's ABI (x86_64-pc-windows-msvc, the host's form) and for the
# Itanium ABI (x86_64-w64-mingw32, the form GCC builds the plugin with), and
# dumps the slot indices of each table. TABLES lists each interface's slots
# in the host's order, one interface a line: "Name: slot slot ...", where ~ is
# the destructor and "Name const" the const overload.
# The check fails when the host's form differs from TABLES, or when the two
# forms differ in any slot: name, parameters or constness. The destructor's
# slot and a record returned through a hidden pointer are compared as the
# host's compiler sees them; a record returned by value in the host's form
# must be the hidden-pointer slot in the Itanium form.
set -u
clang=$1 include=$2 source=$3 tables=$4
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# Prints "Interface|index|name(parameters)[ const]" for every slot.
slots() {
  "$clang" --target="$1" -std=c++17 -ffreestanding -fno-rtti -I"$include" -S -o /dev/null \
    -Xclang -fdump-vtable-layouts "$source" 2>/dev/null | awk -v abi="$1" '
    /^V[F]?Table indices for / {
      name = $0; sub(/^V[F]?Table indices for \047/, "", name); sub(/\047.*$/, "", name)
      reading = 1; next
    }
    reading && /^[ \t]*$/ { reading = 0; next }
    reading && /\|/ {
      index_ = $1
      sig = $0; sub(/^[^|]*\| /, "", sig)
      if (sig ~ /\[scalar deleting\]/ || sig ~ /ScalarDeletingDestructor\(/) {
        print name "|" index_ "|~()"; next
      }
      if (!match(sig, /[A-Za-z_][A-Za-z_0-9]*\(/)) { print name "|" index_ "|?" sig; next }
      member = substr(sig, RSTART, RLENGTH - 1)
      rest = substr(sig, RSTART + RLENGTH)
      # The result: a record by value (not a pointer, reference or number)
      # is marked, and so is the hidden result pointer of the Itanium form.
      result = substr(sig, 1, RSTART - 1); sub(/[^ *&]*::$/, "", result); sub(/ +$/, "", result)
      record = (result !~ /[*&]$/ && result !~ /^(void|bool|Status|int|unsigned int|uint32_t|int64_t|T|const T)$/)
      # Itanium returns a small record in registers, where the host passes a
      # hidden pointer: only the Slot form matches the host there.
      if (record && abi ~ /mingw/) record = 2
      params = rest; sub(/\).*$/, "", params)
      after = rest; sub(/^[^)]*\)/, "", after)
      constness = (after ~ /^ const/) ? " const" : ""
      if (member ~ /Slot$/) {
        sub(/Slot$/, "", member)
        sub(/^[^,]*\*(, )?/, "", params)
        record = 1
      }
      print name "|" index_ "|" member "(" params ")" constness (record == 1 ? " -> record" : record == 2 ? " -> record in registers" : "")
    }' | sort -t'|' -k1,1 -k2,2n
}

msvc=$(slots x86_64-pc-windows-msvc) || fail "layout for Microsoft's ABI"
itanium=$(slots x86_64-w64-mingw32) || fail "layout for the Itanium ABI"
[ -n "$msvc" ] || fail "no tables dumped for Microsoft's ABI"
[ -n "$itanium" ] || fail "no tables dumped for the Itanium ABI"

if [ "$msvc" != "$itanium" ]; then
  fail "the two forms differ (< Microsoft, > Itanium):"
  diff <(echo "$msvc") <(echo "$itanium")
fi

# The host's form against the tables: names in slot order, per interface.
names=$(awk -F'|' '{
    slot = $3; sub(/ -> record$/, "", slot); constness = (slot ~ /\) const$/) ? " const" : ""
    sub(/\(.*$/, "", slot); if (slot == "~") slot = "~"
    list[$1] = list[$1] (list[$1] == "" ? "" : " ") slot (constness == "" ? "" : "_const")
  } END { for (n in list) print n ": " list[n] }' <<<"$msvc" | sort)
expected=$(grep -v '^#' "$tables" | grep -v '^[[:space:]]*$' | sed 's/ const\b/_const/g' | sort)
if [ "$names" != "$expected" ]; then
  fail "the host's tables differ from $tables (< tables, > built):"
  diff <(echo "$expected") <(echo "$names")
fi

count=$(grep -c . <<<"$expected")
if [ $failures -eq 0 ]; then
  echo "vtable_check: $count interfaces, same slots under both ABIs and as listed"
  exit 0
fi
exit 1
