# SPDX-License-Identifier: MIT
# find_package(zkview): zkview::qx_record, zkview::qx_zelk and zkview::qx_cu, the components.
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

foreach(name ${zkview_FIND_COMPONENTS})
  if(TARGET zkview::${name})
    set(zkview_${name}_FOUND TRUE)
  elseif(zkview_FIND_REQUIRED_${name})
    set(zkview_FOUND FALSE)
    set(zkview_NOT_FOUND_MESSAGE "There is no component ${name}.")
  endif()
endforeach()
