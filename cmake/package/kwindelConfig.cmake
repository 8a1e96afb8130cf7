# find_package(kwindel) from the unpacked release package: the imported target kwindel::kwindel
# is kwindel-x64.dll with its import library and include/kwindel.h. The package's root is found
# from this file's place (lib/cmake/kwindel), so the package may sit anywhere.
get_filename_component(_kwindel_root "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)
if(NOT TARGET kwindel::kwindel)
  add_library(kwindel::kwindel SHARED IMPORTED)
  set_target_properties(kwindel::kwindel PROPERTIES
    IMPORTED_LOCATION "${_kwindel_root}/bin/kwindel-x64.dll"
    IMPORTED_IMPLIB "${_kwindel_root}/lib/kwindel-x64.lib"
    INTERFACE_INCLUDE_DIRECTORIES "${_kwindel_root}/include")
endif()
unset(_kwindel_root)
