# Installation of the tool and the udev rule (the data source and its bundle
# install themselves), and the Debian package built by CPack.
if(TARGET zentary-scan)
  install(TARGETS zentary-scan RUNTIME DESTINATION bin)
endif()
install(FILES ${PROJECT_SOURCE_DIR}/resources/udev/70-zentary-q305.rules DESTINATION lib/udev/rules.d)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zentary-q305)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Zentary Q305 driver team <zentary@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "TWAIN data source and scanning tool for the Tarvell Zentary Q305")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Installed into a staging DESTDIR with the prefix /usr itself, so that the
# install rules see the system prefix and put the data source under
# /usr/local/lib/twain (see ZENTARY_TWAIN_INSTALL_DIR).
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION graphics)
# Library dependencies come from the binaries themselves.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "systemd")
# The SANE backend: what libsane needs to load it, its configuration kept
# as the administrator's (conffiles), and a scanner that is already plugged in
# given its access rights at once (postinst) rather than at the next plug-in.
if(TARGET sane-zentary)
  string(APPEND CPACK_DEBIAN_PACKAGE_RECOMMENDS ", libsane1")
  set(CPACK_DEBIAN_PACKAGE_SUGGESTS "sane-utils")
  set(sane_etc /etc/sane.d)  # where it goes with the package's prefix /usr
  if(ZENTARY_SANE_CONFIG_DIR)
    set(sane_etc ${ZENTARY_SANE_CONFIG_DIR})
  endif()
  if(sane_etc MATCHES "^/etc/")
    file(WRITE ${CMAKE_BINARY_DIR}/debian/conffiles "${sane_etc}/zentary.conf\n${sane_etc}/dll.d/zentary\n")
    list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/debian/conffiles)
  endif()
endif()
list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/postinst)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
