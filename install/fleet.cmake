# SPDX-License-Identifier: MIT
# What a fleet takes, on its nodes and in the middle. Components: node, middle.
if(NOT ZKVIEW_FLEET)
  return()
endif()
install(TARGETS zelk-forward DESTINATION libexec/zelk COMPONENT node)
install(PROGRAMS ../fleet/zelk-spool DESTINATION libexec/zelk COMPONENT node)
install(PROGRAMS ../fleet/zelk-node-setup DESTINATION sbin COMPONENT node)
install(FILES ../fleet/zelk-export.service ../fleet/zelk-forward.service ../fleet/zelk-alive.service ../fleet/zelk-alive.timer
        DESTINATION lib/systemd/system COMPONENT node)
install(FILES ../man/zelk-node-setup.8 ../man/zelk-forward.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT node)

install(TARGETS zelk-gather COMPONENT middle)
install(PROGRAMS ../fleet/zelk-chain ../fleet/zelk-check ../fleet/zelk-page DESTINATION bin COMPONENT middle)
install(PROGRAMS ../fleet/zelk-middle-setup DESTINATION sbin COMPONENT middle)
install(FILES ../fleet/schema.sql ../fleet/schema-citus.sql DESTINATION share/zelk COMPONENT middle)
install(FILES ../fleet/zelk-gather.service ../fleet/zelk-page.service ../fleet/zelk-page.timer
        ../fleet/zelk-drop.service ../fleet/zelk-drop.timer
        DESTINATION lib/systemd/system COMPONENT middle)
install(FILES zkview-middle.sysusers DESTINATION lib/sysusers.d RENAME zkview-middle.conf COMPONENT middle)
install(FILES ../man/zelk-chain.1 ../man/zelk-check.1 ../man/zelk-page.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT middle)
install(FILES ../man/zelk-gather.8 ../man/zelk-middle-setup.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT middle)
