# Install rules and the .deb packages.
#   cmake --install build --prefix /usr/local     (DESTDIR is honoured)
#   cpack  (in a tree configured with CMAKE_INSTALL_PREFIX=/usr)
# Installs the relay and the tools that exist, the man pages, the example
# parameter file and the systemd unit template. A real korvane.pf is never
# installed: it belongs to the administrator.

set(KORVANE_PACKAGING ${PROJECT_SOURCE_DIR}/packaging)
set(KORVANE_GENERATED ${PROJECT_BINARY_DIR}/install)

# --- Programs (the targets exist only once their sources do) ---
set(CPACK_KORVANE_PROGRAMS)
foreach(program korvane dlsim dlping)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION bin)
    # The build puts every program at the top of the build tree.
    list(APPEND CPACK_KORVANE_PROGRAMS ${PROJECT_BINARY_DIR}/${program})
  endif()
endforeach()

# --- Compressed documentation, rebuilt when its source changes ---
# gzip -n leaves out the name and time stamp, so the files (and packages)
# come out the same on every build.
function(korvane_gzip source output)
  add_custom_command(OUTPUT ${output}
    COMMAND sh -c "gzip -9n -c '${source}' > '${output}'"
    DEPENDS ${source}
    VERBATIM)
endfunction()

# The manual pages get the version of the project() line in their .TH line
# (packaging/manpage.cmake), then are compressed.
set(KORVANE_MANPAGES)
function(korvane_manpage source section)
  get_filename_component(name ${source} NAME)
  set(page ${KORVANE_GENERATED}/${name})
  add_custom_command(OUTPUT ${page}.gz
    COMMAND ${CMAKE_COMMAND} -DSOURCE=${source} -DOUTPUT=${page} -DVERSION=${PROJECT_VERSION}
            -P ${KORVANE_PACKAGING}/manpage.cmake
    COMMAND sh -c "gzip -9n -c '${page}' > '${page}.gz'"
    DEPENDS ${source} ${KORVANE_PACKAGING}/manpage.cmake
    VERBATIM)
  install(FILES ${page}.gz DESTINATION share/man/man${section})
  set(KORVANE_MANPAGES ${KORVANE_MANPAGES} ${page}.gz PARENT_SCOPE)
endfunction()

file(MAKE_DIRECTORY ${KORVANE_GENERATED})
korvane_manpage(${PROJECT_SOURCE_DIR}/docs/korvane.1 1)
korvane_manpage(${PROJECT_SOURCE_DIR}/docs/korvane.pf.5 5)
# A tool's page only with the tool.
foreach(tool dlsim dlping)
  if(TARGET ${tool})
    korvane_manpage(${PROJECT_SOURCE_DIR}/docs/${tool}.1 1)
  endif()
endforeach()
korvane_gzip(${KORVANE_PACKAGING}/changelog ${KORVANE_GENERATED}/changelog.gz)
add_custom_target(korvane_docs ALL DEPENDS ${KORVANE_MANPAGES} ${KORVANE_GENERATED}/changelog.gz)

install(FILES
  ${PROJECT_SOURCE_DIR}/docs/korvane.pf.example
  ${KORVANE_PACKAGING}/copyright
  ${KORVANE_GENERATED}/changelog.gz
  DESTINATION share/doc/korvane)

# --- Files whose place or text depends on the prefix given at install time ---
# `cmake --install --prefix P` may name another prefix than the one
# configured, so the unit's ExecStart and the configuration directory are
# worked out when installing: P/bin/korvane, and /etc for the prefix /usr
# (the package) but P/etc otherwise (/usr/local/etc for a local install).
install(CODE "set(KORVANE_PACKAGING \"${KORVANE_PACKAGING}\")
set(KORVANE_SOURCE_DIR \"${PROJECT_SOURCE_DIR}\")
set(KORVANE_GENERATED \"${KORVANE_GENERATED}\")")
install(SCRIPT ${KORVANE_PACKAGING}/install-prefixed.cmake)

# --- Debian packages ---
# One package per build tree: build-pkg (this machine's architecture) and
# build-armhf (cross, cmake/toolchain-armhf.cmake), both configured with
# CMAKE_INSTALL_PREFIX=/usr; `make package` runs cpack in both.
if(NOT KORVANE_DEB_ARCH)
  execute_process(COMMAND dpkg --print-architecture
    OUTPUT_VARIABLE KORVANE_DEB_ARCH OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
# A 32-bit box must outlive January 2038: refuse to build for it with a
# 32-bit time_t (cmake/toolchain-armhf.cmake asks for the 64-bit one).
if(KORVANE_DEB_ARCH STREQUAL "armhf")
  include(CheckCXXSourceCompiles)
  check_cxx_source_compiles([[
#include <sys/types.h>
#include <ctime>
static_assert(sizeof(std::time_t) == 8 && sizeof(off_t) == 8);
int main() { return 0; }]] KORVANE_TIME64)
  if(NOT KORVANE_TIME64)
    message(FATAL_ERROR "armhf build with a 32-bit time_t or off_t: "
      "compile with -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")
  endif()
endif()
# The one maintainer identity, also in packaging/changelog and
# packaging/copyright.
set(KORVANE_MAINTAINER "korvane developers <korvane@example.org>")

# The package's changelog must speak of the version being packaged.
file(STRINGS ${KORVANE_PACKAGING}/changelog korvane_changelog_top LIMIT_COUNT 1)
if(NOT korvane_changelog_top MATCHES "^korvane \\(${PROJECT_VERSION}\\) ")
  message(WARNING "packaging/changelog does not begin with version ${PROJECT_VERSION}")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME korvane)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${KORVANE_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "relay between UDP clients and a Q330 datalogger on a serial SLIP line")
set(CPACK_PACKAGE_DESCRIPTION
"korvane lets ordinary UDP clients on a network talk to a Q330 seismic
datalogger connected by a serial line that carries IPv4/UDP framed with
SLIP. It terminates the line in user space (SLIP framing, IPv4 and UDP
headers and checksums) and maps UDP ports of the host to UDP ports of the
datalogger, as set in /etc/korvane.pf. The korvane@.service template runs
one relay per datalogger line as an unprivileged user.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${KORVANE_DEB_ARCH})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# adduser for the postinst; the libraries are added at packaging time from
# what the programs really link (packaging/cpack-depends.cmake).
set(CPACK_DEBIAN_PACKAGE_DEPENDS adduser)
set(CPACK_PROJECT_CONFIG_FILE ${KORVANE_PACKAGING}/cpack-depends.cmake)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${KORVANE_PACKAGING}/postinst
  ${KORVANE_PACKAGING}/prerm
  ${KORVANE_PACKAGING}/postrm
  ${KORVANE_PACKAGING}/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
# Install into a staging DESTDIR under the package's own prefix, so that the
# files meant for /etc land in the package and never on this machine.
set(CPACK_SET_DESTDIR ON)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
include(CPack)
