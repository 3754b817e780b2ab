# What a gateway needs besides the programs: the manual pages, the bash
# completions, the start script for BusyBox init; and the Debian package of it
# all (cpack -G DEB in the build directory).

install(FILES ${PROJECT_SOURCE_DIR}/man/watchdogd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${PROJECT_SOURCE_DIR}/man/wdctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${PROJECT_SOURCE_DIR}/completions/wdctl
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
if(WD_INSTALL_PLATFORM)
  install(FILES ${PROJECT_SOURCE_DIR}/man/tcapi.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES ${PROJECT_SOURCE_DIR}/completions/tcapi
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
endif()

# The start script goes to /etc/init.d when the programs go to /usr (a
# firmware image or the package), else beside them under the prefix.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" OR CMAKE_INSTALL_PREFIX STREQUAL "/")
  set(WD_INITDIR_DEFAULT /etc/init.d)
else()
  set(WD_INITDIR_DEFAULT ${CMAKE_INSTALL_SYSCONFDIR}/init.d)
endif()
set(WD_INITDIR ${WD_INITDIR_DEFAULT} CACHE STRING "Where the BusyBox init start script goes")
set(WD_DAEMON ${CMAKE_INSTALL_FULL_SBINDIR}/watchdogd)
set(WD_WDCTL ${CMAKE_INSTALL_FULL_BINDIR}/wdctl)
configure_file(${PROJECT_SOURCE_DIR}/packaging/S60watchdogd.in ${CMAKE_BINARY_DIR}/S60watchdogd @ONLY)
install(PROGRAMS ${CMAKE_BINARY_DIR}/S60watchdogd DESTINATION ${WD_INITDIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME watchdogd)
set(CPACK_PACKAGE_CONTACT "watchdogd maintainers <maintainers@users.noreply.c-seed-7420e859.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "supervision daemon for DSL home gateways")
set(CPACK_PACKAGE_DESCRIPTION
  "Checks the PPPoE link, the TR-069 client, VoIP, the service processes and the
network tables, and relays its reports to syslog-ng with acknowledgements,
keeping unacknowledged reports in flash across restarts.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Our own platform libraries are in the package itself.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/platform)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "syslog-ng-core, busybox")
set(CPACK_STRIP_FILES ON)
include(CPack)
