# find_package(kwindel) from the unpacked release package: the imported target kwindel::kwindel
# is kwindel-x64.dll (kwindel-x86.dll for a 32-bit build) with its import library and
# include/kwindel.h. The package's root is found from this file's place (lib/cmake/kwindel), so
# the package may sit anywhere.
get_filename_component(_kwindel_root "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(_kwindel_arch x86)
else()
  set(_kwindel_arch x64)
endif()
if(NOT TARGET kwindel::kwindel)
  add_library(kwindel::kwindel SHARED IMPORTED)
  set_target_properties(kwindel::kwindel PROPERTIES
    IMPORTED_LOCATION "${_kwindel_root}/bin/kwindel-${_kwindel_arch}.dll"
    IMPORTED_IMPLIB "${_kwindel_root}/lib/kwindel-${_kwindel_arch}.lib"
    INTERFACE_INCLUDE_DIRECTORIES "${_kwindel_root}/include")
endif()
unset(_kwindel_root)
unset(_kwindel_arch)
