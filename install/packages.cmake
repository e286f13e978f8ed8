# SPDX-License-Identifier: MIT
# Packages by CPack, one for each component: what script/package makes.
set(ZKVIEW_PACKAGER "the zkview authors <zkview@localhost>" CACHE STRING "Who answers for the packages")
set(release 1)

set(CPACK_PACKAGE_NAME zkview)
set(CPACK_PACKAGE_VENDOR "the zkview authors")
set(CPACK_PACKAGE_CONTACT ${ZKVIEW_PACKAGER})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL "")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${release})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=") # the SONAME changes with what is no longer compatible
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_TEMPLATES ${CMAKE_CURRENT_SOURCE_DIR}/debian)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/debian.cmake)

set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_PACKAGE_RELEASE ${release})
set(CPACK_RPM_PACKAGE_LICENSE MIT)
set(CPACK_RPM_PACKAGE_RELOCATABLE OFF)
set(CPACK_RPM_SPEC_MORE_DEFINE "%define _build_id_links none")
# Folders that belong to other packages.
foreach(locale ${catalog_locales})
  list(APPEND locale_folders share/locale/${locale} share/locale/${locale}/LC_MESSAGES)
endforeach()
foreach(folder sbin libexec lib/systemd lib/systemd/system lib/sysusers.d lib/tmpfiles.d lib64/cmake lib64/pkgconfig share/bash-completion
               share/bash-completion/completions share/fish share/fish/vendor_completions.d
               share/fish/vendor_functions.d share/locale ${locale_folders} share/man share/man/man1 share/man/man3
               share/man/man5 share/man/man7 share/man/man8 share/zsh share/zsh/site-functions)
  list(APPEND CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION ${CMAKE_INSTALL_PREFIX}/${folder})
endforeach()

