# SPDX-License-Identifier: MIT
# What Debian asks of the files of a package, done to each before it is made.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()

foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(root ${CPACK_TEMPORARY_DIRECTORY}/${component})
  set(share ${root}${CPACK_PACKAGING_INSTALL_PREFIX}/share)

  # The copyright file holds the licence, changelogs have names of their own.
  file(REMOVE ${share}/doc/zkview/LICENSE)
  if(EXISTS ${share}/doc/zkview/README.md)
    file(READ ${share}/doc/zkview/README.md readme)
    string(REPLACE "(LICENSE)" "(copyright)" readme "${readme}")
    file(WRITE ${share}/doc/zkview/README.md "${readme}")
  endif()
  if(EXISTS ${share}/doc/zkview/CHANGELOG.md)
    file(RENAME ${share}/doc/zkview/CHANGELOG.md ${share}/doc/zkview/changelog)
  endif()
  configure_file(${CPACK_DEBIAN_TEMPLATES}/changelog ${share}/doc/${package}/changelog.Debian @ONLY)
  configure_file(${CPACK_DEBIAN_TEMPLATES}/../copyright ${share}/doc/${package}/copyright COPYONLY)
  file(READ ${CPACK_DEBIAN_TEMPLATES}/lintian overrides)
  if(EXISTS ${CPACK_DEBIAN_TEMPLATES}/lintian-${package})
    file(READ ${CPACK_DEBIAN_TEMPLATES}/lintian-${package} own)
    string(APPEND overrides "${own}")
  endif()
  file(WRITE ${share}/lintian/overrides/${package} "${overrides}")

  file(GLOB texts ${share}/man/*/* ${share}/doc/*/changelog*)
  execute_process(COMMAND gzip -9n ${texts} COMMAND_ERROR_IS_FATAL ANY)
  file(GLOB_RECURSE archives ${root}/*.a)
  if(archives)
    execute_process(COMMAND strip --strip-debug --remove-section=.comment --enable-deterministic-archives ${archives}
                    COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
