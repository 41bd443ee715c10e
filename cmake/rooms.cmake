# One library target per room. A file named *_win32.cpp is compiled for Windows only, a file named
# *_native.cpp everywhere else only, and every other file on both.

# Sets OUT to the files of the list that this system compiles.
function(qorva_files_for_this_system out)
  set(files ${ARGN})
  if(WIN32)
    list(FILTER files EXCLUDE REGEX "_native\\.cpp$")
  else()
    list(FILTER files EXCLUDE REGEX "_win32\\.cpp$")
    list(FILTER files EXCLUDE REGEX "\\.rc$")
  endif()
  set(${out} ${files} PARENT_SCOPE)
endfunction()

# qorva_room(<name> FLOOR <n> SOURCES <files> [USES <rooms>] [LIBS <outside libraries>]
#            [WIN32_LIBS <import libraries>])
# USES lists the rooms that the sources may include; tools/check-rooms checks them.
function(qorva_room name)
  cmake_parse_arguments(ROOM "" "FLOOR" "SOURCES;USES;LIBS;WIN32_LIBS" ${ARGN})
  qorva_files_for_this_system(sources ${ROOM_SOURCES})
  add_library(${name} STATIC ${sources})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PRIVATE qorva_warnings PUBLIC qorva_options ${ROOM_USES} ${ROOM_LIBS})
  if(WIN32)
    target_link_libraries(${name} PUBLIC ${ROOM_WIN32_LIBS})
  endif()
endfunction()

# qorva_room_tests(<room> SOURCES <files> [USES <more libraries>] [TIMEOUT <seconds>])
# One test program per room, named <room>_tests.
function(qorva_room_tests room)
  cmake_parse_arguments(TESTS "" "TIMEOUT" "SOURCES;USES" ${ARGN})
  qorva_files_for_this_system(sources ${TESTS_SOURCES})
  if(NOT sources)
    return()
  endif()
  set(program ${room}_tests)
  add_executable(${program} ${sources})
  target_include_directories(${program} PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${program} PRIVATE qorva_warnings ${room} ${TESTS_USES} test_support GTest::gtest_main)
  add_test(NAME ${program} COMMAND ${program} --gtest_brief=1)
  if(NOT TESTS_TIMEOUT)
    set(TESTS_TIMEOUT 120)
  endif()
  set_tests_properties(${program} PROPERTIES TIMEOUT ${TESTS_TIMEOUT})
  if(WIN32)
    # On Windows the tests that fill a volume share one small drive.
    set_tests_properties(${program} PROPERTIES RESOURCE_LOCK small_drive)
  endif()
endfunction()

# Gives a Windows program a build id and a link map, and moves its symbols to a file beside it, which is
# not shipped.
function(qorva_split_symbols program)
  target_link_options(${program} PRIVATE -Wl,--build-id -Wl,-Map=$<TARGET_FILE:${program}>.map)
  add_custom_command(TARGET ${program} POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${program}> $<TARGET_FILE:${program}>.debug
    COMMAND ${CMAKE_STRIP} --strip-all $<TARGET_FILE:${program}>
    COMMAND ${CMAKE_OBJCOPY} --add-gnu-debuglink=$<TARGET_FILE:${program}>.debug $<TARGET_FILE:${program}>
    VERBATIM)
endfunction()
