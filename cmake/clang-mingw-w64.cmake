# Cross-compiling for Windows with LLVM's clang and lld on MinGW-w64's runtime, headers and GCC's
# libstdc++ of the posix thread model (the win32 model has no std::mutex or std::thread). clang
# writes CodeView debug information and lld links it into a PDB beside each binary, which Windows
# debuggers read. Version 16, the first whose CodeView can leave out the compiler's command line
# (it names the build folder). Included by clang-mingw-w64-x86_64.cmake and -i686.cmake, which
# set _kw_triple and CMAKE_SYSTEM_PROCESSOR.
set(CMAKE_SYSTEM_NAME Windows)
set(_kw_gcc /usr/lib/gcc/${_kw_triple}/12-posix)  # libstdc++, libgcc and their headers
set(CMAKE_C_COMPILER clang-16)
set(CMAKE_CXX_COMPILER clang++-16)
set(CMAKE_C_COMPILER_TARGET ${_kw_triple})
set(CMAKE_CXX_COMPILER_TARGET ${_kw_triple})
set(CMAKE_RC_COMPILER ${_kw_triple}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${_kw_triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

set(CMAKE_C_FLAGS_INIT "-gcodeview -gno-codeview-command-line")
set(CMAKE_CXX_FLAGS_INIT "-gcodeview -gno-codeview-command-line -nostdinc++ -isystem ${_kw_gcc}/include/c++ \
-isystem ${_kw_gcc}/include/c++/${_kw_triple} -isystem ${_kw_gcc}/include/c++/backward")
# --pdb= with no name: <binary>.pdb beside the binary. Link lines carry the compile flags too.
# 32-bit code unwinds C++ exceptions with libgcc's DWARF unwinder, which finds a module's unwind
# tables only when GCC's crtbegin.o registers them; clang would take MinGW-w64's stub crtbegin.o,
# and every throw, even one caught in the same function, would abort the process. -B puts GCC's
# first. (64-bit code unwinds through the system's tables and needs no registration.)
set(_kw_startfiles)
if(_kw_triple MATCHES "^i686")
  set(_kw_startfiles "-B${_kw_gcc}")
endif()
foreach(_kw_kind EXE SHARED MODULE)
  set(CMAKE_${_kw_kind}_LINKER_FLAGS_INIT "-fuse-ld=lld-16 -L${_kw_gcc} ${_kw_startfiles} -Wl,--pdb= -Wno-unused-command-line-argument")
endforeach()
# libgcc's thread-local emulation calls winpthreads.
set(CMAKE_C_STANDARD_LIBRARIES "-lpthread")
set(CMAKE_CXX_STANDARD_LIBRARIES "-lpthread")
