#!/usr/bin/env python3
"""Marks the section symbols of code sections as functions in the COFF
objects of a static library, in place:

    coff_code_section_symbols.py LIBRARY.a

GCC's assembler makes a relocation to a function in the same object (a
vtable's slot, say) against the symbol of the function's own section,
".text$<name>", whose symbol type is 0. lld, writing the table of valid call
targets for Control Flow Guard, takes a relocated symbol of an object built
without the guard as a call target only when its type is a function (0x20),
so such functions (std::bad_alloc::what, called through the vtable) would be
missing from the table and a call to them would end the process. Each
section of GCC's objects holds one function at its start, so typing the
section's symbol as a function lists exactly that function. Only the type
bytes change: sizes, offsets and the archive's index stay as they are.
"""
import struct
import sys

IMAGE_FILE_MACHINE_AMD64 = 0x8664
IMAGE_SCN_CNT_CODE = 0x20
IMAGE_SYM_CLASS_STATIC = 3
IMAGE_SYM_DTYPE_FUNCTION = 0x20


def patch_object(data, start, size):
    """Patches the object at data[start:start+size]; returns symbols typed."""
    if size < 20:
        return 0
    machine, sections, _, symbols_at, symbols, optional_size, _ = struct.unpack_from("<HHIIIHH", data, start)
    if machine != IMAGE_FILE_MACHINE_AMD64 or symbols_at == 0 or symbols_at + symbols * 18 > size:
        return 0
    code = set()
    table = start + 20 + optional_size
    for number in range(1, sections + 1):
        characteristics = struct.unpack_from("<I", data, table + (number - 1) * 40 + 36)[0]
        if characteristics & IMAGE_SCN_CNT_CODE:
            code.add(number)
    typed = 0
    index = 0
    while index < symbols:
        at = start + symbols_at + index * 18
        value, section, kind, storage, aux = struct.unpack_from("<IhHBB", data, at + 8)
        # A section's own symbol: static, value 0, one auxiliary record
        # defining the section.
        if storage == IMAGE_SYM_CLASS_STATIC and aux == 1 and value == 0 and section in code and kind == 0:
            struct.pack_into("<H", data, at + 14, IMAGE_SYM_DTYPE_FUNCTION)
            typed += 1
        index += 1 + aux
    return typed


def main():
    path = sys.argv[1]
    with open(path, "rb") as f:
        data = bytearray(f.read())
    if data[:8] != b"!<arch>\n":
        sys.exit(path + ": not an archive")
    at, typed = 8, 0
    while at + 60 <= len(data):
        size = int(data[at + 48:at + 58].decode().strip())
        name = data[at:at + 16].decode(errors="replace").strip()
        if name not in ("/", "//", "/SYM64/"):
            typed += patch_object(data, at + 60, size)
        at += 60 + size + (size & 1)
    with open(path, "wb") as f:
        f.write(data)
    print("%s: %d code section symbols typed as functions" % (path, typed))


if __name__ == "__main__":
    main()
