# Where `cmake --install` puts what belongs to no target, and what `cpack -G DEB`
# makes of it. Include it last.
foreach(page mod_nsapi.8 vesk-backend.1 vesk-host.1)
  set(file "${PROJECT_SOURCE_DIR}/docs/man/${page}")
  if(EXISTS "${file}")
    string(REGEX REPLACE ".*\\." "" section "${page}")
    install(FILES "${file}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}")
  endif()
endforeach()
install(FILES README.md CHANGES.md docs/httpd.md
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/vesk-connector" OPTIONAL)

# With Ninja, cpack builds nothing by itself: a folder in which only some targets
# were built would have nothing to install for the others.
set(shipped veskconnector vesk-host vesk-backend)
if(TARGET mod_nsapi)
  list(APPEND shipped mod_nsapi)
endif()
list(JOIN shipped " " shipped)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_INSTALL_COMMANDS
  "\"${CMAKE_COMMAND}\" --build \"${PROJECT_BINARY_DIR}\" --target ${shipped}")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vesk-connector)
set(CPACK_PACKAGE_VENDOR Vesk)
set(CPACK_PACKAGE_CONTACT "Vesk <vesk@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_STRIP_FILES ON)
# Some files go to absolute places: httpd decides where it looks for them.
set(CPACK_SET_DESTDIR ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION httpd)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(TARGET mod_nsapi)
  set(control "${PROJECT_BINARY_DIR}/packaging")
  configure_file(packaging/conffiles.in "${control}/conffiles" @ONLY)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "apache2, apache2-api-20120211")
  set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    "${control}/conffiles"
    "${PROJECT_SOURCE_DIR}/packaging/postinst"
    "${PROJECT_SOURCE_DIR}/packaging/prerm"
    "${PROJECT_SOURCE_DIR}/packaging/postrm")
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
