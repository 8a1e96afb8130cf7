# 32-bit Windows (kwindel-x86.dll and the tools' 32-bit twins) with clang and lld: see
# clang-mingw-w64.cmake.
set(CMAKE_SYSTEM_PROCESSOR x86)
set(_kw_triple i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/clang-mingw-w64.cmake)
