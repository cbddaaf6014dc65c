# Cross build for 64-bit Windows with the mingw-w64 GCC (posix thread model):
# the second compiler (cmake --preset gcc builds everything with it).
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-target.cmake)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_ASM_COMPILER x86_64-w64-mingw32-gcc-posix)
