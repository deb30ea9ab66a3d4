# The repository's crypto and compression for the Windows cross build.
#
# - libgcrypt (AES-256-GCM, HMAC-SHA-256, SHA-256, scrypt, the random
#   source): Debian's libgcrypt-mingw-w64-dev, linked statically with its
#   libgpg-error, so the tool needs no DLL beside it.
# - zstd: Debian ships no MinGW build, so the build compiles Debian's own
#   upstream archive of it (scripts/debian-source.sh fetches it with
#   apt-get source) with the Windows compiler, as an external project: its
#   static library only. QV_ZSTD_ARCHIVE names another archive.
#
# Defines qv_windows_gcrypt and qv_windows_zstd (imported static libraries).

find_path(QV_GCRYPT_INCLUDE_DIR gcrypt.h REQUIRED)
find_library(QV_GCRYPT_LIBRARY NAMES libgcrypt.a gcrypt REQUIRED)
find_library(QV_GPG_ERROR_LIBRARY NAMES libgpg-error.a gpg-error REQUIRED)
add_library(qv_windows_gcrypt INTERFACE)
target_include_directories(qv_windows_gcrypt SYSTEM INTERFACE ${QV_GCRYPT_INCLUDE_DIR})
target_link_libraries(qv_windows_gcrypt INTERFACE ${QV_GCRYPT_LIBRARY} ${QV_GPG_ERROR_LIBRARY} ws2_32)

set(QV_DEBIAN_SOURCES_DIR ${PROJECT_SOURCE_DIR}/build/debian-sources CACHE PATH
    "Where the upstream archives of Debian source packages are fetched to")
if(NOT QV_ZSTD_ARCHIVE)
  execute_process(COMMAND bash ${PROJECT_SOURCE_DIR}/scripts/debian-source.sh libzstd ${QV_DEBIAN_SOURCES_DIR}
                  OUTPUT_VARIABLE QV_ZSTD_FETCHED OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE QV_ZSTD_FETCH_RESULT)
  if(NOT QV_ZSTD_FETCH_RESULT EQUAL 0 OR NOT EXISTS "${QV_ZSTD_FETCHED}")
    message(FATAL_ERROR "Cannot fetch Debian's zstd source (scripts/debian-source.sh libzstd): "
                        "give -DQV_ZSTD_ARCHIVE=<zstd source archive>")
  endif()
  set(QV_ZSTD_ARCHIVE ${QV_ZSTD_FETCHED} CACHE FILEPATH "The zstd source archive the Windows build compiles")
endif()
message(STATUS "zstd for Windows from ${QV_ZSTD_ARCHIVE}")

include(ExternalProject)
set(QV_ZSTD_PREFIX ${CMAKE_BINARY_DIR}/zstd-windows)
ExternalProject_Add(zstd_windows
  URL ${QV_ZSTD_ARCHIVE}
  PREFIX ${QV_ZSTD_PREFIX}
  SOURCE_SUBDIR build/cmake
  CMAKE_ARGS -DCMAKE_TOOLCHAIN_FILE=${CMAKE_TOOLCHAIN_FILE} -DCMAKE_BUILD_TYPE=Release
             -DCMAKE_INSTALL_PREFIX=<INSTALL_DIR> -DZSTD_BUILD_PROGRAMS=OFF -DZSTD_BUILD_SHARED=OFF
             -DZSTD_BUILD_STATIC=ON -DZSTD_BUILD_TESTS=OFF -DZSTD_BUILD_CONTRIB=OFF -DZSTD_LEGACY_SUPPORT=OFF
             -DZSTD_MULTITHREAD_SUPPORT=OFF
  BUILD_BYPRODUCTS <INSTALL_DIR>/lib/libzstd.a
  DOWNLOAD_EXTRACT_TIMESTAMP TRUE
  EXCLUDE_FROM_ALL TRUE)
ExternalProject_Get_Property(zstd_windows INSTALL_DIR)
file(MAKE_DIRECTORY ${INSTALL_DIR}/include)
add_library(qv_windows_zstd STATIC IMPORTED GLOBAL)
set_target_properties(qv_windows_zstd PROPERTIES IMPORTED_LOCATION ${INSTALL_DIR}/lib/libzstd.a
                      INTERFACE_INCLUDE_DIRECTORIES ${INSTALL_DIR}/include)
add_dependencies(qv_windows_zstd zstd_windows)
