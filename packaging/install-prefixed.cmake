# Runs at install time (cmake --install, cpack), when the prefix is known:
# installs the files whose place or text depends on it. file(INSTALL) puts
# DESTDIR in front of every destination, as install() rules do.
set(prefix "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/+$" "" prefix "${prefix}")

# Configuration goes to /etc for the system prefix /usr, else under the
# prefix (/usr/local/etc), the usual split of GNU installs.
if(prefix STREQUAL "/usr")
  set(sysconfdir /etc)
else()
  set(sysconfdir "${prefix}/etc")
endif()
# Never korvane.pf itself: only the example, which a later install may
# replace; the administrator's copy stays untouched.
file(INSTALL "${KORVANE_SOURCE_DIR}/docs/korvane.pf.example"
  DESTINATION "${sysconfdir}")

# The unit must start the program of this install, wherever it went.
set(KORVANE_BINDIR "${prefix}/bin")
configure_file("${KORVANE_PACKAGING}/korvane@.service.in"
  "${KORVANE_GENERATED}/korvane@.service" @ONLY)
file(INSTALL "${KORVANE_GENERATED}/korvane@.service"
  DESTINATION "${prefix}/lib/systemd/system")
