# SPDX-License-Identifier: Apache-2.0
# Tests written in Python, with its standard library and, where D-Bus is spoken, GLib.

find_program(KELVANE_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)

# kelvane_python_test(NAME SCRIPT [COMMAND ...]): one program of unittest's, run by COMMAND if there is one. It finds the
# programs built in KELVANE_BUILD.
function(kelvane_python_test name script)
  cmake_parse_arguments(PARSE_ARGV 2 ARG "" "" "COMMAND")
  add_test(NAME ${name} COMMAND ${ARG_COMMAND} "${KELVANE_PYTHON}" -B "${CMAKE_CURRENT_SOURCE_DIR}/${script}")
  set_tests_properties(${name} PROPERTIES ENVIRONMENT "KELVANE_BUILD=${PROJECT_BINARY_DIR}" TIMEOUT 120)
endfunction()
