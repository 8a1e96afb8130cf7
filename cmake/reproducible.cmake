# The same sources give the same bytes wherever and whenever they are built: the objects and
# their debug information name the sources under /kwindel instead of the clone's folder
# (deps.cmake does the same for the dependency cache), and the PDB names the build folder as
# /kwindel/<its place in the clone>. The linker stamps each binary with a hash of its own bytes
# instead of the time (/Brepro), so the stamp, the PDB's GUID and the symbol store's folders
# change only with the code, and the binary names its PDB without a folder.
# Release builds carry debug information as well (it does not change the code); it goes into
# the PDBs only.
add_compile_options($<$<COMPILE_LANGUAGE:C,CXX>:-ffile-prefix-map=${CMAKE_SOURCE_DIR}=/kwindel>)
file(RELATIVE_PATH _kw_build_rel ${CMAKE_SOURCE_DIR} ${CMAKE_BINARY_DIR})
add_link_options(-Wl,--Xlink=-Brepro -Wl,--Xlink=-pdbaltpath:%_PDB%
                 -Wl,--Xlink=-pdbsourcepath:/kwindel/${_kw_build_rel})
string(APPEND CMAKE_C_FLAGS_RELEASE " -g")
string(APPEND CMAKE_CXX_FLAGS_RELEASE " -g")
# The PDB records the linker's command line, which the driver extends by LIBRARY_PATH: the
# libraries come from the toolchain alone.
set(CMAKE_C_LINKER_LAUNCHER env -u LIBRARY_PATH)
set(CMAKE_CXX_LINKER_LAUNCHER env -u LIBRARY_PATH)

# Shipped binaries keep no debug information of their own: lld copies the DWARF that the MinGW
# runtime's and libstdc++'s archives carry, and it goes here (ours is in the PDB).
find_program(KWINDEL_LLVM_OBJCOPY NAMES llvm-objcopy REQUIRED)
function(kwindel_strip_dwarf target)
  add_custom_command(TARGET ${target} POST_BUILD VERBATIM
                     COMMAND ${KWINDEL_LLVM_OBJCOPY} --strip-debug $<TARGET_FILE:${target}>)
endfunction()
