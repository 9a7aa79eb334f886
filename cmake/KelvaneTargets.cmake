# SPDX-License-Identifier: Apache-2.0
# How this project's libraries, programs and tests are built.

add_library(kelvane_options INTERFACE)
target_include_directories(kelvane_options INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_options(kelvane_options INTERFACE -Wall -Wextra -Wconversion)
if(KELVANE_WARNINGS_ARE_ERRORS)
  target_compile_options(kelvane_options INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(kelvane_options INTERFACE -Wthread-safety)
endif()
if(KELVANE_SANITIZERS)
  add_compile_options(-fsanitize=${KELVANE_SANITIZERS} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KELVANE_SANITIZERS})
endif()

# Takes a fifth of the time of the system's own, with which the release is linked.
find_program(KELVANE_LLD ld.lld)
if(KELVANE_LLD AND KELVANE_SANITIZERS)
  add_link_options(-fuse-ld=lld)
endif()

# Undefined behaviour is looked for in what is tested: for tests as well it would take a third of their compile time.
set(KELVANE_TEST_OPTIONS -O0)
if(KELVANE_SANITIZERS MATCHES "undefined")
  list(APPEND KELVANE_TEST_OPTIONS -fno-sanitize=undefined)
endif()

# kelvane_headers(NAME LINK ... OPTIONS ... HEADERS ...): headers that others of this project's targets begin with once.
function(kelvane_headers name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "LINK;OPTIONS;HEADERS")
  add_library(${name} STATIC "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/empty.cpp")
  target_link_libraries(${name} PRIVATE kelvane_options ${ARG_LINK})
  target_compile_options(${name} PRIVATE ${ARG_OPTIONS})
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # Without the time it was made, it is the same for a compiler cache each time.
    target_compile_options(${name} PRIVATE "SHELL:-Xclang -fno-pch-timestamp")
  endif()
  target_precompile_headers(${name} PRIVATE ${ARG_HEADERS})
endfunction()

# What nearly all files begin with is a quarter of the compile time. What the release build ships goes without, so that
# each file of it still has to include what it uses.
set(KELVANE_COMMON_HEADERS
    <algorithm> <chrono> <functional> <map> <memory> <optional> <string> <string_view> <utility> <variant> <vector>)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  kelvane_headers(kelvane_product_headers HEADERS ${KELVANE_COMMON_HEADERS})
endif()
if(BUILD_TESTING)
  find_package(GTest REQUIRED)
  kelvane_headers(
    kelvane_test_headers
    LINK GTest::gmock
    OPTIONS ${KELVANE_TEST_OPTIONS} -g1
    HEADERS <gmock/gmock.h> <gtest/gtest.h> <filesystem> <thread> ${KELVANE_COMMON_HEADERS})
endif()

# Has a target begin with such headers, where there are any.
function(kelvane_begin_with name headers)
  if(TARGET ${headers})
    target_precompile_headers(${name} REUSE_FROM ${headers})
  endif()
endfunction()

# kelvane_library(NAME SOURCES ... [LINK ...])
function(kelvane_library name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;LINK")
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC kelvane_options ${ARG_LINK})
  kelvane_begin_with(${name} kelvane_product_headers)
endfunction()

# kelvane_program(NAME SOURCES ... [LINK ...])
function(kelvane_program name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;LINK")
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE kelvane_options ${ARG_LINK})
  kelvane_begin_with(${name} kelvane_product_headers)
endfunction()

# kelvane_test(NAME [SEQUENTIAL] SOURCES ... [LINK ...] [TIMEOUT SECONDS]): one GoogleTest program, each of its tests a
# test of ctest's, which may take two minutes unless it says otherwise. The thread sanitizer's build goes without those
# that are sequential, and those of the simulated platform, which lets one thread run at a time: they have no races to be
# found.
function(kelvane_test name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "SEQUENTIAL" "TIMEOUT" "SOURCES;LINK")
  if(KELVANE_SANITIZERS MATCHES "thread" AND (ARG_SEQUENTIAL OR "kelvane_platform_simulated" IN_LIST ARG_LINK))
    return()
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  find_package(GTest REQUIRED)
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE kelvane_options ${ARG_LINK} GTest::gmock GTest::gtest_main)
  # Test code takes longer to optimise than to run, and longer to describe to a debugger than lines; what it tests is
  # optimised and described all the same.
  target_compile_options(${name} PRIVATE ${KELVANE_TEST_OPTIONS} -g1)
  if(KELVANE_LLD)
    target_link_options(${name} PRIVATE -fuse-ld=lld)
  endif()
  kelvane_begin_with(${name} kelvane_test_headers)
  gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${ARG_TIMEOUT})
endfunction()

if(BUILD_TESTING)
  include(GoogleTest)
endif()
