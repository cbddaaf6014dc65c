# Cross build for 64-bit Windows with clang and lld (Debian's clang-16 and
# lld-16, apt-get install clang-16 lld-16 llvm-16), on the mingw-w64 headers
# and the posix-thread libstdc++ of the mingw-w64 GCC; lld writes a PDB for
# the DLL. The build that ships and that every test runs against.
#
# libstdc++'s GCC-built objects place template functions in COMDAT sections
# (std::wstring's _M_create, _M_assign and the like) whose unwind entries,
# .pdata$<name> and .xdata$<name>, are COMDAT sections that have no section
# symbol. GNU ld pairs them by name; lld (16, 19 and 22 alike) drops them,
# and an exception thrown through such a function then unwinds with a wrong
# frame: a caller's saved registers come back wrong, or no handler is found
# and the process terminates. The build therefore links against a copy of
# libstdc++.a whose unwind sections are plain sections, made once per build
# folder with objcopy; lld then keeps the entries of the functions it keeps.
# In that copy the symbols of code sections are also typed as functions, so
# that lld lists libstdc++'s functions that vtables reach in the table of
# valid call targets (see cmake/coff_code_section_symbols.py).

include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-target.cmake)

set(PCP_LLVM_BIN /usr/lib/llvm-16/bin)
set(CMAKE_C_COMPILER ${PCP_LLVM_BIN}/clang)
set(CMAKE_CXX_COMPILER ${PCP_LLVM_BIN}/clang++)
set(CMAKE_C_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_ASM_COMPILER ${PCP_LLVM_BIN}/clang)
set(CMAKE_ASM_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_AR ${PCP_LLVM_BIN}/llvm-ar)
set(CMAKE_RANLIB ${PCP_LLVM_BIN}/llvm-ranlib)
set(CMAKE_OBJDUMP x86_64-w64-mingw32-objdump)

# clang does not find Debian's "12-posix" GCC folder by itself: its C++
# headers and libraries are named here.
file(GLOB _pcp_gcc_dirs LIST_DIRECTORIES true /usr/lib/gcc/x86_64-w64-mingw32/*-posix)
list(GET _pcp_gcc_dirs 0 PCP_MINGW_GCC_DIR)
set(_pcp_cxx ${PCP_MINGW_GCC_DIR}/include/c++)
# -femulated-tls: thread-local variables as GCC's libstdc++ for mingw-w64 has
# them. -gcodeview: debug information as Microsoft's debuggers read it, which
# lld gathers into a PDB. Source paths are recorded relative to the checkout.
set(_pcp_common "--sysroot=/usr/x86_64-w64-mingw32 -femulated-tls -gcodeview")
set(CMAKE_C_FLAGS_INIT "${_pcp_common}")
set(CMAKE_CXX_FLAGS_INIT "${_pcp_common} -nostdinc++ -isystem ${_pcp_cxx} -isystem ${_pcp_cxx}/x86_64-w64-mingw32 -isystem ${_pcp_cxx}/backward")
# The copy of libstdc++.a: deps/lib in the build folder, named relative to it
# (links run there), so that the path that the PDB records names no checkout.
# CMake's own trial builds link against the original, which is enough there.
# The stamp names what was done to the copy; a copy made without typing is
# made again.
set(_pcp_libstdcxx_stamp ${CMAKE_BINARY_DIR}/deps/lib/libstdc++.a.plain-unwind-typed-code)
if(NOT CMAKE_IN_TRY_COMPILE AND NOT EXISTS ${_pcp_libstdcxx_stamp})
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/deps/lib)
  execute_process(
    COMMAND x86_64-w64-mingw32-objcopy
      "--set-section-flags=.pdata$*=contents,alloc,load,readonly,data"
      "--set-section-flags=.xdata$*=contents,alloc,load,readonly,data"
      ${PCP_MINGW_GCC_DIR}/libstdc++.a ${CMAKE_BINARY_DIR}/deps/lib/libstdc++.a.part
    RESULT_VARIABLE _pcp_objcopy)
  if(NOT _pcp_objcopy EQUAL 0)
    message(FATAL_ERROR "objcopy could not copy libstdc++.a with plain unwind sections")
  endif()
  execute_process(
    COMMAND python3 ${CMAKE_CURRENT_LIST_DIR}/coff_code_section_symbols.py ${CMAKE_BINARY_DIR}/deps/lib/libstdc++.a.part
    RESULT_VARIABLE _pcp_typed OUTPUT_QUIET)
  if(NOT _pcp_typed EQUAL 0)
    message(FATAL_ERROR "the code section symbols of libstdc++.a could not be typed as functions")
  endif()
  file(RENAME ${CMAKE_BINARY_DIR}/deps/lib/libstdc++.a.part ${CMAKE_BINARY_DIR}/deps/lib/libstdc++.a)
  file(TOUCH ${_pcp_libstdcxx_stamp})
endif()

# libgcc_eh's emulated thread-local storage needs winpthread, linked statically.
set(_pcp_link "--ld-path=${PCP_LLVM_BIN}/ld.lld -Ldeps/lib -L${PCP_MINGW_GCC_DIR} -Wno-unused-command-line-argument")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_pcp_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_pcp_link}")
set(CMAKE_CXX_STANDARD_LIBRARIES "-Wl,-Bstatic -lpthread")
