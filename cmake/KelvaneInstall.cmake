# SPDX-License-Identifier: Apache-2.0
# What is installed is known when it is: the prefix may be another then. With /usr, settings and descriptions go where
# the daemon looks for them, beneath /etc and /System. With any other prefix nothing is written outside it: they are for
# somebody to look at, or to be copied there.

# Makes the paths of this installation known to the code of an installation.
set(KELVANE_INSTALL_PATHS "
  set(KELVANE_SYSTEM_ROOT \"\${CMAKE_INSTALL_PREFIX}\")
  if(CMAKE_INSTALL_PREFIX MATCHES \"^(/usr)?/*$\")
    set(KELVANE_SYSTEM_ROOT \"\")
  endif()
  set(KELVANE_BIN_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
  set(KELVANE_PROGRAM_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBEXECDIR}\")
  set(KELVANE_LIB_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}\")
  set(KELVANE_INCLUDE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_INCLUDEDIR}\")
  set(KELVANE_DOC_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DOCDIR}\")
  set(KELVANE_VERSION \"${PROJECT_VERSION}\")")

# kelvane_install_templates(DESTINATION FILE...): files that name paths of the installation, as @KELVANE_DOC_DIRECTORY@,
# and may end in .in, to a directory beneath the prefix.
function(kelvane_install_templates destination)
  foreach(file ${ARGN})
    get_filename_component(path "${file}" ABSOLUTE)
    get_filename_component(name "${file}" NAME)
    string(REGEX REPLACE "\\.in$" "" name "${name}")
    set(output "${CMAKE_CURRENT_BINARY_DIR}/installed")
    file(MAKE_DIRECTORY "${output}")
    install(CODE "${KELVANE_INSTALL_PATHS}
      configure_file(\"${path}\" \"${output}/${name}\" @ONLY)
      file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${destination}\" TYPE FILE FILES \"${output}/${name}\")")
  endforeach()
endfunction()

# kelvane_install_system(DIRECTORY [FILE...]): a directory at a path of its own, such as /etc/kelvane, and files for it.
function(kelvane_install_system directory)
  install(CODE "${KELVANE_INSTALL_PATHS}
    file(INSTALL DESTINATION \"\${KELVANE_SYSTEM_ROOT}${directory}\" TYPE DIRECTORY FILES \"\")")
  foreach(file ${ARGN})
    get_filename_component(path "${file}" ABSOLUTE)
    install(CODE "${KELVANE_INSTALL_PATHS}
      file(INSTALL DESTINATION \"\${KELVANE_SYSTEM_ROOT}${directory}\" TYPE FILE FILES \"${path}\")")
  endforeach()
endfunction()
