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
  # Takes a fifth of the time of the system's own.
  find_program(KELVANE_LLD ld.lld)
  if(KELVANE_LLD)
    add_link_options(-fuse-ld=lld)
  endif()
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
  if(TARGET kelvane_test_headers)
    target_precompile_headers(${name} REUSE_FROM kelvane_test_headers)
  endif()
  gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${ARG_TIMEOUT})
endfunction()

if(BUILD_TESTING)
  include(GoogleTest)
  # What nearly all tests begin with is half of their compile time. The release build goes without, so that each file
  # still has to include what it uses.
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    find_package(GTest REQUIRED)
    add_library(kelvane_test_headers STATIC "${CMAKE_CURRENT_LIST_DIR}/empty.cpp")
    target_link_libraries(kelvane_test_headers PRIVATE kelvane_options GTest::gmock)
    # Without the time it was made, it is the same for a compiler cache each time.
    target_compile_options(kelvane_test_headers PRIVATE -O0 "SHELL:-Xclang -fno-pch-timestamp")
    target_precompile_headers(
      kelvane_test_headers
      PRIVATE
        <gmock/gmock.h>
        <gtest/gtest.h>
        <algorithm>
        <chrono>
        <filesystem>
        <functional>
        <map>
        <memory>
        <optional>
        <string>
        <thread>
        <variant>
        <vector>)
  endif()
endif()
