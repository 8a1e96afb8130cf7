# Third-party libraries, built from Debian's source packages for the target.
# scripts/fetch-deps.sh downloads and verifies them into a cache outside the clone.
if(DEFINED ENV{XDG_CACHE_HOME} AND NOT "$ENV{XDG_CACHE_HOME}" STREQUAL "")
  set(_kw_cache "$ENV{XDG_CACHE_HOME}/kwindel")
else()
  set(_kw_cache "$ENV{HOME}/.cache/kwindel")
endif()
set(KWINDEL_DEPS_DIR "${_kw_cache}" CACHE PATH "Where Debian source packages are cached and unpacked")

execute_process(COMMAND ${CMAKE_SOURCE_DIR}/scripts/fetch-deps.sh ${KWINDEL_DEPS_DIR} RESULT_VARIABLE _kw_rc)
if(NOT _kw_rc EQUAL 0)
  message(FATAL_ERROR "Could not fetch the source dependencies (tinyxml2, boost1.81) into ${KWINDEL_DEPS_DIR}")
endif()
set(_d ${KWINDEL_DEPS_DIR})
# The cache's place differs between machines and users: the binaries name it /kwindel-deps.
add_compile_options($<$<COMPILE_LANGUAGE:C,CXX>:-ffile-prefix-map=${_d}=/kwindel-deps>)

# TinyXML-2: XML building, compact printing and parsing.
add_library(tinyxml2 STATIC ${_d}/tinyxml2/tinyxml2.cpp)
target_include_directories(tinyxml2 SYSTEM PUBLIC ${_d}/tinyxml2)
target_compile_options(tinyxml2 PRIVATE -w)

# Boost headers (Locale's UTF conversion is header-only) and static Filesystem/System.
add_library(boost_headers INTERFACE)
target_include_directories(boost_headers SYSTEM INTERFACE ${_d}/boost/merged)
target_compile_definitions(boost_headers INTERFACE BOOST_ALL_NO_LIB BOOST_FILESYSTEM_STATIC_LINK=1
                           BOOST_SYSTEM_STATIC_LINK=1 BOOST_LOCALE_HIDE_AUTO_PTR)

add_library(boost_system STATIC ${_d}/boost/libs/system/src/error_code.cpp)
target_link_libraries(boost_system PUBLIC boost_headers)
target_compile_options(boost_system PRIVATE -w)

file(GLOB _kw_fs_src ${_d}/boost/libs/filesystem/src/*.cpp)
add_library(boost_filesystem STATIC ${_kw_fs_src})
target_link_libraries(boost_filesystem PUBLIC boost_system bcrypt)
target_include_directories(boost_filesystem PRIVATE ${_d}/boost/libs/filesystem/src)
target_compile_definitions(boost_filesystem PRIVATE BOOST_FILESYSTEM_SOURCE BOOST_FILESYSTEM_HAS_BCRYPT)
target_compile_options(boost_filesystem PRIVATE -w)
# Its sources use std::atomic_ref where the compiler offers C++20.
set_target_properties(boost_filesystem PROPERTIES CXX_STANDARD 20)
