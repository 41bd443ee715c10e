# Libraries that are not ours. tools/setup installs them; nothing of theirs is in this tree.
set(ZLIB_USE_STATIC_LIBS ON)  # otherwise the import library of zlib1.dll is taken
find_package(ZLIB REQUIRED)

# Header-only libraries live in the host's include folder also when cross-building. They are copied by
# link into a folder of their own so that no other host header is seen.
find_path(QORVA_JSON_INCLUDE nlohmann/json.hpp PATHS /usr/include REQUIRED NO_CMAKE_FIND_ROOT_PATH)
set(header_only ${PROJECT_BINARY_DIR}/header-only)
file(MAKE_DIRECTORY ${header_only})
file(CREATE_LINK ${QORVA_JSON_INCLUDE}/nlohmann ${header_only}/nlohmann SYMBOLIC COPY_ON_ERROR)
add_library(nlohmann_json INTERFACE)
target_include_directories(nlohmann_json SYSTEM INTERFACE ${header_only})

# minizip-ng: an installed one where there is one (vcpkg on Windows), else the sources that tools/setup
# has laid out.
set(QORVA_MINIZIP_DIR ${PROJECT_SOURCE_DIR}/build/deps/minizip-ng CACHE PATH "Sources of minizip-ng 4")
if(NOT EXISTS ${QORVA_MINIZIP_DIR}/mz_zip.c)
  find_package(minizip-ng CONFIG REQUIRED)
  add_library(minizip INTERFACE)
  target_link_libraries(minizip INTERFACE MINIZIP::minizip-ng)
  return()
endif()
set(mz_files mz_crypt mz_os mz_strm mz_strm_buf mz_strm_mem mz_strm_zlib mz_zip)
if(WIN32)
  list(APPEND mz_files mz_os_win32 mz_strm_os_win32)
else()
  list(APPEND mz_files mz_os_posix mz_strm_os_posix)
endif()
list(TRANSFORM mz_files PREPEND ${QORVA_MINIZIP_DIR}/)
list(TRANSFORM mz_files APPEND .c)
add_library(minizip STATIC ${mz_files})
target_include_directories(minizip SYSTEM PUBLIC ${QORVA_MINIZIP_DIR})
target_compile_definitions(minizip PUBLIC HAVE_STDINT_H HAVE_INTTYPES_H HAVE_ZLIB ZLIB_COMPAT
  MZ_ZIP_NO_CRYPTO MZ_ZIP_NO_ENCRYPTION MZ_ZIP_NO_COMPRESSION)
target_compile_options(minizip PRIVATE -w)
target_link_libraries(minizip PUBLIC ZLIB::ZLIB)
if(WIN32)
  target_compile_definitions(minizip PRIVATE _WIN32_WINNT=0x0A00)
  target_link_libraries(minizip PUBLIC bcrypt)
else()
  target_compile_definitions(minizip PRIVATE __USE_LARGEFILE64 _LARGEFILE64_SOURCE)
endif()
if(QORVA_SANITIZE)
  target_compile_options(minizip PRIVATE -fsanitize=${QORVA_SANITIZE} -fno-sanitize-recover=all)
endif()
if(QORVA_FUZZ)
  target_compile_options(minizip PRIVATE -fsanitize=fuzzer-no-link)
endif()
