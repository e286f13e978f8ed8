# SPDX-License-Identifier: MIT
# find_package(zkview): zkview::qx_record, zkview::qx_zelk and zkview::qx_cu.
include(${CMAKE_CURRENT_LIST_DIR}/zkview-targets.cmake)

# They need nothing of the C++ library: a C program is linked as one.
foreach(name qx_record qx_zelk qx_cu)
  if(TARGET zkview::${name})
    get_target_property(configurations zkview::${name} IMPORTED_CONFIGURATIONS)
    foreach(configuration ${configurations})
      set_property(TARGET zkview::${name} PROPERTY IMPORTED_LINK_INTERFACE_LANGUAGES_${configuration} C)
    endforeach()
  endif()
endforeach()
