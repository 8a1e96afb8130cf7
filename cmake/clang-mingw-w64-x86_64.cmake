# 64-bit Windows (kwindel-x64.dll and the tools) with clang and lld: see clang-mingw-w64.cmake.
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(_kw_triple x86_64-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/clang-mingw-w64.cmake)
