# SPDX-License-Identifier: Apache-2.0
# How this project's libraries, programs and tests are built.

add_library(kelvane_options INTERFACE)
target_include_directories(kelvane_options INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_options(kelvane_options INTERFACE -Wall -Wextra -Wconversion -Werror)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(kelvane_options INTERFACE -Wthread-safety)
endif()
if(KELVANE_SANITIZERS)
  add_compile_options(-fsanitize=${KELVANE_SANITIZERS} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KELVANE_SANITIZERS})
endif()

# kelvane_library(NAME SOURCES ... [LINK ...])
function(kelvane_library name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;LINK")
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC kelvane_options ${ARG_LINK})
endfunction()

# kelvane_program(NAME SOURCES ... [LINK ...])
function(kelvane_program name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;LINK")
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE kelvane_options ${ARG_LINK})
endfunction()

# kelvane_test(NAME SOURCES ... [LINK ...] [TIMEOUT SECONDS]): one GoogleTest program, each of its tests a test of
# ctest's, which may take two minutes unless it says otherwise.
function(kelvane_test name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "TIMEOUT" "SOURCES;LINK")
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  find_package(GTest REQUIRED)
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE kelvane_options ${ARG_LINK} GTest::gmock GTest::gtest_main)
  # Test code takes longer to optimise than to run; what it tests is optimised all the same.
  target_compile_options(${name} PRIVATE -O0)
  gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${ARG_TIMEOUT})
endfunction()

if(BUILD_TESTING)
  include(GoogleTest)
endif()
