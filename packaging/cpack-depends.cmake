# Read by cpack before it builds the package: completes Depends with the
# shared libraries that the packaged programs link, each with the lowest
# version that defines every symbol version the programs use.
#
# The programs' own ELF version needs (readelf -V) are looked up in the
# Debian symbols files of this machine, where each version node has a line
# "NODE@NODE first-version". This works the same for the native and the
# cross-built programs; dpkg-shlibdeps cannot: the cross toolchain's ARM
# libraries come with no symbols files, only an unversioned libstdc++6.

# Package that ships each library the programs may link.
foreach(library libc.so.6 libm.so.6 libpthread.so.0 libdl.so.2 librt.so.1
                ld-linux-armhf.so.3 ld-linux-x86-64.so.2)
  set(korvane_lib_package_${library} libc6)
endforeach()
set(korvane_lib_package_libstdc++.so.6 libstdc++6)
set(korvane_lib_package_libgcc_s.so.1 libgcc-s1)

# First version of package that defines node, from its symbols file; for
# glibc and libgcc nodes missing there (another architecture's baseline,
# such as GCC_3.5 on ARM) the node's own number is that version.
function(korvane_node_version package node out)
  execute_process(COMMAND dpkg-query --control-path ${package} symbols
    OUTPUT_VARIABLE symbols OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(symbols AND EXISTS "${symbols}")
    file(STRINGS "${symbols}" line REGEX "^ ${node}@${node} ")
    if(line)
      string(REGEX REPLACE "^ [^ ]+ ([^ ]+).*" "\\1" version "${line}")
      set(${out} ${version} PARENT_SCOPE)
      return()
    endif()
  endif()
  if(node MATCHES "^(GLIBC|GCC)_([0-9.]+)$")
    set(${out} ${CMAKE_MATCH_2} PARENT_SCOPE)
    return()
  endif()
  message(FATAL_ERROR "cpack-depends: no first version known for ${node} of ${package}")
endfunction()

# Adds the needs of one program to korvane_need_<package> (highest version).
function(korvane_program_needs program)
  execute_process(COMMAND readelf -V -d --wide ${program}
    OUTPUT_VARIABLE dump RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "cpack-depends: readelf ${program} failed")
  endif()
  string(REPLACE "\n" ";" lines "${dump}")
  set(library "")
  foreach(line IN LISTS lines)
    if(line MATCHES "\\(NEEDED\\).*\\[(.+)\\]")
      korvane_need(${CMAKE_MATCH_1} "")
    elseif(line MATCHES "File: ([^ ]+)")
      set(library ${CMAKE_MATCH_1})
    elseif(library AND line MATCHES "Name: ([A-Z]+_[0-9.]+) ")
      korvane_need(${library} ${CMAKE_MATCH_1})
    endif()
  endforeach()
endfunction()

# Records that library is linked, and node (when given) is used from it.
macro(korvane_need library node)
  set(package ${korvane_lib_package_${library}})
  if(NOT package)
    message(FATAL_ERROR "cpack-depends: no package known for ${library}")
  endif()
  set_property(GLOBAL APPEND PROPERTY korvane_packages ${package})
  if(NOT "${node}" STREQUAL "")
    korvane_node_version(${package} ${node} version)
    get_property(have GLOBAL PROPERTY korvane_need_${package})
    if(NOT have OR version VERSION_GREATER have)
      set_property(GLOBAL PROPERTY korvane_need_${package} ${version})
    endif()
  endif()
endmacro()

if(CPACK_GENERATOR STREQUAL "DEB")
  # conffiles and the unit's ExecStart name /etc and /usr/bin.
  if(NOT CPACK_PACKAGING_INSTALL_PREFIX STREQUAL "/usr")
    message(FATAL_ERROR "cpack-depends: configure the package tree with "
      "-DCMAKE_INSTALL_PREFIX=/usr (it has ${CPACK_PACKAGING_INSTALL_PREFIX})")
  endif()
  foreach(program IN LISTS CPACK_KORVANE_PROGRAMS)
    korvane_program_needs(${program})
  endforeach()
  get_property(packages GLOBAL PROPERTY korvane_packages)
  list(REMOVE_DUPLICATES packages)
  list(SORT packages)
  set(depends ${CPACK_DEBIAN_PACKAGE_DEPENDS})
  foreach(package IN LISTS packages)
    get_property(version GLOBAL PROPERTY korvane_need_${package})
    if(version)
      list(APPEND depends "${package} (>= ${version})")
    else()
      list(APPEND depends ${package})
    endif()
  endforeach()
  list(JOIN depends ", " CPACK_DEBIAN_PACKAGE_DEPENDS)
  message(STATUS "cpack-depends: Depends: ${CPACK_DEBIAN_PACKAGE_DEPENDS}")
endif()
