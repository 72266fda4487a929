# Where `cmake --install` puts what belongs to no target. Packages are made of that
# by the folder debian/, see scripts/package.
set(VESK_CONF_DIR "${CMAKE_INSTALL_FULL_SYSCONFDIR}/vesk" CACHE PATH
    "Folder of the settings of vesk-host's service")
set(VESK_UNIT_DIR "/usr/lib/systemd/system" CACHE PATH "Folder of systemd's units")
foreach(file vesk-host.conf vesk-host.service)
  configure_file("packaging/${file}.in" "${PROJECT_BINARY_DIR}/packaging/${file}" @ONLY)
endforeach()
install(FILES "${PROJECT_BINARY_DIR}/packaging/vesk-host.conf"
        DESTINATION "${VESK_CONF_DIR}")
install(FILES "${PROJECT_BINARY_DIR}/packaging/vesk-host.service"
        DESTINATION "${VESK_UNIT_DIR}")
install(FILES packaging/vesk.lua packaging/vesk-alerts.yml packaging/vesk-grafana.json
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/vesk")
install(DIRECTORY host/examples/htdocs
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/vesk-host")

foreach(page mod_nsapi.8 vesk-backend.1 vesk-ctl.1 vesk-host.1)
  string(REGEX REPLACE ".*\\." "" section "${page}")
  install(FILES "docs/man/${page}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}")
endforeach()
install(FILES packaging/vesk-ctl.bash RENAME vesk-ctl
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions")
install(FILES README.md CHANGES.md docs/behaviour.md docs/guards.md docs/httpd.md
  docs/from-other-connectors.md docs/operations.md
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/vesk-connector")
