# The same sources give the same bytes wherever and whenever they are built: the objects and
# their debug information name the sources under /kwindel instead of the clone's folder
# (deps.cmake does the same for the dependency cache), and the linker writes no time stamp into
# the PE header. Release builds carry debug information as well (it does not change the code);
# the release package (scripts/dist.sh) moves it into a separate symbols archive.
add_compile_options($<$<COMPILE_LANGUAGE:C,CXX>:-ffile-prefix-map=${CMAKE_SOURCE_DIR}=/kwindel>)
add_link_options(-Wl,--no-insert-timestamp)
string(APPEND CMAKE_C_FLAGS_RELEASE " -g")
string(APPEND CMAKE_CXX_FLAGS_RELEASE " -g")