# Makes the component a package.
macro(add_package component deb_name rpm_name section summary description)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${deb_name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n${description}")
  set(CPACK_RPM_${upper}_PACKAGE_NAME ${rpm_name})
  set(CPACK_RPM_${upper}_FILE_NAME RPM-DEFAULT)
  set(CPACK_RPM_${upper}_PACKAGE_SUMMARY "${summary}")
  set(CPACK_RPM_${upper}_PACKAGE_DESCRIPTION "${description}")
endmacro()

add_package(zkview zkview zkview admin "report the Error Stacks of this node"
"When something fails on a node, its programs record the incident in an Error
Stack, a file of fixed size that holds the newest incidents. zkview reports
what such a file holds: in order of recording, by chain of cause, or by
process. zkrecord records an incident for a script, zkdecode shows what an
Error ID says, and zkexport gives incidents as lines of JSON, as a graph and
as a page.")
set(scripts ${CMAKE_CURRENT_SOURCE_DIR}/debian)
set(CPACK_DEBIAN_ZKVIEW_PACKAGE_DEPENDS "passwd, systemd | systemd-tmpfiles")
set(CPACK_DEBIAN_ZKVIEW_PACKAGE_SUGGESTS "graphviz, jq")
set(CPACK_DEBIAN_ZKVIEW_PACKAGE_CONTROL_EXTRA ${scripts}/postinst ${scripts}/postrm)
set(CPACK_RPM_ZKVIEW_PACKAGE_REQUIRES systemd)
set(CPACK_RPM_ZKVIEW_POST_INSTALL_SCRIPT_FILE ${scripts}/postinst)

if(ZKVIEW_FLEET)
  add_package(node zkview-node zkview-node admin "send the incidents of this node to the middle of a fleet"
"What the Error Stacks of this node show is sent to a machine in the middle,
where one database has the incidents of all nodes. Nothing is sent until
zelk-node-setup has been told where that is.")
  set(CPACK_DEBIAN_NODE_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_NODE_PACKAGE_DEPENDS "zkview (>= ${PROJECT_VERSION}-${release}), openssl")
  set(CPACK_RPM_NODE_PACKAGE_REQUIRES "zkview >= ${PROJECT_VERSION}, openssl")
  set(CPACK_DEBIAN_NODE_PACKAGE_CONTROL_EXTRA ${scripts}/node/postinst ${scripts}/node/prerm ${scripts}/node/postrm)

  add_package(middle zkview-middle zkview-middle admin "gather the incidents of many nodes in one database"
"Takes the incidents of any number of nodes into a database of PostgreSQL,
follows causes across nodes, makes pages of them and watches that they arrive.
Nothing is taken until zelk-middle-setup has made database and certificates.")
  set(CPACK_DEBIAN_MIDDLE_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_MIDDLE_PACKAGE_DEPENDS
      "zkview (>= ${PROJECT_VERSION}-${release}), openssl, postgresql-client, python3:any, systemd")
  set(CPACK_DEBIAN_MIDDLE_PACKAGE_RECOMMENDS postgresql)
  set(CPACK_RPM_MIDDLE_PACKAGE_REQUIRES "zkview >= ${PROJECT_VERSION}, openssl, postgresql, python3, systemd")
  set(CPACK_DEBIAN_MIDDLE_PACKAGE_CONTROL_EXTRA ${scripts}/middle/postinst ${scripts}/middle/prerm ${scripts}/middle/postrm)
endif()

add_package(dev libzkview-dev zkview-devel libdevel "record incidents in Error Stacks: development files"
"Headers, libraries and manual pages for programs that record incidents: making
and decoding Error IDs, node addresses, the debug trace file, descriptions.")
set(deb_needs libc6-dev)
set(rpm_needs glibc-devel)

if(BUILD_SHARED_LIBS)
  set(qx_zelk_summary "Error IDs and trace files for programs that record incidents")
  set(qx_zelk_description
"Makes and decodes Error IDs, which name an incident by place, time and node.
Writes the debug trace file that all programs of a node share, preserves dump
files and reserves the space of new files.")
  set(qx_record_summary "record incidents in Error Stacks")
  set(qx_record_description
"Writes records into the Error Stacks that zkview reports, from any number of
processes and threads at a time. What has been recorded is found again, however
the program that recorded it came to its end.")
  set(qx_cu_summary "descriptions of incidents as texts")
  set(qx_cu_description
"Makes the description of an incident from a message of a catalog, or from its
default, and the arguments that were recorded. Neither a damaged catalog nor
arguments that do not fit lead it astray.")
  foreach(name ${libraries})
    set(rpm_name lib${name}${PROJECT_VERSION_MAJOR})
    string(REPLACE _ - deb_name ${rpm_name})
    add_package(${name} ${deb_name} ${rpm_name} libs "${${name}_summary}" "${${name}_description}")
    set(CPACK_DEBIAN_${upper}_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA ${scripts}/triggers)
    string(APPEND deb_needs ", ${deb_name} (= ${PROJECT_VERSION}-${release})")
    string(APPEND rpm_needs ", ${rpm_name} = ${PROJECT_VERSION}-${release}")
  endforeach()
  set(CPACK_DEBIAN_QX_RECORD_PACKAGE_DEPENDS
      "libqx-zelk${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}-${release})")
endif()
if(TARGET unit-failure)
  add_package(sources zkview-sources zkview-sources admin "record incidents that nobody records"
"Records every service of systemd that fails in an Error Stack: the result in
words, the newest lines of its journal, and as its cause what its processes
recorded last, or the failure of a unit that it needs. The same failure is
recorded once an hour.")
  set(CPACK_DEBIAN_SOURCES_PACKAGE_DEPENDS "zkview (= ${PROJECT_VERSION}-${release}), systemd (>= 251)")
  set(CPACK_DEBIAN_SOURCES_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_SOURCES_PACKAGE_CONTROL_EXTRA ${scripts}/sources/postinst ${scripts}/sources/postrm)
  set(CPACK_RPM_SOURCES_PACKAGE_REQUIRES "zkview = ${PROJECT_VERSION}-${release}, systemd >= 251")
endif()
if(BUILD_SHARED_LIBS AND ZKVIEW_PYTHON_DIR)
  add_package(python python3-zelk python3-zelk python "record incidents from Python"
"Records what a Python program tells, logs, or ends by in Error Stacks. An
exception that was raised from another becomes two incidents, of which the
first is the cause of the second.")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
      "python3 (>= 3.9), libqx-record${PROJECT_VERSION_MAJOR} (>= ${PROJECT_VERSION}-${release})")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA ${scripts}/python/postinst ${scripts}/python/prerm)
endif()
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS ${deb_needs})
set(CPACK_RPM_DEV_PACKAGE_REQUIRES ${rpm_needs})

include(CPack)
